#include "control/site/log_follower.h"

#include <string_view>
#include <utility>

namespace control {

log_follower::log_follower(std::string path) : file_(std::move(path)) {
  watch_.add_directory_of(file_.path());
  file_.open(true);
}

std::vector<log_event> log_follower::read() {
  const auto feed = [this](std::string_view piece) { parser_.feed(piece); };
  file_.read_on(feed);
  if (file_.is_replaced()) {
    file_.open(false);
    file_.read_on(feed);
  }
  return parser_.take();
}

}  // namespace control
