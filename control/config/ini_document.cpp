#include "control/config/ini_document.h"

#include <algorithm>

namespace control {
namespace {

std::string_view without_newline(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  return text;
}

/// "\r\n", "\n", or nothing at the end of a file.
std::string_view line_end(std::string_view text) {
  if (text.ends_with("\r\n")) return "\r\n";
  return text.ends_with('\n') ? "\n" : "";
}

void interpret_assignment(std::string_view line, document_line& out) {
  const std::string_view value = ini_line::trim_func(ini_line::extract_value(line));
  out.key = ini_line::trim_func(ini_line::extract_key(line));
  out.value = value;
  out.value_at = static_cast<std::size_t>(value.data() - out.text.data());
}

/// @param section the section that the line before belongs to.
void interpret_line(document_line& out, const std::string& section) {
  const std::string_view line = ini_line::trim_func(without_newline(out.text));
  out.section = section;
  out.opens = false;
  out.key.clear();
  out.value.clear();
  out.meaning = ini_line::is_kept_line(line) ? ini_line::classify(line) : ini_line::meaning::none;
  if (out.meaning == ini_line::meaning::assignment) interpret_assignment(line, out);
  if (out.meaning == ini_line::meaning::section && ini_line::opens_section(line)) {
    out.opens = true;
    out.section = ini_line::extract_section_name(line);
  }
}

}  // namespace

ini_document::ini_document(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::size_t length = end == std::string_view::npos ? text.size() : end + 1;
    lines_.emplace_back().text = text.substr(0, length);
    text.remove_prefix(length);
  }
  interpret();
}

void ini_document::interpret() {
  std::string section;
  for (document_line& line : lines_) {
    interpret_line(line, section);
    section = line.section;
  }
}

std::string ini_document::text() const {
  std::string whole;
  for (const document_line& line : lines_)
    whole += line.text;
  return whole;
}

std::ptrdiff_t ini_document::find(std::string_view section, std::string_view key) const {
  for (std::ptrdiff_t i = std::ssize(lines_) - 1; i >= 0; --i) {
    const document_line& line = lines_[static_cast<std::size_t>(i)];
    if (line.meaning == ini_line::meaning::assignment && line.section == section && line.key == key)
      return i;
  }
  return -1;
}

std::ptrdiff_t ini_document::find_header(std::string_view section) const {
  const auto at = std::find_if(lines_.begin(), lines_.end(), [&](const document_line& line) {
    return line.opens && line.section == section;
  });
  return at == lines_.end() ? -1 : at - lines_.begin();
}

std::ptrdiff_t ini_document::last_of(std::string_view section) const {
  for (std::ptrdiff_t i = std::ssize(lines_) - 1; i >= 0; --i) {
    const document_line& line = lines_[static_cast<std::size_t>(i)];
    const bool counts = line.opens || line.meaning == ini_line::meaning::assignment;
    if (counts && line.section == section) return i;
  }
  return -1;
}

void ini_document::replace_value(std::size_t line, std::string_view value) {
  document_line& changed = lines_[line];
  changed.text.replace(changed.value_at, changed.value.size(), value);
  interpret();
}

void ini_document::replace_key(std::size_t line, std::string_view key) {
  document_line& changed = lines_[line];
  changed.text.replace(changed.text.find(changed.key), changed.key.size(), key);
  interpret();
}

void ini_document::insert_after(std::ptrdiff_t line, std::string_view text) {
  std::string_view end = "\n";
  if (line >= 0) {
    document_line& before = lines_[static_cast<std::size_t>(line)];
    // A last line without an end gets one, of the kind that the file has.
    if (line_end(before.text).empty()) {
      before.text += lines_.size() > 1 ? line_end(lines_.front().text) : "\n";
    }
    end = line_end(before.text);
  } else if (!lines_.empty() && !line_end(lines_.front().text).empty()) {
    end = line_end(lines_.front().text);
  }
  document_line added;
  added.text = std::string(text) + std::string(end);
  // Not one step at a time: before the beginning there is nothing to point at.
  lines_.insert(lines_.begin() + (line + 1), std::move(added));
  interpret();
}

void ini_document::erase(std::size_t first, std::size_t count) {
  const auto begin = lines_.begin() + static_cast<std::ptrdiff_t>(first);
  lines_.erase(begin, begin + static_cast<std::ptrdiff_t>(count));
  interpret();
}

}  // namespace control
