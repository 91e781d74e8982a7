#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "runner/log/own_lines.h"

namespace runner {

/// The rotated files of one log: gives them their names, removes those that are too many, and has
/// them compressed, one at a time and the newest first.
///
/// Whatever is killed in between, this process included, leaves a state from which the next start
/// goes on: a name is given by one rename, and a file goes only when its compressed form has its
/// name.
class rotated_files final {
 public:
  /// @param path of the log. What goes wrong is told to `messages`.
  rotated_files(std::string path, unsigned keep, bool compress, own_lines& messages);
  rotated_files(const rotated_files&) = delete;
  rotated_files& operator=(const rotated_files&) = delete;
  ~rotated_files() { stop_compressor(); }

  /// Finds those of earlier runs and finishes what was left half done.
  void find();
  /// Gives the file at the log's path, which is there, a name of a rotated one. Until `tidy` it may
  /// be written on.
  /// @return false when that fails; the error number says why.
  [[nodiscard]] bool add();
  /// Removes those that are too many and begins to compress. None of them is written any more.
  void tidy();

  [[nodiscard]] pid_t compressor() const { return compressor_; }
  /// As `program_log::on_child_end`.
  bool on_child_end(pid_t pid, int status);
  /// Kills the child that compresses and removes what it has written.
  void stop_compressor();

 private:
  struct rotated_file {
    std::int64_t moment = 0;
    bool to_compress = false;
  };

  void compress_next();
  /// @return whether a child compresses that file now, or there is no such file.
  bool compress(std::int64_t moment);
  void finish(int status);
  [[nodiscard]] std::string file(std::int64_t moment) const;
  [[nodiscard]] std::string half_compressed(std::int64_t moment) const;
  [[nodiscard]] std::string compressed(std::int64_t moment) const;

  std::string path_;
  unsigned keep_;
  bool compress_;
  own_lines& messages_;
  std::vector<rotated_file> files_;  ///< Oldest first.
  bool is_newest_written_ = false;
  pid_t compressor_ = 0;
  std::int64_t compressing_ = 0;  ///< The moment of the file that it compresses.
};

}  // namespace runner
