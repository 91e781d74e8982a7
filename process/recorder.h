#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>

#include "common/thread/event_count.h"

/// The one thread that writes the log and the liveness files of programs, for all the others.
///
/// A write to a mount whose server is gone, or to a pipe that nobody reads, waits for ever, and
/// with it the thread that made it. So the threads on which programs depend hand over what they
/// have to record and wait until it has been written: for a second at most. Then they go on, and
/// their program is restarted all the same. A line that cannot be handed over because the thread's
/// last one has not been written yet goes to the console instead.
namespace recorder {

/// Longest line and name in bytes with their terminators; what goes beyond is cut.
inline constexpr std::size_t kLineSize = 768;
inline constexpr std::size_t kNameSize = 512;

/// What one thread hands over, one thing at a time. It belongs to the recorder until
/// `wait_until_idle` says that nothing is being written. Only the functions below touch its
/// members.
struct record {
  enum class kind : char { line, launched, ended, close_log };

  record* next = nullptr;
  kind what = kind::line;
  char program[kNameSize] = {};
  char line[kLineSize] = {};
  /// It has been handed over and not been written yet.
  std::atomic<bool> pending{false};
  /// What the liveness file shall say, also when it changes while an older line hangs.
  std::atomic<bool> alive{false};
  event_count written{};
};

/// Creates the thread, if it does not exist. Called before the first monitor is started, by one
/// thread at a time. Without it everything is written by the thread that asks for it.
bool start() noexcept;

/// Appends a line, which carries its own line end, to the log, and then the line with the time.
/// Does nothing while there is no log. Called where configurations are loaded, and before: by one
/// thread at a time.
void append(const char* line) noexcept;
/// Marks the program alive, then appends a line.
void record_launch(record& own, const char* program, const char* line) noexcept;
/// Appends a line, then marks the program not alive.
void record_end(record& own, const char* program, const char* line) noexcept;

/// Has the time zone of the machine read again before the next line: it may have changed.
void follow_time_zone() noexcept;

/// Waits until everything that was handed over has been written.
/// @return false when something is still being written after `limit`.
bool wait_until_idle(std::chrono::milliseconds limit) noexcept;

/// Deletes the log, which closes it, and sets `g_logFile` to null.
/// @return false when that hangs.
bool close_log() noexcept;

}  // namespace recorder
