#include "tests/runner/log/moved_clock.h"

#include <ctime>
#include <optional>

namespace {

using std::chrono::microseconds;

microseconds wall_ahead{0};
std::optional<std::int64_t> steady_stopped_at;
std::optional<std::int64_t> wall_stopped_at;

timespec to_timespec(std::int64_t at) {
  return {at / 1'000'000, at % 1'000'000 * 1000};
}

std::int64_t to_microseconds(const timespec& at) {
  return std::int64_t{at.tv_sec} * 1'000'000 + at.tv_nsec / 1000;
}

}  // namespace

moved_clock::moved_clock() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  steady_stopped_at = to_microseconds(now);
}

moved_clock::~moved_clock() {
  wall_ahead = microseconds(0);
  steady_stopped_at.reset();
  wall_stopped_at.reset();
}

void moved_clock::advance(microseconds by) {
  *steady_stopped_at += by.count();
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
  const auto& stopped_at = clock == CLOCK_REALTIME ? wall_stopped_at : steady_stopped_at;
  if ((clock == CLOCK_REALTIME || clock == CLOCK_MONOTONIC) && stopped_at) {
    *out = to_timespec(*stopped_at);
    return 0;
  }
  const int result = __real_clock_gettime(clock, out);
  if (result == 0 && clock == CLOCK_REALTIME)
    *out = to_timespec(to_microseconds(*out) + wall_ahead.count());
  return result;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
