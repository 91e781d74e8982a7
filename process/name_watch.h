#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Watches the names that lead to a file, beside a watch on the file itself.
///
/// A watch on a file follows the file. A tool that moves the old one away as a backup, or replaces
/// a link, takes the watch off the name, and nobody watches the file that has it then. So each
/// directory on the way is watched for the one name in it that matters: whether it is moved away,
/// moved in or created there. A directory that cannot be watched is left out.
class name_watch final {
 public:
  /// What some events mean for the file.
  enum class finding {
    nothing,   ///< they are about other names
    replaced,  ///< a file has been moved in, and is whole
    changed,   ///< anything else; also no event at all
  };

  /// Adds its watches to an inotify instance, which ends them when it is closed. A null `path`
  /// leads nowhere.
  name_watch(int instance, const char* path) noexcept;

  /// Whether the directory of the file itself is watched.
  [[nodiscard]] bool sees_the_name() const noexcept { return sees_name_; }

  /// Judges events as `read` delivers them, whole; events of other watches mean `changed`.
  [[nodiscard]] finding judge(const char* events, std::size_t size) const noexcept;

 private:
  /// One name in a directory.
  struct place {
    int watch;
    std::string name;
  };

  void follow(std::string_view path);
  /// @return whether the directory can be watched.
  bool add(const std::string& directory, const std::string& name);
  [[nodiscard]] bool is_of_a_directory(int watch) const noexcept;
  [[nodiscard]] bool is_ours(int watch, std::string_view name) const noexcept;

  int instance_;
  std::vector<place> places_;
  bool sees_name_ = false;
};
