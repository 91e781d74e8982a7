#include "runner/log/file_sink.h"

#include <utility>

namespace runner {

file_sink::file_sink(std::string path, const log_settings& settings, std::span<char> space,
                     own_lines& messages)
    : has_stamps_(settings.stamp),
      space_(space),
      file_(std::move(path), settings, settings.stamp ? &stamp_ : nullptr, messages) {}

void file_sink::take(std::string_view text) {
  if (!has_stamps_) {
    file_.write(text);
    return;
  }
  // The lines of one piece have come at one moment, as far as can be told.
  stamp_.set_to_now();
  while (!text.empty()) {
    const stamped done = stamp_lines(text, file_.is_line_open(), stamp_.text(), space_);
    file_.write({space_.data(), done.written});
    text.remove_prefix(done.taken);
  }
}

}  // namespace runner
