#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Users and groups as /etc/passwd and /etc/group list them.
///
/// These two files are read directly: the C library's look-up loads shared libraries at run time,
/// which a static program must not rely on. So users of a directory service are known only by
/// number.
namespace runner {

struct user_account {
  std::string name;  ///< Empty for a number that no line has.
  uid_t uid = 0;
  gid_t gid = 0;
  std::string home;
  std::string shell;
  bool listed = false;  ///< Whether a line has it; group, home and shell are known only then.
};

class accounts final {
 public:
  /// Those of `passwd` and `group` in a directory, which are read when somebody asks: most program
  /// files name nobody.
  explicit accounts(std::string directory = "/etc") : directory_(std::move(directory)) {}

  /// A user by name, or by number; a number counts even when no user has it.
  [[nodiscard]] std::optional<user_account> find_user(std::string_view wanted) const;
  [[nodiscard]] std::optional<gid_t> find_group(std::string_view wanted) const;
  /// The groups that list the user as a member, and `primary` first.
  [[nodiscard]] std::vector<gid_t> groups_of(std::string_view user, gid_t primary) const;

 private:
  [[nodiscard]] std::string_view text_of(const char* file, std::optional<std::string>& text) const;

  std::string directory_;
  mutable std::optional<std::string> passwd_;
  mutable std::optional<std::string> group_;
};

}  // namespace runner
