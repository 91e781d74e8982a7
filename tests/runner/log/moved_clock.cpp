#include "tests/runner/log/moved_clock.h"

#include <ctime>
#include <optional>

namespace {

using std::chrono::microseconds;

microseconds steady_ahead{0};
microseconds wall_ahead{0};
std::optional<std::int64_t> wall_stopped_at;

timespec to_timespec(std::int64_t at) {
  return {at / 1'000'000, at % 1'000'000 * 1000};
}

}  // namespace

moved_clock::~moved_clock() {
  steady_ahead = wall_ahead = microseconds(0);
  wall_stopped_at.reset();
}

void moved_clock::advance(microseconds by) {
  steady_ahead += by;
  advance_wall(by);
}

void moved_clock::advance_wall(microseconds by) {
  wall_ahead += by;
  if (wall_stopped_at) *wall_stopped_at += by.count();
}

void moved_clock::stop_wall(std::int64_t at) {
  wall_stopped_at = at;
}

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's.
extern "C" {

int __real_clock_gettime(clockid_t clock, timespec* out);

int __wrap_clock_gettime(clockid_t clock, timespec* out) {
  if (clock == CLOCK_REALTIME && wall_stopped_at) {
    *out = to_timespec(*wall_stopped_at);
    return 0;
  }
  const int result = __real_clock_gettime(clock, out);
  const microseconds ahead = clock == CLOCK_REALTIME    ? wall_ahead
                             : clock == CLOCK_MONOTONIC ? steady_ahead
                                                        : microseconds(0);
  if (result != 0 || ahead.count() == 0) return result;
  const long nanoseconds = out->tv_nsec % 1000;
  *out = to_timespec(std::int64_t{out->tv_sec} * 1'000'000 + out->tv_nsec / 1000 + ahead.count());
  out->tv_nsec += nanoseconds;
  return result;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
