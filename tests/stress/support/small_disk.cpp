#include "tests/stress/support/small_disk.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/misc/unique_fd.h"
#include "tests/e2e/support/private_namespace.h"

namespace fs = std::filesystem;

namespace stress {

small_disk::small_disk(const installation& place, const char* options) : at_(place.site()) {
  const fs::path kept = at_.parent_path() / "kept";
  fs::copy(at_ / "programs", kept);
  mounted_ = private_namespace::is_inside() &&
             ::mount("tmpfs", at_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options) == 0;
  if (!mounted_) return;
  fs::copy(kept, at_ / "programs");
  for (const char* directory : {"config", "notify"})
    fs::create_directories(at_ / directory);
  place.save(std::vector<listed_program>{});
}

small_disk::~small_disk() {
  if (mounted_) ::umount2(at_.c_str(), MNT_DETACH);
}

void small_disk::fill() const {
  const unique_fd file(::open((at_ / "filling").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const char block[4096] = {};
  while (::write(file.get(), block, sizeof block) > 0) {
  }
}

void small_disk::fill_with_files() const {
  for (int i = 0;; ++i) {
    const unique_fd file(::open((at_ / ("filling" + std::to_string(i))).c_str(),
                                O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (!file.valid()) return;
  }
}

void small_disk::make_room() const {
  for (const auto& item : fs::directory_iterator(at_)) {
    if (item.path().filename().string().starts_with("filling")) fs::remove(item.path());
  }
}

}  // namespace stress
