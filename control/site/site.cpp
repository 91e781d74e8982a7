#include "control/site/site.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "control/text/failure.h"

namespace control {

site enter_site(const std::string& directory) {
  std::string wanted = directory;
  const char* const given = std::getenv("KEELMOND_DIR");
  if (wanted.empty() && given != nullptr) wanted = given;
  if (!wanted.empty() && ::chdir(wanted.c_str()) != 0) {
    throw failure("cannot work in " + wanted + ": " + std::strerror(errno));
  }
  std::error_code error;
  const std::filesystem::path here = std::filesystem::current_path(error);
  if (error) throw failure("cannot work in the current directory: " + error.message());
  return {here.string()};
}

}  // namespace control
