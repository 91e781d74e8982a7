#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "runner/log/log_settings.h"
#include "runner/log/steady_time.h"

namespace runner {

/// Takes the output of a program out of pipes and brings it to where the section `log` says.
///
/// Made before the program is started and kept over all its starts: the pipes stay the same. All
/// members belong to the one thread of the launcher, whose loop polls `poll_requests` and
/// `next_deadline`. Nothing here waits for a reader, and nothing that goes wrong with the target
/// ends or stops the program: lines that cannot be written are counted, and the number is written
/// as soon as writing works again.
///
/// The constructor ignores SIGXFSZ and SIGPIPE in this process: whoever starts a program has to set
/// them back. Every descriptor is close-on-exec.
class program_log final {
 public:
  /// As many descriptors as `poll_requests` may ask for.
  static constexpr std::size_t kMostRequests = 2;

  /// Opens the target and makes the pipes. See `error`.
  explicit program_log(const log_settings& settings);
  program_log(const program_log&) = delete;
  program_log& operator=(const program_log&) = delete;
  /// Closes without reading what is left in the pipes; `drain_and_close` reads it.
  ~program_log();

  /// Why the log cannot be used, as in "cannot open /var/log/x.log: Permission denied"; empty when
  /// all is well. Nothing else may be called on one that failed.
  [[nodiscard]] const std::string& error() const;
  /// Which key of the section `log` that is about: "file", "stderr" or "to".
  [[nodiscard]] const char* error_key() const;

  /// What the program gets as its descriptors 1 and 2: the two may be the same one. They stay open
  /// here.
  [[nodiscard]] int stdout_end() const;
  [[nodiscard]] int stderr_end() const;

  /// Writes what to poll for now to `out`. Asked anew before each poll: it changes.
  /// @return how many of them are in use; 0 when nothing is read here.
  [[nodiscard]] std::size_t poll_requests(std::span<pollfd, kMostRequests> out) const;
  /// Takes what is there. For each descriptor of `poll_requests` that poll returned anything for;
  /// others are ignored.
  void on_ready(int fd);

  /// When `on_deadline` wants to be called; nothing while nothing is due. Asked anew before each
  /// poll.
  [[nodiscard]] std::optional<time_point> next_deadline() const;
  /// Does what is due. May be called at any time.
  void on_deadline();

  /// Writes a line of the launcher's own: "keelmond-run: ", `text`, which has no line end, and one.
  ///
  /// What the program has written before comes first. While a line of the program is unfinished it
  /// waits for the end of that, though for no longer than a second. Where the output is inherited
  /// it goes to standard error, unless nobody takes it there now.
  void write_own_line(std::string_view text);
  /// To be called when the program has ended: takes what is left in the pipes, and a line without
  /// an end gets one.
  void on_program_end();

  /// Whether that child of the launcher compresses a rotated file. It may be killed at any time:
  /// the file is then compressed after the next start.
  [[nodiscard]] bool is_compressor(pid_t pid) const;
  /// To be called for children that the launcher has waited for.
  /// @return whether it was one that compresses.
  bool on_child_end(pid_t pid, int status);

  /// Takes what is left in the pipes, ends the last line, kills and awaits what compresses, and
  /// closes everything. Nothing may be called after it but the destructor.
  void drain_and_close();

 private:
  class implementation;
  std::unique_ptr<implementation> inner_;
};

}  // namespace runner
