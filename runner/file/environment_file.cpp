#include "runner/file/environment_file.h"

#include <algorithm>

namespace runner {
namespace {

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

/// Goes through the text once.
class environment_reader final {
 public:
  environment_reader(std::string_view text, environment_list& out) : text_(text), out_(out) {}

  environment_fault read() {
    while (at_ < text_.size() && fault_.line == 0)
      take_line();
    return fault_;
  }

 private:
  [[nodiscard]] bool at_end() const { return at_ >= text_.size(); }
  [[nodiscard]] char here() const { return text_[at_]; }

  /// Goes one byte on, and counts lines.
  char step() {
    if (here() == '\n') ++line_;
    return text_[at_++];
  }

  void fail(std::size_t line, const char* what) {
    if (fault_.line == 0) fault_ = {line, what};
  }

  void skip_blanks() {
    while (!at_end() && is_blank(here()))
      step();
  }

  void skip_line() {
    while (!at_end() && step() != '\n') {
    }
  }

  void take_line() {
    skip_blanks();
    if (at_end()) return;
    if (here() == '\n' || here() == '#' || here() == ';') {
      skip_line();
      return;
    }
    const std::size_t first_line = line_;
    std::string name;
    while (!at_end() && here() != '=' && here() != '\n')
      name += step();
    while (!name.empty() && is_blank(name.back()))
      name.pop_back();
    if (at_end() || here() != '=') return fail(first_line, "there is no \"=\" in it");
    if (!is_variable_name(name)) return fail(first_line, "no variable can be called that");
    step();
    take_value(first_line);
    if (value_.find('\0') != std::string::npos) fail(first_line, "a value holds a zero byte");
    if (fault_.line == 0) out_.emplace_back(name, value_);
  }

  void take_value(std::size_t first_line) {
    value_.clear();
    kept_ = 0;
    take_quoted_parts(first_line);
    // From here on a quote is a character like any other, as in {"a": 1}.
    while (!at_end()) {
      const char c = step();
      if (c == '\n') break;
      if (c == '\\') {
        take_escaped();
      } else {
        value_ += c;
        if (!is_blank(c)) kept_ = value_.size();
      }
    }
    value_.resize(kept_);
  }

  /// What a value begins with, one quoted part after another.
  void take_quoted_parts(std::size_t first_line) {
    for (skip_blanks(); !at_end() && (here() == '\'' || here() == '"'); skip_blanks()) {
      if (step() == '"') {
        take_double_quoted(first_line);
      } else {
        take_single_quoted(first_line);
      }
    }
  }

  void take_single_quoted(std::size_t first_line) {
    for (; !at_end(); value_ += step()) {
      if (here() != '\'') continue;
      step();
      kept_ = value_.size();
      return;
    }
    fail(first_line, "the quote ' is not closed");
  }

  void take_double_quoted(std::size_t first_line) {
    while (!at_end()) {
      const char c = step();
      if (c == '"') {
        kept_ = value_.size();
        return;
      }
      if (c == '\\' && !at_end() && std::string_view("\"\\$`").find(here()) != std::string::npos) {
        value_ += step();
      } else if (c == '\\' && !at_end() && here() == '\n') {
        step();
      } else {
        value_ += c;
      }
    }
    fail(first_line, "the quote \" is not closed");
  }

  void take_escaped() {
    if (at_end()) return;
    const char c = step();
    if (c != '\n') value_ += c;
    kept_ = value_.size();
  }

  std::string_view text_;
  environment_list& out_;
  std::size_t at_ = 0;
  std::size_t line_ = 1;
  std::string value_;
  /// How much of the value stays when the blanks at its end are dropped.
  std::size_t kept_ = 0;
  environment_fault fault_;
};

}  // namespace

bool is_variable_name(std::string_view name) {
  const auto fits = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  };
  return !name.empty() && !(name.front() >= '0' && name.front() <= '9') &&
         std::all_of(name.begin(), name.end(), fits);
}

environment_fault read_environment(std::string_view text, environment_list& out) {
  return environment_reader(text, out).read();
}

}  // namespace runner
