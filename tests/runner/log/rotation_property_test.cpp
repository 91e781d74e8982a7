#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "runner/log/rotating_file.h"
#include "tests/runner/log/log_place.h"

using runner::own_lines;
using runner::rotating_file;

namespace {

/// Numbers that are the same in every run with the same seed.
class dice final {
 public:
  explicit dice(unsigned seed) : engine_(seed) {}
  /// One of 0 to `most`.
  std::size_t operator()(std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(0, most)(engine_);
  }

 private:
  std::mt19937 engine_;
};

std::string random_lines(dice& roll, std::size_t longest) {
  std::string text;
  for (std::size_t lines = roll(60); lines > 0; --lines) {
    text.append(roll(longest), static_cast<char>('a' + roll(25)));
    text += '\n';
  }
  if (roll(1) == 0) text += "without an end";
  return text;
}

/// Writes `text` in pieces, now and then as a new process would.
void write_in_pieces(const log_place& place, std::uint64_t size, const std::string& text,
                     dice& roll) {
  own_lines messages;
  const std::size_t largest = 1 + roll(500);
  std::optional<rotating_file> file;
  for (std::size_t at = 0; at < text.size();) {
    const bool is_at_line = at == 0 || text[at - 1] == '\n';
    if (!file || (is_at_line && roll(20) == 0))
      file.emplace(place.path(), place.settings(size), nullptr, messages);
    const std::size_t length = std::min(text.size() - at, 1 + roll(largest));
    file->write(std::string_view(text).substr(at, length));
    at += length;
  }
  EXPECT_TRUE(messages.empty());
}

std::size_t longest_line(const std::string& text) {
  std::size_t longest = 0;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
    longest = std::max(longest, end - at);
    at = end;
  }
  return longest;
}

}  // namespace

TEST(rotation, gives_back_every_byte_in_files_of_whole_lines) {
  for (unsigned seed = 0; seed < 60; ++seed) {
    dice roll(seed);
    const log_place place;
    const std::uint64_t size = 20 + roll(3000);
    const std::string text = random_lines(roll, 1 + roll(200));
    write_in_pieces(place, size, text, roll);
    ASSERT_EQ(place.everything(), text) << "seed " << seed;
    const std::size_t most = static_cast<std::size_t>(size) + longest_line(text);
    for (const std::string& rotated : place.rotated_texts()) {
      ASSERT_FALSE(rotated.empty()) << "seed " << seed;
      ASSERT_EQ(rotated.back(), '\n') << "seed " << seed;
      ASSERT_LE(rotated.size(), most) << "seed " << seed;
    }
  }
}

TEST(rotation, keeps_files_below_their_limit_when_pieces_are_whole_lines) {
  for (unsigned seed = 0; seed < 15; ++seed) {
    dice roll(seed);
    const log_place place;
    own_lines messages;
    const std::size_t size = 100 + roll(500);
    rotating_file file(place.path(), place.settings(size), nullptr, messages);
    std::string text;
    for (int i = 0; i < 30; ++i) {
      std::string piece = random_lines(roll, 50);
      piece.resize(piece.rfind('\n') + 1);
      file.write(piece);
      text += piece;
    }
    ASSERT_EQ(place.everything(), text) << "seed " << seed;
    for (const std::string& rotated : place.rotated_texts())
      ASSERT_LE(rotated.size(), size) << "seed " << seed;
  }
}
