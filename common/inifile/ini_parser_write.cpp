#include <fcntl.h>

#include <algorithm>
#include <cstddef>

#include "common/inifile/ini_line.h"
#include "common/inifile/ini_number.h"
#include "common/inifile/ini_parser.h"
#include "common/misc/small_file.h"
#include "common/misc/unique_fd.h"

namespace {

std::string assignment_line(const std::string& key, const std::string& value) {
  return key + "=" + value;
}

}  // namespace

void Tini_parser::write_input_to_file() const {
  constexpr std::size_t kBlock = std::size_t{64} * 1024;
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  const unique_fd file(::open(file_name.c_str(), kFlags, 0666));
  if (!file.valid()) return;
  std::string block;
  for (const text& line : lines) {
    // Never "\r\n": what this class has written always has the same line ends.
    block.append(line).push_back('\n');
    if (block.size() < kBlock) continue;
    if (!write_whole(file.get(), block)) return;
    block.clear();
  }
  write_whole(file.get(), block);
}

bool Tini_parser::create_section(const std::string& name) {
  if (name.empty()) return false;
  // One kept line for both: the newline in front makes the empty line, and it keeps this object
  // from taking the line for a header, so that only a reload opens the section.
  lines.emplace_back("\n[" + name + "]");
  write_input_to_file();
  return true;
}

bool Tini_parser::create_property(const std::string& section, const std::string& key,
                                  const std::string& value) {
  if (key.empty() || value.empty()) return false;
  return section.empty() ? create_property_no_section(key, value)
                         : create_property_in_section(section, key, value);
}

bool Tini_parser::create_property_in_section(const std::string& section, const std::string& key,
                                             const std::string& value) {
  const auto header = std::find_if(lines.begin(), lines.end(), [&section](std::string_view line) {
    return ini_line::is_section_start_line(line) && ini_line::extract_section_name(line) == section;
  });
  if (header == lines.end()) return false;
  lines.emplace(header + 1, assignment_line(key, value));
  write_input_to_file();
  set_value(section, key, value);
  return true;
}

bool Tini_parser::create_property_no_section(const std::string& key, const std::string& value) {
  lines.emplace(lines.begin(), assignment_line(key, value));
  write_input_to_file();
  set_value("", key, value);
  return true;
}

bool Tini_parser::rewrite_lines(const std::string& section, const std::string& key,
                                const std::string& value) {
  bool found = false;
  std::string_view current;  // into a header's line, and those are not rewritten
  for (text& line : lines) {
    switch (ini_line::classify(line)) {
      case ini_line::meaning::section:
        current = ini_line::extract_section_name(line);
        break;
      case ini_line::meaning::assignment:
        // The key as it stands. "key = value" is left alone, as the header says.
        if (current != section || ini_line::extract_key(line) != key) break;
        line = assignment_line(key, value);
        found = true;
        break;
      case ini_line::meaning::none:
        break;
    }
  }
  return found;
}

void Tini_parser::write_value(const std::string& section, const std::string& key,
                              const std::string& value) {
  // First, and for good: a value that finds no place in the file can still be read back.
  set_value(section, key, value);
  if (rewrite_lines(section, key, value)) {
    write_input_to_file();
  } else {
    create_property(section, key, value);
  }
}

void Tini_parser::write_value(const std::string& section, const std::string& key,
                              const char* value) {
  write_value(section, key, std::string(value == nullptr ? "" : value));
}

void Tini_parser::write_value(const std::string& section, const std::string& key, int value) {
  write_value(section, key, ini_number::to_string(value));
}

void Tini_parser::write_value(const std::string& section, const std::string& key, long value) {
  write_value(section, key, ini_number::to_string(value));
}

void Tini_parser::write_value(const std::string& section, const std::string& key, float value) {
  write_value(section, key, ini_number::to_string(value));
}

void Tini_parser::write_value(const std::string& section, const std::string& key, double value) {
  write_value(section, key, ini_number::to_string(value));
}

void Tini_parser::write_value(const std::string& section, const std::string& key, bool value) {
  write_value(section, key, value ? true_text : false_text);
}
