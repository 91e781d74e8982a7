// The program that every contender of bench/compare supervises. It tells when its first instruction
// ran and then either ends at once or waits for a signal that ends it.
//
// It has no C library and no start-up code: on a small machine these take longer than a fork and
// an exec together, and would hide the differences that are to be seen.
//
// It is run as ROOT/<directory>/<name> or as ROOT/<directory>/<name>/run, and no argument or
// variable is needed: all it wants to know is in the path of its own file. It appends one `record`
// to ROOT/events. A name that begins with "q" ends at once for as long as ROOT/spin exists. A
// program that waits writes a newline to descriptor 3 when ROOT/ready exists, for supervisors who
// want to be told that it is ready.

#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>

namespace {

#if defined(__x86_64__)
long system_call(long number, long a, long b, long c, long d) {
  register long fourth asm("r10") = d;
  long result = 0;
  asm volatile("syscall"
               : "=a"(result)
               : "a"(number), "D"(a), "S"(b), "d"(c), "r"(fourth)
               : "rcx", "r11", "memory");
  return result;
}
#define KEELMOND_BENCH_ENTRY [[gnu::force_align_arg_pointer, noreturn]]
#elif defined(__aarch64__)
long system_call(long number, long a, long b, long c, long d) {
  register long which asm("x8") = number;
  register long first asm("x0") = a;
  register long second asm("x1") = b;
  register long third asm("x2") = c;
  register long fourth asm("x3") = d;
  asm volatile("svc 0" : "+r"(first) : "r"(which), "r"(second), "r"(third), "r"(fourth) : "memory");
  return first;
}
#define KEELMOND_BENCH_ENTRY [[noreturn]]
#else
#error "How this processor makes a system call has to be added here."
#endif

long address(const void* pointer) {
  return reinterpret_cast<long>(pointer);
}

/// What is appended to the file of events, 32 bytes. bench/harness/events.py reads it.
struct record {
  long started;   ///< monotonic clock at the first instruction, in nanoseconds
  long ended;     ///< the same just before the end; 0 when the program goes on to wait
  int pid;        ///< as the program itself sees it
  char name[12];  ///< filled up with zeroes
};
static_assert(sizeof(record) == 32);

long now() {
  timespec time;
  system_call(SYS_clock_gettime, CLOCK_MONOTONIC, address(&time), 0, 0);
  return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

/// The path of the running file, taken apart.
struct own_path {
  char text[512];
  long root = 0;  ///< length of ROOT
  long name = 0;  ///< where the name begins
  long end = 0;   ///< where the name ends
};

/// Where the last component before `end` begins.
long component_before(const char* text, long end) {
  while (end > 0 && text[end - 1] != '/')
    --end;
  return end;
}

void find_own_path(own_path& path) {
  path.end = system_call(SYS_readlinkat, AT_FDCWD, address("/proc/self/exe"), address(path.text),
                         sizeof path.text - 16);
  if (path.end < 0) path.end = 0;
  path.name = component_before(path.text, path.end);
  if (path.end - path.name == 3 && path.text[path.name] == 'r' && path.text[path.name + 1] == 'u') {
    path.end = path.name > 0 ? path.name - 1 : 0;
    path.name = component_before(path.text, path.end);
  }
  const long directory = component_before(path.text, path.name > 0 ? path.name - 1 : 0);
  path.root = directory > 0 ? directory - 1 : 0;
}

/// Opens ROOT + `suffix`.
long open_below_root(const own_path& path, const char* suffix, long flags) {
  char text[sizeof path.text];
  for (long i = 0; i < path.root; ++i)
    text[i] = path.text[i];
  long length = path.root;
  for (const char* next = suffix; *next != '\0'; ++next)
    text[length++] = *next;
  text[length] = '\0';
  return system_call(SYS_openat, AT_FDCWD, address(text), flags, 0);
}

}  // namespace

extern "C" KEELMOND_BENCH_ENTRY void _start() {
  record made{now(), 0, 0, {}};
  own_path path;
  find_own_path(path);
  made.pid = static_cast<int>(system_call(SYS_getpid, 0, 0, 0, 0));
  for (long i = 0; i < path.end - path.name && i < static_cast<long>(sizeof made.name); ++i)
    made.name[i] = path.text[path.name + i];
  const long events = open_below_root(path, "/events", O_WRONLY | O_APPEND);
  const bool leaves = made.name[0] == 'q' && open_below_root(path, "/spin", O_RDONLY) >= 0;
  if (leaves) made.ended = now();
  system_call(SYS_write, events, address(&made), sizeof made, 0);
  if (leaves) system_call(SYS_exit_group, 0, 0, 0, 0);
  if (open_below_root(path, "/ready", O_RDONLY) >= 0)
    system_call(SYS_write, 3, address("\n"), 1, 0);
  for (;;)
    system_call(SYS_ppoll, 0, 0, 0, 0);
}
