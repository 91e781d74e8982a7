#include "tests/common/misc/fake_clock.h"

#include <sys/time.h>

#include <atomic>

namespace {

enum class mode { real, fake, broken };

/// Threads of a test read what the test set before it started them, so relaxed order would do; the
/// default is kept because speed does not matter here.
std::atomic<mode> clock_mode{mode::real};
std::atomic<std::time_t> fake_seconds{0};
std::atomic<long> fake_nanoseconds{0};
std::atomic<long> fake_step{0};

}  // namespace

fake_clock::fake_clock(std::time_t seconds, long nanoseconds, long step) {
  fake_seconds = seconds;
  fake_nanoseconds = nanoseconds;
  fake_step = step;
  clock_mode = mode::fake;
}

fake_clock::~fake_clock() {
  clock_mode = mode::real;
}

void fake_clock::set(std::time_t seconds) {
  fake_seconds = seconds;
}

void fake_clock::break_clock() {
  clock_mode = mode::broken;
}

extern "C" {

std::time_t __real_time(std::time_t* out);
int __real_gettimeofday(timeval* out, void* zone);
int __real_clock_gettime(clockid_t clock, timespec* out);

std::time_t __wrap_time(std::time_t* out) {
  if (clock_mode == mode::real) return __real_time(out);
  const std::time_t now = clock_mode == mode::broken ? -1 : fake_seconds.load();
  if (out != nullptr) *out = now;
  return now;
}

int __wrap_gettimeofday(timeval* out, void* zone) {
  if (clock_mode == mode::real) return __real_gettimeofday(out, zone);
  if (clock_mode == mode::broken) return -1;
  *out = {fake_seconds, fake_nanoseconds / 1000};
  return 0;
}

int __wrap_clock_gettime(clockid_t clock, timespec* out) {
  if (clock_mode == mode::real || clock != CLOCK_REALTIME) return __real_clock_gettime(clock, out);
  if (clock_mode == mode::broken) return -1;
  *out = {fake_seconds, fake_nanoseconds.fetch_add(fake_step)};
  return 0;
}

}  // extern "C"
