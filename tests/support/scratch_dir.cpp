#include "tests/support/scratch_dir.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

scratch_dir::scratch_dir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "keelmond_test_XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = std::filesystem::canonical(pattern);
}

scratch_dir::~scratch_dir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void scratch_dir::write(std::string_view name, std::string_view text) const {
  write_file(path_ / name, text);
}

std::string scratch_dir::read(std::string_view name) const {
  return read_file(path_ / name);
}

working_dir::working_dir(const std::filesystem::path& path)
    : before_(std::filesystem::current_path()) {
  std::filesystem::current_path(path);
}

working_dir::~working_dir() {
  std::error_code ignored;
  std::filesystem::current_path(before_, ignored);
}

std::string read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  // Through the stream and not through its buffer, which throws when reading fails. A process that
  // ends while its files in /proc are read makes it fail.
  std::string text;
  char part[65536];
  while (in.read(part, sizeof part), in.gcount() > 0)
    text.append(part, static_cast<std::size_t>(in.gcount()));
  return text;
}

void write_file(const std::filesystem::path& path, std::string_view text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}
