#pragma once

/// Looks at each descriptor that is opened for as long as the object lives. One at a time, and none
/// while another thread opens files.
///
/// The test binary is linked so that `open`, `fopen` and `popen` come here first.
class opened_files final {
 public:
  opened_files();
  opened_files(const opened_files&) = delete;
  opened_files& operator=(const opened_files&) = delete;
  ~opened_files();

  /// How many were opened.
  [[nodiscard]] static int count();
  /// How many of them a program that is started would get.
  [[nodiscard]] static int inheritable();
};
