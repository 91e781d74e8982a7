#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "common/misc/unique_fd.h"
#include "control/config/config_bytes.h"

namespace control {

/// Keeps two keelmondctl from changing one configuration at the same time: a lock on the directory
/// that the file is in, held as long as the object lives. Editors do not ask for it.
class config_lock final {
 public:
  /// Waits for another holder.
  /// @throws failure when it is still held after `limit`, or there is no such directory.
  explicit config_lock(const std::string& config_file,
                       std::chrono::milliseconds limit = std::chrono::seconds(10));

 private:
  unique_fd directory_;
};

/// Puts `text` in place of the file, so that whoever reads sees the old text or the new one and
/// nothing between: writes a new file beside it, flushes it, gives it the mode, owner and extended
/// attributes of the old one and renames it. A symbolic link stays one. A file that has further
/// hard links, or whose owner or directory does not permit this, is written in place instead, in
/// one write.
///
/// @param before what was read when the change was made; a file that is another one by now is not
///        overwritten.
/// @param just_before called with the path of the file that will have the name, right before it
///        has it.
/// @throws failure, with the old file unharmed, when the text cannot be saved.
void save_config(const std::string& path, std::string_view text, const config_bytes& before,
                 const std::function<void(const std::string&)>& just_before = {});

}  // namespace control
