#include "runner/file/accounts.h"

#include <fcntl.h>

#include <algorithm>
#include <limits>
#include <tuple>

#include "common/misc/small_file.h"
#include "runner/file/values.h"

namespace runner {
namespace {

/// Takes what stands before `mark` away, and the mark.
std::string_view take_until(std::string_view& text, char mark) {
  const std::size_t end = std::min(text.find(mark), text.size());
  const std::string_view part = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return part;
}

/// -1, which stands for "no change" in system calls, is nobody's number.
std::optional<unsigned> parse_id(std::string_view text) {
  const auto number = parse_count(text);
  if (!number || *number >= std::numeric_limits<unsigned>::max()) return {};
  return static_cast<unsigned>(*number);
}

std::optional<user_account> parse_user(std::string_view line) {
  user_account user;
  user.name = take_until(line, ':');
  take_until(line, ':');
  const auto uid = parse_id(take_until(line, ':'));
  const auto gid = parse_id(take_until(line, ':'));
  if (user.name.empty() || !uid || !gid) return {};
  take_until(line, ':');
  user.uid = *uid;
  user.gid = *gid;
  user.home = take_until(line, ':');
  user.shell = take_until(line, ':');
  user.listed = true;
  return user;
}

struct group_line {
  std::string_view name;
  gid_t gid = 0;
  std::string_view members;
};

std::optional<group_line> parse_group(std::string_view line) {
  group_line group;
  group.name = take_until(line, ':');
  take_until(line, ':');
  const auto gid = parse_id(take_until(line, ':'));
  if (group.name.empty() || !gid) return {};
  group.gid = *gid;
  group.members = line;
  return group;
}

bool has_member(std::string_view members, std::string_view user) {
  while (!members.empty()) {
    if (take_until(members, ',') == user) return true;
  }
  return false;
}

}  // namespace

std::string_view accounts::text_of(const char* file, std::optional<std::string>& text) const {
  if (!text) {
    text.emplace();
    // A file that cannot be read knows nobody.
    std::ignore = read_small_file(AT_FDCWD, (directory_ + "/" + file).c_str(), *text);
  }
  return *text;
}

std::optional<user_account> accounts::find_user(std::string_view wanted) const {
  const auto number = parse_id(wanted);
  for (std::string_view rest = text_of("passwd", passwd_); !rest.empty();) {
    auto user = parse_user(take_until(rest, '\n'));
    if (user && (user->name == wanted || (number && user->uid == *number))) return user;
  }
  if (!number) return {};
  user_account unlisted;
  unlisted.uid = *number;
  return unlisted;
}

std::optional<gid_t> accounts::find_group(std::string_view wanted) const {
  for (std::string_view rest = text_of("group", group_); !rest.empty();) {
    const auto group = parse_group(take_until(rest, '\n'));
    if (group && group->name == wanted) return group->gid;
  }
  return parse_id(wanted);
}

std::vector<gid_t> accounts::groups_of(std::string_view user, gid_t primary) const {
  std::vector<gid_t> groups{primary};
  for (std::string_view rest = text_of("group", group_); !rest.empty();) {
    const auto group = parse_group(take_until(rest, '\n'));
    if (group && group->gid != primary && has_member(group->members, user))
      groups.push_back(group->gid);
  }
  return groups;
}

}  // namespace runner
