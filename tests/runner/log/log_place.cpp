#include "tests/runner/log/log_place.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

struct pipe_closer {
  void operator()(std::FILE* stream) const noexcept { ::pclose(stream); }
};

std::string unpacked(const std::string& path) {
  const std::unique_ptr<std::FILE, pipe_closer> gzip(::popen(("gzip -dc " + path).c_str(), "re"));
  std::string text;
  char part[4096];
  while (const std::size_t count = std::fread(part, 1, sizeof part, gzip.get()))
    text.append(part, count);
  return text;
}

}  // namespace

runner::log_settings log_place::settings(std::uint64_t size) const {
  runner::log_settings settings;
  settings.target = runner::log_target::file;
  settings.file = path();
  settings.size = size;
  settings.keep = 1'000'000;
  return settings;
}

std::vector<std::string> log_place::rotated_texts() const {
  std::vector<std::string> texts;
  for (const runner::rotated_name& name : rotated()) {
    const std::string file = runner::rotated_path(path(), name);
    texts.push_back(name.what == runner::rotated_name::kind::plain ? read_file(file)
                                                                   : unpacked(file));
  }
  return texts;
}

std::string log_place::everything() const {
  std::string all;
  for (const std::string& text : rotated_texts())
    all += text;
  return all + now();
}

std::string log_place::write_rotated(const runner::rotated_name& name,
                                     std::string_view text) const {
  const std::string file = runner::rotated_path(path(), name);
  write_file(file, text);
  return file;
}

void replace_gzip(const scratch_dir& place, std::string_view script) {
  place.write("gzip", script);
  ::chmod(place.file("gzip").c_str(), 0755);
  ::setenv("PATH", place.path().c_str(), 1);
}
