#include "runner/file/finding.h"

namespace runner {

std::string in_one_line(const std::string& path, const file_finding& what) {
  std::string line = path;
  if (what.line > 0) line += ":" + std::to_string(what.line);
  line += ": ";
  if (!what.key.empty()) line += what.key + ": ";
  line += what.text;
  if (!what.remedy.empty()) line += "; " + what.remedy;
  // A file may hold any bytes, and this is to be one line on a terminal.
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = '?';
  }
  return line;
}

}  // namespace runner
