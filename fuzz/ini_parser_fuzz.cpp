// Loads any bytes as an INI file, changes it, and compares file and reads with the model.
//
// An input is the content of the file and, behind the first line "--", a script: a change per line,
// a letter and up to three texts, "wSECTION|KEY|VALUE" for instance. An input without a script is
// only loaded and read.

#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "common/inifile/ini_parser.h"
#include "common/misc/unique_fd.h"
#include "tests/common/inifile/ini_model.h"

namespace {

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "differs from the model: %s\n", what);
  std::abort();
}

/// A file in memory with a path of its own.
class memory_file final {
 public:
  memory_file()
      : fd_(::memfd_create("fuzz.ini", MFD_CLOEXEC)),
        path_("/proc/self/fd/" + std::to_string(fd_.get())) {
    require(fd_.valid(), "no file in memory");
  }

  [[nodiscard]] const std::string& path() const { return path_; }

  void write(std::string_view text) const {
    require(::ftruncate(fd_.get(), 0) == 0, "file not emptied");
    const ssize_t written = ::pwrite(fd_.get(), text.data(), text.size(), 0);
    require(written == static_cast<ssize_t>(text.size()), "file not written");
  }

  [[nodiscard]] std::string read() const {
    std::string text(static_cast<std::size_t>(::lseek(fd_.get(), 0, SEEK_END)), '\0');
    const ssize_t got = ::pread(fd_.get(), text.data(), text.size(), 0);
    require(got == static_cast<ssize_t>(text.size()), "file not read");
    return text;
  }

 private:
  unique_fd fd_;
  std::string path_;
};

/// Reads a property in every way there is. The model knows no numbers; what is compared is
/// how they agree with each other.
void require_reads(const Tini_parser& ini, const std::string& section, const std::string& key,
                   const std::string& value) {
  require(ini.ensure_property_exists(section, key), "no property");
  require(ini.read_string(section, key, "") == value, "value");

  std::vector<char> whole(value.size() + 1, '#');
  ini.read_string(section, key, whole.data());
  require(std::string(whole.data(), value.size()) == value && whole.back() == '\0', "buffer");
  char cut[4] = {'#', '#', '#', '#'};
  ini.read_string(section, key, cut);
  const std::string kept = value.substr(0, 3);
  require(std::string(cut, kept.size()) == kept && cut[kept.size()] == '\0', "array");

  require(ini.read_bool(section, key, false) == (value == "1"), "truth value");
  require(ini.read_bool(section, key, true) == (value != "0"), "truth value");
  const long number = ini.read_long(section, key, 1);
  const int small = ini.read_int(section, key, 1);
  require(small == number || small == (number < 0 ? INT32_MIN : INT32_MAX), "number");
  require(std::isfinite(ini.read_float(section, key, 1)), "float");
  require(std::isfinite(ini.read_double(section, key, 1)), "double");
}

void require_same(const Tini_parser& ini, const ini_model& model) {
  for (const auto& [section, properties] : model.sections()) {
    require(ini.section_keys(section).size() == properties.size(), "number of keys");
    for (const auto& [key, value] : properties)
      require_reads(ini, section, key, value);
  }
}

/// Cuts the text up to the next separator off its front.
std::string_view next_part(std::string_view& text, char separator) {
  const std::size_t end = text.find(separator);
  const std::string_view part = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return part;
}

/// Does one line of the script to both.
void change(std::string_view line, Tini_parser& ini, ini_model& model) {
  if (line.empty()) return;
  const char letter = line.front();
  line.remove_prefix(1);
  const std::string section(next_part(line, '|'));
  const std::string key(next_part(line, '|'));
  const std::string value(line);
  switch (letter) {
    case 'w':
      ini.write_value(section, key, value);
      model.write_value(section, key, value);
      break;
    case 'c':
      require(ini.create_section(section) == model.create_section(section), "create_section");
      break;
    case 'p':
      require(
          ini.create_property(section, key, value) == model.create_property(section, key, value),
          "create_property");
      break;
    case 'i':
      require(ini.create_property_in_section(section, key, value) ==
                  model.create_property_in_section(section, key, value),
              "create_property_in_section");
      break;
    case 'n':
      require(ini.create_property_no_section(key, value) ==
                  model.create_property_no_section(key, value),
              "create_property_no_section");
      break;
    case 's':
      ini.write_input_to_file();
      model.save();
      break;
    default:
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const memory_file file;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::string_view script;
  if (const std::size_t mark = input.find("--\n"); mark != std::string_view::npos) {
    script = input.substr(mark + 3);
    input = input.substr(0, mark);
  }

  file.write(input);
  ini_model model{std::string(input)};
  Tini_parser ini(file.path());
  require_same(ini, model);
  while (!script.empty()) {
    change(next_part(script, '\n'), ini, model);
    require(file.read() == model.file(), "file");
    require_same(ini, model);
  }
  require_same(Tini_parser(file.path()), ini_model(model.file()));
  return 0;
}
