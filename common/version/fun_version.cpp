#include "common/version/fun_version.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "common/log/console.h"
#include "common/misc/bounded_text.h"
#include "common/version/version.h"

namespace {

constexpr std::string_view kWords[] = {"v",     "-v",      "--v",      "ver",      "-ver",
                                       "--ver", "version", "-version", "--version"};

constexpr char kBanner[] =
    "\n"
    "%s\n"
    "Version: %s\n"
    "https://keelmond.example/support\n"
    "Questions and suggestions are welcome at support@keelmond.example\n"
    "\n";

}  // namespace

Tfun_version::Tfun_version(const char* text) {
  copy_bounded(title, text);
}

int Tfun_version::AnalyzeParam(int argc, char** argv) const {
  if (argc < 2 || argv == nullptr || argv[1] == nullptr) return 0;
  const std::string_view word = argv[1];
  if (std::find(std::begin(kWords), std::end(kWords), word) == std::end(kWords)) return 0;
  console::print(kBanner, title, kVersion);
  return 1;
}
