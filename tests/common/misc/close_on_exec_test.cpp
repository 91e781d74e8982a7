// Programs that are started at the same time on another thread get no descriptor from here.

#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "common/inifile/ini_parser.h"
#include "common/misc/fun_misc.h"
#include "tests/common/misc/opened_files.h"
#include "tests/common/misc/process_state.h"

namespace {

class close_on_exec : public scratch_test {
 protected:
  close_on_exec() { scratch_.write("file", "k=v\n"); }
};

/// Expects that the call opens so many descriptors, none of which a program would inherit.
template <typename Call>
void expect_opened(int count, Call call) {
  const opened_files opened;
  call();
  EXPECT_EQ(opened_files::count(), count);
  EXPECT_EQ(opened_files::inheritable(), 0);
}

TEST_F(close_on_exec, holds_for_files) {
  expect_opened(1, [] { Tfun_misc::file_exists("file"); });
  expect_opened(1, [] { Tfun_misc::save_file_data("saved", "text"); });
  expect_opened(1, [] {
    std::array<char, 8193> buffer{};
    Tfun_misc::load_file_data("file", buffer.data());
  });
  expect_opened(2, [] { Tfun_misc::copyFile("file", "copy"); });
  std::filesystem::create_directory("notify");
  expect_opened(1, [] { Tfun_misc::UpdateProcessLiveFile("alpha", true); });
}

TEST_F(close_on_exec, holds_for_images) {
  expect_opened(1, [] { Tfun_misc::get_photo_ext_name("file", nullptr); });
  expect_opened(1, [] { Tfun_misc::checkup_image_is_gif("file"); });
}

TEST_F(close_on_exec, holds_for_pipes) {
  expect_opened(1, [] {
    char out[64] = "";
    Tfun_misc::linux_exec("echo a", out, 0);
  });
  expect_opened(1, [] { Tfun_misc::get_cpu_core_count(); });
}

TEST_F(close_on_exec, holds_for_ini_files) {
  expect_opened(1, [] { Tini_parser("file"); });
  Tini_parser ini("file");
  expect_opened(1, [&ini] { ini.write_value("", "k", "w"); });
}

}  // namespace
