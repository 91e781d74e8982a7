#include "runner/log/lost_lines.h"

#include <algorithm>
#include <cstring>

namespace runner {

void lost_lines::add(std::string_view text, int reason) {
  if (text.empty()) return;
  count_ += static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
  is_inside_ = text.back() != '\n';
  reason_ = reason;
}

std::string_view lost_lines::skip(std::string_view text) {
  if (!is_inside_) return text;
  const std::size_t end = text.find('\n');
  if (end == std::string_view::npos) return {};
  ++count_;
  is_inside_ = false;
  return text.substr(end + 1);
}

std::string lost_lines::report() const {
  return std::to_string(count_) + (count_ == 1 ? " line lost: " : " lines lost: ") +
         std::strerror(reason_);
}

}  // namespace runner
