#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/misc/unique_fd.h"
#include "runner/log/line_stamp.h"
#include "runner/log/log_settings.h"
#include "runner/log/lost_lines.h"
#include "runner/log/own_lines.h"
#include "runner/log/rotated_files.h"
#include "runner/log/steady_time.h"

namespace runner {

/// A log file that is written to its end and rotated between two lines.
///
/// A piece is written as soon as it is there, whether its last line is complete or not. So a file
/// exceeds its limit only by the rest of a line that began below it, or when one line is longer
/// than the limit: that line has a file of its own.
///
/// A file that others have renamed or removed is left at a line's end, at most a second after the
/// next piece; one that was truncated stays in use. A line that the disk has no room for is taken
/// back as a whole.
class rotating_file final {
 public:
  /// Opens the file. @param stamp what stands in front of the launcher's own lines, or null.
  rotating_file(std::string path, const log_settings& settings, const line_stamp* stamp,
                own_lines& messages);
  rotating_file(const rotating_file&) = delete;
  rotating_file& operator=(const rotating_file&) = delete;
  ~rotating_file() = default;

  /// Why the file cannot be opened; empty when it is open.
  [[nodiscard]] const std::string& error() const { return error_; }

  void write(std::string_view text);
  [[nodiscard]] bool is_line_open() const { return is_line_open_; }

  /// When the file is too old.
  [[nodiscard]] std::optional<time_point> next_deadline() const;
  void on_deadline();

  [[nodiscard]] rotated_files& rotated() { return rotated_; }
  [[nodiscard]] const rotated_files& rotated() const { return rotated_; }

 private:
  [[nodiscard]] bool open();
  /// Whether an earlier run was killed in the middle of a line.
  [[nodiscard]] bool ends_inside_line() const;
  /// Whether the file has to be looked at before the next line.
  [[nodiscard]] bool is_look_due() const;
  void look();
  /// Whether the file at the path is the one that is written.
  [[nodiscard]] bool is_in_place(struct stat& status) const;
  void rotate();
  void reopen();
  /// How much of `text` belongs into this file; 0 when the next one has to be begun.
  [[nodiscard]] std::size_t fitting(std::string_view text) const;
  void append(std::string_view text);
  /// Counts what of `text` has not been written. The first `written` bytes have been, and after
  /// `before` other bytes that belong to it.
  void lose(std::string_view text, std::size_t written, std::size_t before);
  std::size_t put(std::string_view text);
  void take_back(std::size_t count);
  /// The line about those that were lost, and the end of what stands unfinished before it.
  [[nodiscard]] std::string first_words() const;
  void complain(const char* what);

  std::string path_;
  std::uint64_t most_;
  std::chrono::seconds most_age_;
  const line_stamp* stamp_;
  own_lines& messages_;
  rotated_files rotated_;
  std::string error_;

  unique_fd fd_;
  bool is_regular_ = false;
  std::uint64_t written_ = 0;  ///< Bytes in the file.
  bool is_line_open_ = false;  ///< The program has not ended its line.
  bool is_torn_ = false;       ///< The file ends in the middle of a line that nobody will end.
  lost_lines lost_;
  std::optional<time_point> too_old_at_;
  time_point looked_at_;
  bool has_complained_ = false;
};

}  // namespace runner
