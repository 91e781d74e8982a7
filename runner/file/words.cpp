#include "runner/file/words.h"

#include <algorithm>
#include <cstddef>

namespace runner {
namespace {

constexpr std::string_view kForShell = "|&;<>()";
constexpr std::string_view kEscapedInQuotes = "\"\\$`";

/// Reads one command from its first byte to its last.
class word_reader final {
 public:
  word_reader(std::string_view text, std::vector<std::string>& out) : text_(text), out_(out) {}

  std::string read() {
    while (at_ < text_.size() && error_.empty())
      take(text_[at_++]);
    finish_word();
    return error_;
  }

 private:
  void take(char c) {
    if (c == ' ' || c == '\t') {
      finish_word();
    } else if (c == '\'') {
      take_single_quoted();
    } else if (c == '"') {
      take_double_quoted();
    } else if (c == '\\') {
      take_escaped();
    } else if (kForShell.find(c) != std::string_view::npos || (c == '#' && !in_word_)) {
      error_ = std::string("an unquoted ") + c + " needs a shell";
    } else {
      add(c);
    }
  }

  void take_single_quoted() {
    in_word_ = true;
    const std::size_t end = text_.find('\'', at_);
    if (end == std::string_view::npos) {
      error_ = "the quote ' is not closed";
      return;
    }
    word_ += text_.substr(at_, end - at_);
    at_ = end + 1;
  }

  void take_double_quoted() {
    in_word_ = true;
    for (; at_ < text_.size(); ++at_) {
      char c = text_[at_];
      if (c == '"') {
        ++at_;
        return;
      }
      const bool escapes = c == '\\' && at_ + 1 < text_.size() &&
                           kEscapedInQuotes.find(text_[at_ + 1]) != std::string_view::npos;
      if (escapes) c = text_[++at_];
      add(c);
    }
    error_ = "the quote \" is not closed";
  }

  void take_escaped() {
    if (at_ == text_.size()) {
      error_ = "nothing follows the backslash at the end";
    } else {
      add(text_[at_++]);
    }
  }

  void add(char c) {
    in_word_ = true;
    word_ += c;
  }

  void finish_word() {
    if (in_word_) out_.push_back(word_);
    word_.clear();
    in_word_ = false;
  }

  std::string_view text_;
  std::vector<std::string>& out_;
  std::size_t at_ = 0;
  std::string word_;
  bool in_word_ = false;
  std::string error_;
};

}  // namespace

std::string split_words(std::string_view text, std::vector<std::string>& out) {
  out.clear();
  std::string error = word_reader(text, out).read();
  if (error.empty() && out.empty()) error = "there is no word in it";
  if (error.empty() && out.front().empty()) error = "its first word is empty";
  return error;
}

std::vector<std::string> split_names(std::string_view text) {
  constexpr std::string_view kBetween = " \t,";
  std::vector<std::string> names;
  while (true) {
    text.remove_prefix(std::min(text.find_first_not_of(kBetween), text.size()));
    if (text.empty()) return names;
    const std::size_t end = std::min(text.find_first_of(kBetween), text.size());
    names.emplace_back(text.substr(0, end));
    text.remove_prefix(end);
  }
}

}  // namespace runner
