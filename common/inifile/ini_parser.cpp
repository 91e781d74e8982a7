#include "common/inifile/ini_parser.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/inifile/ini_line.h"
#include "common/inifile/ini_number.h"
#include "common/misc/unique_fd.h"

namespace {

/// Opens a regular file for reading and writing. Writing is asked for so that a file that could not
/// be written back is not used either.
unique_fd open_document(const std::string& path) {
  // A pipe or a device must neither make the caller wait nor become its controlling terminal.
  unique_fd file(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (file.valid() && (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) file.reset();
  return file;
}

/// Calls `handle` with each line in turn, without its "\n"; the last one needs none. A line that is
/// cut short by a failing read is not handed out.
/// @param memory what the reading itself needs.
template <typename Handler>
void for_each_line(int fd, std::pmr::memory_resource* memory, Handler handle) {
  std::pmr::vector<char> chunk(std::size_t{64} * 1024, memory);
  std::string line;
  for (;;) {
    const ssize_t got = ::read(fd, chunk.data(), chunk.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return;
    if (got == 0) break;
    std::string_view rest(chunk.data(), static_cast<std::size_t>(got));
    for (auto end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
      handle(line.append(rest.substr(0, end)));
      line.clear();
      rest.remove_prefix(end + 1);
    }
    line.append(rest);
  }
  if (!line.empty()) handle(line);
}

}  // namespace

Tini_parser::Tini_parser(const std::string& path, std::pmr::memory_resource* memory)
    : true_text("1"), false_text("0"), file_name(path), lines(memory), sections(memory) {
  parse(path);
}

void Tini_parser::parse(const std::string& path) {
  const unique_fd file = open_document(path);
  if (!file.valid()) return;
  std::pmr::memory_resource* const memory = lines.get_allocator().resource();
  for_each_line(file.get(), memory, [this](std::string_view line) { parse_line(line); });
}

void Tini_parser::parse_line(std::string_view untrimmed) {
  const std::string_view line = ini_line::trim_func(untrimmed);
  if (!ini_line::is_kept_line(line)) return;
  lines.emplace_back(line);
  switch (ini_line::classify(line)) {
    case ini_line::meaning::section:
      if (ini_line::opens_section(line)) start_section(line);
      break;
    case ini_line::meaning::assignment:
      handle_assignment(line);
      break;
    case ini_line::meaning::none:
      break;
  }
}

void Tini_parser::start_section(std::string_view line) {
  current_section = ini_line::extract_section_name(line);
}

void Tini_parser::handle_assignment(std::string_view line) {
  const std::string_view key = ini_line::trim_func(ini_line::extract_key(line));
  const std::string_view value = ini_line::trim_func(ini_line::extract_value(line));
  set_value(current_section, key, value);
}

void Tini_parser::set_value(std::string_view section, std::string_view key,
                            std::string_view value) {
  auto owner = sections.find(section);
  if (owner == sections.end()) owner = sections.emplace(section, properties()).first;
  const auto known = owner->second.find(key);
  if (known != owner->second.end()) {
    known->second = value;
  } else {
    owner->second.emplace(key, value);
  }
}

bool Tini_parser::ensure_property_exists(const std::string& section, const std::string& key) const {
  return find_value(section, key) != nullptr;
}

const Tini_parser::text* Tini_parser::find_value(const std::string& section,
                                                 const std::string& key) const {
  const auto owner = sections.find(std::string_view(section));
  if (!section.empty() && owner == sections.end()) return nullptr;
  // For "" this look-up is the first, and its error is part of the interface: it tells "no property
  // stands outside a section" from "this one does not".
  const properties& known = owner != sections.end() ? owner->second : sections.at(text(section));
  const auto value = known.find(std::string_view(key));
  return value != known.end() ? &value->second : nullptr;
}

bool Tini_parser::read_bool(const std::string& section, const std::string& key,
                            bool default_value) const {
  const text* value = find_value(section, key);
  if (value == nullptr) return default_value;
  if (std::string_view(*value) == true_text) return true;
  if (std::string_view(*value) == false_text) return false;
  return default_value;
}

std::string Tini_parser::read_string(const std::string& section, const std::string& key,
                                     std::string default_value) const {
  const text* value = find_value(section, key);
  if (value != nullptr) default_value = *value;
  return default_value;
}

std::string Tini_parser::read_string(const std::string& section, const std::string& key,
                                     const char* default_value) const {
  return read_string(section, key, std::string(default_value == nullptr ? "" : default_value));
}

void Tini_parser::copy_value(const std::string& section, const std::string& key, char* out,
                             std::size_t size) const {
  const text* value = find_value(section, key);
  if (value == nullptr || out == nullptr) return;
  const std::size_t length = std::min(value->size(), size - 1);
  std::memcpy(out, value->data(), length);
  out[length] = '\0';
}

int Tini_parser::read_int(const std::string& section, const std::string& key,
                          int default_value) const {
  const text* value = find_value(section, key);
  return value == nullptr ? default_value : ini_number::stoi(std::string(*value));
}

long Tini_parser::read_long(const std::string& section, const std::string& key,
                            long default_value) const {
  const text* value = find_value(section, key);
  return value == nullptr ? default_value : ini_number::stol(std::string(*value));
}

float Tini_parser::read_float(const std::string& section, const std::string& key,
                              long default_value) const {
  const text* value = find_value(section, key);
  return value == nullptr ? static_cast<float>(default_value)
                          : ini_number::stof(std::string(*value));
}

double Tini_parser::read_double(const std::string& section, const std::string& key,
                                double default_value) const {
  const text* value = find_value(section, key);
  return value == nullptr ? default_value : ini_number::stod(std::string(*value));
}

std::vector<std::string> Tini_parser::section_keys(const std::string& section) const {
  std::vector<std::string> keys;
  const auto found = sections.find(std::string_view(section));
  if (found == sections.end()) return keys;
  keys.reserve(found->second.size());
  for (const auto& property : found->second)
    keys.emplace_back(property.first);
  return keys;
}
