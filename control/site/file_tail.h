#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "common/misc/unique_fd.h"

namespace control {

/// Reads what is appended to a file, also when it is emptied or its front is cut off meanwhile, and
/// tells when another one has taken its name.
class file_tail final {
 public:
  using reader = std::function<void(std::string_view)>;

  explicit file_tail(std::string path) : path_(std::move(path)) {}

  [[nodiscard]] const std::string& path() const { return path_; }
  /// The file that is open, read up to its offset; -1 when there is none.
  [[nodiscard]] int fd() const { return file_.get(); }
  /// Opens the file that has the name now; there may be none.
  void open(bool at_end);
  /// Hands out, piece by piece, what was appended to the file that is open.
  void read_on(const reader& take);
  /// Whether the name belongs to another file, and something is in that one.
  [[nodiscard]] bool is_replaced() const;

 private:
  void find_place();

  std::string path_;
  unique_fd file_;
  std::string last_;  ///< What stands in front of the offset: the end of what was read.
};

}  // namespace control
