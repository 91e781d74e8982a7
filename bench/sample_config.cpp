#include "bench/sample_config.h"

namespace sample_config {

std::string program_name(std::int64_t number) {
  return "kmd_bench_" + std::to_string(number);
}

std::string server_ini(std::int64_t count, const std::string& state) {
  std::string text = "# A configuration for benchmarks.\n[keelmond]\n";
  text += "linux = " + std::to_string(count) + "\n";
  for (std::int64_t i = 1; i <= count; ++i)
    text += "svr" + std::to_string(i) + " = " + program_name(i) + "\n";
  for (std::int64_t i = 1; i <= count; ++i) {
    text += "\n[" + program_name(i) + "]\n";
    text += "exepath = /bin/true\n";
    text += "state = " + state + "\n";
    text += "count = " + std::to_string(i) + "\n";
    text += "ratio = 0.25\n";
    // Without blanks around "=", as a line has to be that is to be written back in its place.
    text += "flag=1\n";
  }
  return text;
}

}  // namespace sample_config
