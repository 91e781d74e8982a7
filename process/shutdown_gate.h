#pragma once

#include <atomic>
#include <chrono>

/// Keeps threads that nobody joins away from the objects that they use before the shutdown deletes
/// these.
///
/// A thread is inside the gate from the moment it is created until it ends, except while it waits
/// for something (`shutdown_gate::outside`). The gate goes through three phases, never back:
/// - open: threads step out and in as they like;
/// - no launches: the same, but a thread that asks `may_launch` is told no;
/// - closed: a thread that wants to step in again parks, for good, and touches nothing more.
///
/// Nothing here excludes one thread from another: threads inside never wait for each other, and the
/// one that shuts down only counts. Each member may be called from any thread; none allocates.
///
/// Every atomic here keeps the default order. `step_in` counts itself in and then reads the phase,
/// the thread that shuts down writes the phase and then reads the count; one total order of these
/// four is what makes at least one of the two see the other.
class shutdown_gate final {
 public:
  constexpr shutdown_gate() = default;
  shutdown_gate(const shutdown_gate&) = delete;
  shutdown_gate& operator=(const shutdown_gate&) = delete;

  /// Counts a thread in. Its creator calls this first, so that there is no moment at which the
  /// thread exists and is not counted.
  void admit() noexcept { inside_.fetch_add(1); }
  /// Counts a thread out that has ended or could not be created.
  void dismiss() noexcept { inside_.fetch_sub(1); }

  /// Whether a thread that is inside may still start something.
  [[nodiscard]] bool may_launch() const noexcept { return phase_.load() == phase::open; }
  /// Stops the calling thread for good. It must be inside, and counts as outside from then on.
  [[noreturn]] void park() noexcept;

  /// No thread that steps in from now on may launch anything. Threads already inside may be about
  /// to: wait for the gate to be empty once.
  void forbid_launches() noexcept;
  /// Nobody steps in any more.
  void close() noexcept { phase_.store(phase::closed); }
  /// Waits until no thread is inside.
  /// @return false when there still is one after `limit`.
  bool wait_until_empty(std::chrono::milliseconds limit) const noexcept;

  /// While it lives, the calling thread is outside: it touches no object that the shutdown deletes.
  /// When it is destroyed and the gate has been closed meanwhile, the thread parks.
  class outside final {
   public:
    explicit outside(shutdown_gate& gate) noexcept : gate_(gate) { gate_.dismiss(); }
    outside(const outside&) = delete;
    outside& operator=(const outside&) = delete;
    ~outside() { gate_.step_in(); }

   private:
    shutdown_gate& gate_;
  };

  /// Counts the calling thread out when it ends, after everything else that it does. Takes no
  /// memory from the heap, which every child would keep.
  void dismiss_at_thread_end() noexcept;

 private:
  enum class phase : int { open, no_launches, closed };

  void step_in() noexcept;

  std::atomic<int> inside_{0};
  std::atomic<phase> phase_{phase::open};
};

/// The gate of all monitors' threads.
extern shutdown_gate& g_shutdown_gate;
