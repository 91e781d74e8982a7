#pragma once

#include <cstddef>

/// The supervisor's lines on standard output, and its complaints on standard error.
///
/// A line is formatted first and then handed to the kernel in one write, with no buffer in between:
/// nothing is left over that a forked child could write a second time, no two lines mix, and
/// each is visible at once, whatever standard output is connected to.
///
/// A line never waits long for a reader. When its descriptor is closed, full or read by nobody, the
/// line is lost and the caller goes on. A pipe whose reader is late, or a terminal that somebody
/// else is writing to, is waited for; one that turns out to be stuck instead costs a few hundredths
/// of a second once, and nothing more until a line gets through. Standard error is only asked for
/// room, at all times. Every function but `open` may be called from any thread; errno is left as it
/// was.
namespace console {

/// Longest line in bytes; what goes beyond is cut. No line of the supervisor comes near it. The
/// kernel writes this much to a pipe whole or not at all, and it is small because every thread that
/// prints needs it on its stack.
inline constexpr std::size_t kMaxLine = 1024;

/// Looks at what standard output is connected to and prepares a way to it that cannot block.
///
/// Call it once, before the first thread is started. Until then lines are written after asking
/// whether there is room, which another writer can make untrue in between.
void open() noexcept;

/// Prints one formatted text, as `printf` would.
[[gnu::format(printf, 1, 2)]] void print(const char* format, ...) noexcept;

/// Prints `text` and a newline, as `puts` would.
void print_line(const char* text) noexcept;

/// Prints `format` as `printf` would print it when it is given no argument at all.
///
/// "%%" prints as "%". Any other conversion would read or write an argument that is not there:
/// it prints as it is written, and nothing is read or written for it.
void print_as_format(const char* format) noexcept;

/// Prints `what`, ": ", the text for errno and a newline on standard error, as `perror` would.
void report_error(const char* what) noexcept;

/// Prints `what`, ": ", `why` and a newline on standard error.
void report_failure(const char* what, const char* why) noexcept;

}  // namespace console
