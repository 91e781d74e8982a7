#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "common/misc/fun_misc.h"
#include "tests/common/misc/process_state.h"
#include "tests/support/scratch_dir.h"

namespace {

using namespace std::string_literals;

class fun_misc_filename : public scratch_test {};

/// The first bytes of a buffer of '#' after the name was copied into it.
std::string name_of(const char* path, bool strip_ext, std::size_t bytes) {
  char out[64];
  std::memset(out, '#', sizeof out);
  EXPECT_EQ(Tfun_misc::get_filename_name(path, out, strip_ext), out);
  char url[64];
  std::memset(url, '#', sizeof url);
  EXPECT_EQ(Tfun_misc::get_filename_name_for_url(path, url, strip_ext), url);
  EXPECT_EQ(std::string(out, sizeof out), std::string(url, sizeof url));
  EXPECT_EQ(out[bytes], '#');
  return {out, bytes};
}

TEST_F(fun_misc_filename, the_name_is_what_follows_the_last_slash) {
  EXPECT_EQ(name_of("/a/b/report.txt", false, 11), "report.txt\0"s);
  EXPECT_EQ(name_of("report.txt", false, 11), "report.txt\0"s);
  EXPECT_EQ(name_of("/a/b/", false, 1), "\0"s);
  EXPECT_EQ(name_of("", false, 1), "\0"s);
  EXPECT_EQ(name_of(nullptr, false, 1), "\0"s);
  EXPECT_EQ(name_of("http://host/a?b=c.d", false, 8), "a?b=c.d\0"s);
}

TEST_F(fun_misc_filename, a_name_without_its_extension_is_not_terminated) {
  EXPECT_EQ(name_of("/a/b/report.txt", true, 6), "report");
  EXPECT_EQ(name_of("report.tar.gz", true, 10), "report.tar");
  EXPECT_EQ(name_of("/a/.profile", true, 0), "");
  EXPECT_EQ(name_of(".profile", true, 0), "");
  char zeroed[64] = {};
  EXPECT_STREQ(Tfun_misc::get_filename_name("/a/b/report.txt", zeroed, true), "report");
}

TEST_F(fun_misc_filename, a_name_that_has_no_extension_to_strip_is_copied_whole) {
  EXPECT_EQ(name_of("/a/report", true, 6), "report");
  EXPECT_EQ(name_of("/a.b/report", true, 6), "report");
  EXPECT_EQ(name_of("report", true, 6), "report");
  EXPECT_EQ(name_of("", true, 0), "");
  EXPECT_EQ(name_of(nullptr, true, 0), "");
}

TEST_F(fun_misc_filename, a_null_buffer_gets_no_name) {
  EXPECT_EQ(Tfun_misc::get_filename_name("a.b", nullptr, true), nullptr);
  EXPECT_EQ(Tfun_misc::get_filename_name("a.b", nullptr, false), nullptr);
  Tfun_misc::get_filename_ext("a.b", nullptr, true);
}

std::string extension_of(const char* path, bool with_dot) {
  char out[64] = "untouched";
  Tfun_misc::get_filename_ext(path, out, with_dot);
  return out;
}

TEST_F(fun_misc_filename, the_extension_comes_with_or_without_its_dot) {
  EXPECT_EQ(extension_of("/a/b/report.txt", true), ".txt");
  EXPECT_EQ(extension_of("/a/b/report.txt", false), "txt");
  EXPECT_EQ(extension_of("report.tar.gz", true), ".gz");
  EXPECT_EQ(extension_of("report.", true), ".");
  EXPECT_EQ(extension_of("report.", false), "");
  EXPECT_EQ(extension_of("/.profile", true), ".profile");
}

TEST_F(fun_misc_filename, a_dot_in_a_directory_counts_too) {
  EXPECT_EQ(extension_of("/a.b/c", true), ".b/c");
}

TEST_F(fun_misc_filename, without_an_extension_the_buffer_is_left_alone) {
  EXPECT_EQ(extension_of("report", true), "untouched");
  EXPECT_EQ(extension_of(".profile", true), "untouched");
  EXPECT_EQ(extension_of(".profile", false), "untouched");
  EXPECT_EQ(extension_of("", true), "untouched");
  EXPECT_EQ(extension_of(nullptr, true), "untouched");
}

struct new_name {
  int result;
  std::string path;
  bool operator==(const new_name&) const = default;
};

/// Printed when an expectation fails.
void PrintTo(const new_name& value, std::ostream* out) {
  *out << value.result << " \"" << value.path << '"';
}

new_name numbered(const std::string& path) {
  char out[2048] = "untouched";
  const int result = Tfun_misc::create_new_filename(path.c_str(), out);
  return {result, out};
}

const new_name kNoName{0, "untouched"};

TEST_F(fun_misc_filename, a_free_path_is_taken_as_it_is) {
  EXPECT_EQ(numbered("report.txt"), (new_name{1, "report.txt"}));
  EXPECT_EQ(numbered("a(x).txt"), (new_name{1, "a(x).txt"}));
  EXPECT_EQ(numbered(""), (new_name{1, ""}));
  const std::string longest(1500, 'x');
  EXPECT_EQ(numbered(longest), (new_name{1, longest}));
}

TEST_F(fun_misc_filename, a_taken_path_is_numbered_until_one_is_free) {
  scratch_.write("report.txt", "");
  EXPECT_EQ(numbered("report.txt"), (new_name{0, "report(1).txt"}));
  scratch_.write("report(1).txt", "");
  EXPECT_EQ(numbered("report(1).txt"), (new_name{0, "report(2).txt"}));
  for (int n = 2; n < 30; ++n)
    scratch_.write("report(" + std::to_string(n) + ").txt", "");
  EXPECT_EQ(numbered("report.txt"), (new_name{0, "report(30).txt"}))
      << "0 although it was found: only the path itself counts";
}

TEST_F(fun_misc_filename, numbers_go_on_from_the_one_in_the_name) {
  scratch_.write("a(9).txt", "");
  EXPECT_EQ(numbered("a(9).txt"), (new_name{0, "a(10).txt"}));
  scratch_.write("a(007).txt", "");
  EXPECT_EQ(numbered("a(007).txt"), (new_name{0, "a(8).txt"}));
  scratch_.write("a(010).txt", "");
  EXPECT_EQ(numbered("a(010).txt"), (new_name{0, "a(11).txt"}));
  scratch_.write("a(0)(3).txt", "");
  EXPECT_EQ(numbered("a(0)(3).txt"), (new_name{0, "a(0)(4).txt"}));
}

TEST_F(fun_misc_filename, what_stands_between_the_number_and_the_extension_is_dropped) {
  scratch_.write("a(1) copy.txt", "");
  EXPECT_EQ(numbered("a(1) copy.txt"), (new_name{0, "a(2).txt"}));
}

TEST_F(fun_misc_filename, parentheses_without_a_number_give_no_name) {
  for (const char* name : {"a(x).txt", "a(1x).txt", "a().txt", "a(.txt", "a(1.txt", "a)(1.txt",
                           "a(-1).txt", "a( 1).txt", "a(1)b(.txt", "a(1).t)xt"}) {
    scratch_.write(name, "");
    EXPECT_EQ(numbered(name), kNoName) << name;
  }
}

TEST_F(fun_misc_filename, a_parenthesis_at_the_very_beginning_is_no_number) {
  scratch_.write("(1).txt", "");
  EXPECT_EQ(numbered("(1).txt"), (new_name{0, "(1)(1).txt"}));
  scratch_.write("(1)(1).txt", "");
  EXPECT_EQ(numbered("(1).txt"), (new_name{0, "(1)(2).txt"}));
}

TEST_F(fun_misc_filename, the_whole_path_is_searched_for_parentheses_and_dots) {
  std::filesystem::create_directory("d(x)");
  scratch_.write("d(x)/a.txt", "");
  EXPECT_EQ(numbered("d(x)/a.txt"), kNoName);
  std::filesystem::create_directory("d(1)");
  scratch_.write("d(1)/a.txt", "");
  EXPECT_EQ(numbered("d(1)/a.txt"), (new_name{0, "d(2).txt"}));
  std::filesystem::create_directory("d.e");
  scratch_.write("d.e/a", "");
  EXPECT_EQ(numbered("d.e/a"), (new_name{0, "d(1).e/a"}));
  scratch_.write("a.b(1)", "");
  EXPECT_EQ(numbered("a.b(1)"), (new_name{0, "a.b(2).b(1)"}));
}

TEST_F(fun_misc_filename, a_path_without_a_dot_is_numbered_at_its_end) {
  scratch_.write("report", "");
  EXPECT_EQ(numbered("report"), (new_name{0, "report(1)"}));
  scratch_.write("report(1)", "");
  EXPECT_EQ(numbered("report"), (new_name{0, "report(2)"}));
}

TEST_F(fun_misc_filename, a_number_that_cannot_be_counted_up_gives_no_name) {
  scratch_.write("a(2147483646).txt", "");
  EXPECT_EQ(numbered("a(2147483646).txt"), (new_name{0, "a(2147483647).txt"}));
  scratch_.write("a(2147483647).txt", "");
  EXPECT_EQ(numbered("a(2147483646).txt"), kNoName);
  for (const std::string& digits : {std::string("2147483648"), std::string(39, '9')}) {
    scratch_.write("a(" + digits + ").txt", "");
    EXPECT_EQ(numbered("a(" + digits + ").txt"), kNoName);
  }
}

TEST_F(fun_misc_filename, at_most_39_digits_are_a_number) {
  const std::string most = "a(" + std::string(38, '0') + "7).txt";
  scratch_.write(most, "");
  EXPECT_EQ(numbered(most), (new_name{0, "a(8).txt"}));
  const std::string more = "a(" + std::string(39, '0') + "7).txt";
  scratch_.write(more, "");
  EXPECT_EQ(numbered(more), kNoName);
}

TEST_F(fun_misc_filename, a_numbered_path_stays_below_512_bytes) {
  std::string directory;
  while (directory.size() < 400)
    directory += std::string(100, 'd') + '/';
  std::filesystem::create_directories(directory);
  const std::string fits = directory + std::string(511 - directory.size() - 7, 'n') + ".txt";
  scratch_.write(fits, "");
  const std::string expected = fits.substr(0, fits.size() - 4) + "(1).txt";
  ASSERT_EQ(expected.size(), 511U);
  EXPECT_EQ(numbered(fits), (new_name{0, expected}));

  const std::string too_long = directory + std::string(511 - directory.size() - 6, 'n') + ".txt";
  scratch_.write(too_long, "");
  EXPECT_EQ(numbered(too_long), kNoName);

  const std::string shortened = directory + "n(1)" + std::string(200, 'x') + ".txt";
  scratch_.write(shortened, "");
  EXPECT_EQ(numbered(shortened), (new_name{0, directory + "n(2).txt"}))
      << "though the taken path is longer";
}

TEST_F(fun_misc_filename, null_texts_are_harmless) {
  char out[] = "untouched";
  EXPECT_EQ(Tfun_misc::create_new_filename(nullptr, out), 1) << "as for an empty one";
  EXPECT_STREQ(out, "");
  EXPECT_EQ(Tfun_misc::create_new_filename("free", nullptr), 0);
}

struct image {
  int code;
  std::string extension;
  bool operator==(const image&) const = default;
};

class fun_misc_image : public scratch_test {
 protected:
  [[nodiscard]] image recognised(const std::string& content) const {
    scratch_.write("image", content);
    char ext[16] = "untouched";
    const int code = Tfun_misc::get_photo_ext_name("image", ext);
    EXPECT_EQ(Tfun_misc::get_photo_ext_name("image", nullptr), code);
    return {code, ext};
  }
};

TEST_F(fun_misc_image, an_image_is_recognised_by_its_first_bytes) {
  EXPECT_EQ(recognised("BM and more"), (image{0, ".bmp"}));
  EXPECT_EQ(recognised("GIF89a"), (image{1, ".gif"}));
  EXPECT_EQ(recognised("\xFF\xD8\xFF\xE0"), (image{2, ".jpg"}));
  EXPECT_EQ(recognised("\x89PNG\r\n"), (image{3, ".png"}));
  EXPECT_EQ(recognised("II*\0more"s), (image{4, ".tif"}));
}

TEST_F(fun_misc_image, a_short_file_reads_as_zeros) {
  EXPECT_EQ(recognised("BM"), (image{0, ".bmp"}));
  EXPECT_EQ(recognised("\xFF\xD8\xFF"), (image{2, ".jpg"}));
  EXPECT_EQ(recognised("II*x"), (image{5, "untouched"}));
  EXPECT_EQ(recognised("II*"), (image{4, ".tif"})) << "nothing is left of the file before";
  EXPECT_EQ(recognised("GIF"), (image{5, "untouched"}));
  EXPECT_EQ(recognised(""), (image{5, "untouched"}));
}

TEST_F(fun_misc_image, any_other_file_is_unknown) {
  for (const std::string& content : {"B"s, "bM"s, "GIG8"s, "GIF7"s, "\xFF\xD8"s, "\xFF\xD8\xFE"s,
                                     "\x89PNX"s, "\x89QNG"s, "II*x"s, "II+\0"s, "text"s}) {
    EXPECT_EQ(recognised(content), (image{5, "untouched"})) << content;
  }
}

TEST_F(fun_misc_image, the_big_endian_kind_of_tiff_is_unknown) {
  EXPECT_EQ(recognised("MM\0*"s), (image{5, "untouched"}));
}

TEST_F(fun_misc_image, an_extension_takes_five_bytes) {
  scratch_.write("image", "BM");
  char ext[6] = {'#', '#', '#', '#', '#', '#'};
  Tfun_misc::get_photo_ext_name("image", ext);
  EXPECT_EQ(std::string(ext, 6), ".bmp\0#"s);
}

TEST_F(fun_misc_image, a_file_that_cannot_be_opened_is_unknown) {
  char ext[] = "untouched";
  EXPECT_EQ(Tfun_misc::get_photo_ext_name("missing", ext), 5);
  EXPECT_EQ(Tfun_misc::get_photo_ext_name(nullptr, ext), 5);
  EXPECT_STREQ(ext, "untouched");
  EXPECT_EQ(Tfun_misc::checkup_image_is_gif("missing"), 0);
  EXPECT_EQ(Tfun_misc::checkup_image_is_gif(nullptr), 0);
}

TEST_F(fun_misc_image, a_gif_begins_with_its_three_letters) {
  for (const auto& [content, expected] :
       {std::pair{"GIF", 1}, {"GIF89a and more", 1}, {"GIX", 0}, {"gif", 0}, {"GI", 0}, {"", 0}}) {
    scratch_.write("image", content);
    EXPECT_EQ(Tfun_misc::checkup_image_is_gif("image"), expected) << content;
  }
}

}  // namespace
