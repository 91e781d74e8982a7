#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "runner/log/log_settings.h"
#include "runner/log/rotated_name.h"
#include "tests/support/scratch_dir.h"

/// A directory with one log and its rotated files.
class log_place final {
 public:
  [[nodiscard]] std::string path() const { return directory_.file("x.log"); }
  [[nodiscard]] const scratch_dir& directory() const { return directory_; }
  /// Settings for a file there; nothing rotated is removed.
  [[nodiscard]] runner::log_settings settings(std::uint64_t size) const;

  /// What is in the file now.
  [[nodiscard]] std::string now() const { return directory_.read("x.log"); }
  [[nodiscard]] std::vector<runner::rotated_name> rotated() const {
    return runner::find_rotated(path());
  }
  /// What is in the rotated files, oldest first; compressed ones are unpacked.
  [[nodiscard]] std::vector<std::string> rotated_texts() const;
  /// What was ever written, if nothing was removed.
  [[nodiscard]] std::string everything() const;
  /// Writes a rotated file whole. @return its path.
  std::string write_rotated(const runner::rotated_name& name, std::string_view text) const;

 private:
  scratch_dir directory_;
};

/// Has a script be the only gzip, and the only program, that is found from now on.
void replace_gzip(const scratch_dir& place, std::string_view script);
