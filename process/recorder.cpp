#include "process/recorder.h"

#include <utility>

#include "common/log/console.h"
#include "common/log/log_file.h"
#include "common/misc/bounded_text.h"
#include "common/misc/fun_misc.h"
#include "common/misc/poll_until.h"
#include "common/thread/detached_thread.h"
#include "common/thread/inbox.h"
#include "common/thread/unforked_memory.h"

namespace recorder {
namespace {

/// How long a thread waits for what it has handed over to be written.
constexpr std::chrono::seconds kPatience{1};

struct handed_over {
  inbox<record> records;
  /// How many of them have not been written yet.
  std::atomic<int> unwritten{0};
};

[[gnu::section("unforked")]] constinit unforked_memory::static_object<handed_over> g_handed_over;

/// Written by `start`, read by every thread; whoever reads it was started later.
std::atomic<bool> running{false};

/// Set by the loader, taken by the thread that writes: the zone is read where times are made.
std::atomic<bool> zone_is_old{false};

void append_line(const char* line) {
  if (g_logFile == nullptr) return;
  if (zone_is_old.load() && zone_is_old.exchange(false)) Tlog_file::read_time_zone();
  g_logFile->append_log(line, -1);
  // The time comes second: it belongs to the line above it.
  g_logFile->append_time();
}

/// @return what the liveness file says now, if there is any.
bool write(const record& wanted) {
  const bool alive = wanted.alive.load();
  switch (wanted.what) {
    case record::kind::line:
      append_line(wanted.line);
      break;
    case record::kind::launched:
      Tfun_misc::UpdateProcessLiveFile(wanted.program, alive);
      append_line(wanted.line);
      break;
    case record::kind::ended:
      append_line(wanted.line);
      Tfun_misc::UpdateProcessLiveFile(wanted.program, alive);
      break;
    case record::kind::close_log:
      delete std::exchange(g_logFile, nullptr);
      break;
  }
  return alive;
}

void serve(record& wanted) {
  bool marked = write(wanted);
  wanted.pending.store(false);
  // What was to be marked while the line hung could not be handed over.
  while (wanted.alive.load() != marked && !wanted.pending.exchange(true)) {
    marked = !marked;
    Tfun_misc::UpdateProcessLiveFile(wanted.program, marked);
    wanted.pending.store(false);
  }
  // Its owner goes on as soon as the count has changed.
  wanted.written.advance();
  g_handed_over->unwritten.fetch_sub(1);
}

void* serve_all(void* /*unused*/) {
  g_handed_over->records.serve_for_ever(serve);
}

/// @return whether it has been written.
bool hand_over(record& own, record::kind what, const char* program, const char* line) noexcept {
  if (own.pending.exchange(true)) {
    console::print("keelmond: the log hangs, not written: %s", line);
    return false;
  }
  own.what = what;
  copy_bounded(own.program, program);
  copy_bounded(own.line, line);
  if (!running.load()) {
    write(own);
    own.pending.store(false);
    return true;
  }
  g_handed_over->unwritten.fetch_add(1);
  const std::uint32_t seen = own.written.current();
  g_handed_over->records.push(own);
  return own.written.await_change_for(seen, kPatience);
}

}  // namespace

bool start() noexcept {
  if (!running.load()) running.store(start_detached_thread(serve_all));
  return running.load();
}

void append(const char* line) noexcept {
  static record own;
  hand_over(own, record::kind::line, "", line);
}

void record_launch(record& own, const char* program, const char* line) noexcept {
  own.alive.store(true);
  hand_over(own, record::kind::launched, program, line);
}

void record_end(record& own, const char* program, const char* line) noexcept {
  own.alive.store(false);
  hand_over(own, record::kind::ended, program, line);
}

void follow_time_zone() noexcept {
  zone_is_old.store(true);
}

bool wait_until_idle(std::chrono::milliseconds limit) noexcept {
  return poll_until(limit, std::chrono::milliseconds(1),
                    [] { return g_handed_over->unwritten.load() == 0; });
}

bool close_log() noexcept {
  static record closing;
  return hand_over(closing, record::kind::close_log, "", "");
}

}  // namespace recorder
