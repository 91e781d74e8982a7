#pragma once

#include <span>
#include <string>

#include "runner/log/line_stamp.h"
#include "runner/log/log_settings.h"
#include "runner/log/log_sink.h"
#include "runner/log/own_lines.h"
#include "runner/log/rotating_file.h"

namespace runner {

/// Writes to a rotated file, with or without the time in front of each line.
class file_sink final : public log_sink {
 public:
  /// @param path of the file. @param space for lines with stamps; not used when there are none.
  file_sink(std::string path, const log_settings& settings, std::span<char> space,
            own_lines& messages);

  [[nodiscard]] const std::string& error() const { return file_.error(); }

  void take(std::string_view text) override;
  [[nodiscard]] bool is_line_open() const override { return file_.is_line_open(); }
  [[nodiscard]] std::optional<time_point> next_deadline() const override {
    return file_.next_deadline();
  }
  void on_deadline() override { file_.on_deadline(); }
  [[nodiscard]] pid_t compressor() const override { return file_.rotated().compressor(); }
  bool on_child_end(pid_t pid, int status) override {
    return file_.rotated().on_child_end(pid, status);
  }

 private:
  bool has_stamps_;
  line_stamp stamp_;
  std::span<char> space_;
  rotating_file file_;
};

}  // namespace runner
