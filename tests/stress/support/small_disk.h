#pragma once

#include <filesystem>

#include "tests/e2e/support/installation.h"

namespace stress {

/// A small file system of the installation's own in the place of its directory, with the programs
/// that have been added so far. The namespace in which the tests run keeps it from everybody else.
class small_disk final {
 public:
  /// @param options as `mount` takes them for a tmpfs: "size=256k,nr_inodes=40".
  small_disk(const installation& place, const char* options);
  small_disk(const small_disk&) = delete;
  small_disk& operator=(const small_disk&) = delete;
  ~small_disk();

  /// Whether there is one: mounting may be forbidden, and then the directory stays what it was.
  [[nodiscard]] bool mounted() const { return mounted_; }

  /// Takes what is left of the space.
  void fill() const;
  /// Takes what is left of the files.
  void fill_with_files() const;
  void make_room() const;

 private:
  std::filesystem::path at_;
  bool mounted_;
};

}  // namespace stress
