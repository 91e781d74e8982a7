#pragma once

#include <filesystem>
#include <string>
#include <string_view>

/// An empty directory that is removed, with all that is in it, with the object.
class scratch_dir final {
 public:
  scratch_dir();
  scratch_dir(const scratch_dir&) = delete;
  scratch_dir& operator=(const scratch_dir&) = delete;
  ~scratch_dir();

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  /// Full path of `name` in the directory.
  [[nodiscard]] std::string file(std::string_view name) const { return (path_ / name).string(); }
  /// Writes a file of the directory, whole.
  void write(std::string_view name, std::string_view text) const;
  /// Reads a file of the directory, whole; empty when there is none.
  [[nodiscard]] std::string read(std::string_view name) const;
  [[nodiscard]] bool has(std::string_view name) const { return exists(path_ / name); }

 private:
  std::filesystem::path path_;
};

/// Makes a directory the working directory for as long as the object lives.
class working_dir final {
 public:
  explicit working_dir(const std::filesystem::path& path);
  working_dir(const working_dir&) = delete;
  working_dir& operator=(const working_dir&) = delete;
  ~working_dir();

 private:
  std::filesystem::path before_;
};

/// Reads a file whole; empty when it cannot be opened.
std::string read_file(const std::filesystem::path& path);
/// Writes a file whole, in place.
void write_file(const std::filesystem::path& path, std::string_view text);
