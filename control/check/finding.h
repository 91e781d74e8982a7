#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace control {

/// Something in a configuration that would surprise.
struct finding {
  enum class severity {
    warning,  ///< It works, and not as people expect.
    error,    ///< What the file asks for will not happen.
  };
  severity how = severity::warning;
  /// Counted from 1; 0 for the file as a whole.
  std::size_t line = 0;
  std::string text;    ///< What is so, and what follows from it.
  std::string remedy;  ///< What to do about it.
  /// Where `line` counts, if not in the configuration.
  std::string file{};
};

/// Collects findings.
class findings final {
 public:
  void warn(std::size_t line, std::string text, std::string remedy) {
    all_.push_back({finding::severity::warning, line, std::move(text), std::move(remedy)});
  }
  void fail(std::size_t line, std::string text, std::string remedy) {
    all_.push_back({finding::severity::error, line, std::move(text), std::move(remedy)});
  }
  /// In another file than the configuration.
  void fail_in(std::string file, std::size_t line, std::string text, std::string remedy) {
    all_.push_back(
        {finding::severity::error, line, std::move(text), std::move(remedy), std::move(file)});
  }
  void warn_in(std::string file, std::size_t line, std::string text, std::string remedy) {
    all_.push_back(
        {finding::severity::warning, line, std::move(text), std::move(remedy), std::move(file)});
  }
  /// By line, those in other files last; of one line in the order in which they were found.
  [[nodiscard]] std::vector<finding> sorted() const;

 private:
  std::vector<finding> all_;
};

}  // namespace control
