#include "process/name_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <new>
#include <utility>

namespace {

constexpr std::uint32_t kNameEvents = IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_ONLYDIR;
/// As many links as the kernel follows.
constexpr int kMostLinks = 40;

/// Puts the parts of a path, between slashes, in front of those that are still to come.
void put_first(std::deque<std::string>& parts, std::string_view path) {
  std::deque<std::string> first;
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    if (end > 0) first.emplace_back(path.substr(0, end));
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  parts.insert(parts.begin(), first.begin(), first.end());
}

/// Where the link leads to; empty when it is none.
std::string target_of(const std::string& path) {
  char target[PATH_MAX];
  const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
  return length <= 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

}  // namespace

name_watch::name_watch(int instance, const char* path) noexcept : instance_(instance) {
  try {
    if (path != nullptr) follow(path);
  } catch (const std::bad_alloc&) {
    // What has been added so far is better than nothing.
    sees_name_ = false;
  }
}

void name_watch::follow(std::string_view path) {
  std::deque<std::string> parts;
  put_first(parts, path);
  std::string directory = path.starts_with('/') ? "/" : "./";
  for (int links = 0; !parts.empty();) {
    const std::string name = std::move(parts.front());
    parts.pop_front();
    if (name == ".") continue;
    if (name == "..") {
      directory += "../";
      continue;
    }
    sees_name_ = add(directory, name);
    const std::string target = target_of(directory + name);
    if (target.empty()) {
      directory += name + "/";
    } else if (++links <= kMostLinks) {
      put_first(parts, target);
      if (target.front() == '/') directory = "/";
    } else {
      return;
    }
  }
}

bool name_watch::add(const std::string& directory, const std::string& name) {
  const int watch = ::inotify_add_watch(instance_, directory.c_str(), kNameEvents);
  if (watch != -1) places_.push_back({watch, name});
  return watch != -1;
}

bool name_watch::is_of_a_directory(int watch) const noexcept {
  return std::any_of(places_.begin(), places_.end(),
                     [=](const place& one) { return one.watch == watch; });
}

bool name_watch::is_ours(int watch, std::string_view name) const noexcept {
  return std::any_of(places_.begin(), places_.end(),
                     [=](const place& one) { return one.watch == watch && one.name == name; });
}

name_watch::finding name_watch::judge(const char* events, std::size_t size) const noexcept {
  finding found = size == 0 ? finding::changed : finding::nothing;
  for (std::size_t at = 0; at + sizeof(inotify_event) <= size;) {
    inotify_event event{};
    std::memcpy(&event, events + at, sizeof event);
    // The kernel fills the name up with zeros.
    const std::string_view name = event.len == 0 ? "" : events + at + sizeof event;
    at += sizeof event + event.len;
    if (event.len > 0 && is_of_a_directory(event.wd) && !is_ours(event.wd, name)) continue;
    // The end of the watch on the file that was there before says nothing new.
    if ((event.mask & IN_IGNORED) != 0 && found == finding::replaced) continue;
    found = (event.mask & IN_MOVED_TO) != 0 ? finding::replaced : finding::changed;
  }
  return found;
}
