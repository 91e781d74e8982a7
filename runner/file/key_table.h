#pragma once

#include <span>
#include <string>
#include <string_view>

#include "runner/file/accounts.h"
#include "runner/file/program_file.h"

/// The keys of a program file: one table that reading, checking and explaining share.
namespace runner {

/// What a key's value is put into, and what it may look at.
struct key_reading {
  program_file& file;
  const accounts& known;
  std::string directory;  ///< Of the file, absolute.
  /// What is wrong, where "cannot be understood" would say too little.
  std::string error = {};

  /// Whether the section hands its commands to a shell.
  [[nodiscard]] bool wants_shell(std::string_view section) const;
  /// The path; a relative one is below the file's directory.
  [[nodiscard]] std::string absolute(std::string_view path) const;
};

struct key_rule {
  std::string_view section;
  std::string_view key;
  /// The value of a key that is left out; in parentheses, what applies then.
  std::string_view initial;
  /// What would be right, as in "write ...".
  std::string_view wanted;
  /// Takes the value. @return false when it is wrong.
  bool (*take)(key_reading& into, const program_file::setting& given);
};

/// All of them, section by section, in the order in which people are told of them.
std::span<const key_rule> key_table();

/// Null when there is no such key. Not asked for variables in `environment`.
const key_rule* find_rule(std::string_view section, std::string_view key);
bool is_section(std::string_view name);
/// The keys of a section, or the sections, as "a, b, c".
std::string list_keys(std::string_view section);
std::string list_sections();

}  // namespace runner
