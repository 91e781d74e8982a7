#include "control/config/config_save.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <thread>
#include <vector>

#include "common/misc/small_file.h"
#include "control/text/failure.h"

namespace control {
namespace {

failure cannot(const char* what, const std::string& path) {
  return failure("cannot " + std::string(what) + " " + path + ": " + std::strerror(errno) +
                 ". Nothing was saved");
}

/// A file that is removed again unless it is given its place.
class draft final {
 public:
  explicit draft(const std::string& target) : path_(target + ".XXXXXX") {
    fd_.reset(::mkostemp(path_.data(), O_CLOEXEC));
    exists_ = fd_.valid();
  }
  draft(const draft&) = delete;
  draft& operator=(const draft&) = delete;
  ~draft() {
    if (exists_) ::unlink(path_.c_str());
  }

  /// Whether it could be made.
  [[nodiscard]] bool exists() const { return exists_; }
  [[nodiscard]] int fd() const { return fd_.get(); }
  [[nodiscard]] const std::string& path() const { return path_; }
  void close() { fd_.reset(); }
  [[nodiscard]] bool place(const std::string& target) {
    if (::rename(path_.c_str(), target.c_str()) != 0) return false;
    exists_ = false;
    return true;
  }

 private:
  std::string path_;
  unique_fd fd_;
  bool exists_ = false;
};

/// Access lists and labels. What the file system does not take is left.
void copy_attributes(const std::string& from, int to) {
  const ssize_t size = ::listxattr(from.c_str(), nullptr, 0);
  if (size <= 0) return;
  std::vector<char> names(static_cast<std::size_t>(size));
  const ssize_t got = ::listxattr(from.c_str(), names.data(), names.size());
  for (ssize_t at = 0; at < got;) {
    const char* const name = names.data() + at;
    at += static_cast<ssize_t>(std::strlen(name)) + 1;
    char value[4096];
    const ssize_t length = ::getxattr(from.c_str(), name, value, sizeof value);
    if (length < 0 || ::fsetxattr(to, name, value, static_cast<std::size_t>(length), 0) != 0)
      continue;
  }
}

bool take_over_status(const draft& file, const struct stat& old) {
  struct stat made {};
  if (::fstat(file.fd(), &made) != 0) return false;
  // The group may be that of the directory.
  const bool same_owner = old.st_uid == made.st_uid && old.st_gid == made.st_gid;
  if (!same_owner && ::fchown(file.fd(), old.st_uid, old.st_gid) != 0) return false;
  return ::fchmod(file.fd(), old.st_mode & 07777) == 0;
}

void sync_directory_of(const std::string& path) {
  const std::string directory = path.substr(0, path.rfind('/') + 1);
  const unique_fd fd(
      ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.valid()) ::fsync(fd.get());
}

/// @return false when a new file cannot have the old one's place and look the same.
bool replace(const std::string& path, std::string_view text, const struct stat& old,
             const std::function<void(const std::string&)>& just_before) {
  if (old.st_nlink > 1) return false;
  draft file(path);
  if (!file.exists() || !take_over_status(file, old)) return false;
  copy_attributes(path, file.fd());
  if (!write_whole(file.fd(), text) || ::fsync(file.fd()) != 0) throw cannot("write", file.path());
  file.close();
  if (just_before) just_before(file.path());
  if (!file.place(path)) throw cannot("replace", path);
  sync_directory_of(path);
  return true;
}

void write_in_place(const std::string& path, std::string_view text,
                    const std::function<void(const std::string&)>& just_before) {
  {
    const unique_fd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.valid()) throw cannot("write", path);
    if (!write_whole(file.get(), text) ||
        ::ftruncate(file.get(), static_cast<off_t>(text.size())) != 0 || ::fsync(file.get()) != 0) {
      throw failure("writing " + path + " broke off: " + std::strerror(errno) +
                    ". See that the file is whole");
    }
  }
  if (just_before) just_before(path);
}

}  // namespace

config_lock::config_lock(const std::string& config_file, std::chrono::milliseconds limit) {
  const std::string directory = config_file.substr(0, config_file.rfind('/') + 1);
  directory_.reset(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory_.valid()) {
    throw failure("cannot open " + directory + ": " + std::strerror(errno) +
                  ". `keelmondctl init` makes it");
  }
  const auto end = std::chrono::steady_clock::now() + limit;
  while (::flock(directory_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (std::chrono::steady_clock::now() >= end) {
      throw failure("another keelmondctl has been changing " + config_file +
                    " for a while. Nothing was changed; try again when it has ended");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void save_config(const std::string& path, std::string_view text, const config_bytes& before,
                 const std::function<void(const std::string&)>& just_before) {
  const auto now = read_config(path);
  if (!now || now->text != before.text) {
    throw failure(path + " was changed by somebody else meanwhile. Nothing was saved; try again");
  }
  std::error_code error;
  const std::string real = std::filesystem::canonical(path, error).string();
  if (error) throw failure("cannot find " + path + ": " + error.message());
  if (!replace(real, text, now->status, just_before)) write_in_place(real, text, just_before);
}

}  // namespace control
