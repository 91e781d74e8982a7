// Loading a server.ini, reading from it, and writing one value back.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/sample_config.h"
#include "common/inifile/ini_parser.h"
#include "tests/support/scratch_dir.h"

namespace {

void load(benchmark::State& state) {
  const scratch_dir directory;
  directory.write("server.ini", sample_config::server_ini(state.range(0), "run"));
  const std::string path = directory.file("server.ini");
  for (auto _ : state) {
    const Tini_parser config(path);
    benchmark::DoNotOptimize(&config);
  }
  state.SetComplexityN(state.range(0));
}
BENCHMARK(load)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond)->Complexity();

/// One read each time, from all sections in turn.
template <typename Read>
void read_value(benchmark::State& state, Read read) {
  const scratch_dir directory;
  directory.write("server.ini", sample_config::server_ini(state.range(0), "run"));
  const Tini_parser config(directory.file("server.ini"));
  std::vector<std::string> sections;
  for (std::int64_t i = 1; i <= state.range(0); ++i)
    sections.push_back(sample_config::program_name(i));
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(read(config, sections[next]));
    if (++next == sections.size()) next = 0;
  }
}

std::string read_text(const Tini_parser& config, const std::string& section) {
  return config.read_string(section, "exepath", "");
}
int read_whole_number(const Tini_parser& config, const std::string& section) {
  return config.read_int(section, "count", 0);
}
double read_fraction(const Tini_parser& config, const std::string& section) {
  return config.read_double(section, "ratio", 0);
}
bool read_flag(const Tini_parser& config, const std::string& section) {
  return config.read_bool(section, "flag", false);
}
bool read_missing(const Tini_parser& config, const std::string& section) {
  return config.read_bool(section, "no such key", true);
}
BENCHMARK_CAPTURE(read_value, string, read_text)->Arg(10)->Arg(1000)->Arg(10000);
BENCHMARK_CAPTURE(read_value, int, read_whole_number)->Arg(10)->Arg(1000)->Arg(10000);
BENCHMARK_CAPTURE(read_value, double, read_fraction)->Arg(10)->Arg(1000)->Arg(10000);
BENCHMARK_CAPTURE(read_value, bool, read_flag)->Arg(10)->Arg(1000)->Arg(10000);
BENCHMARK_CAPTURE(read_value, missing, read_missing)->Arg(10)->Arg(1000)->Arg(10000);

/// One value is changed, and the whole file is written.
void write_value(benchmark::State& state) {
  const scratch_dir directory;
  directory.write("server.ini", sample_config::server_ini(state.range(0), "run"));
  Tini_parser config(directory.file("server.ini"));
  const std::string section = sample_config::program_name((state.range(0) + 1) / 2);
  bool value = false;
  for (auto _ : state) {
    config.write_value(section, "flag", value);
    value = !value;
  }
}
BENCHMARK(write_value)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
