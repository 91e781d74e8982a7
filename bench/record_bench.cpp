// What the supervisor records of each start and end of a program.

#include <benchmark/benchmark.h>

#include "common/log/log_file.h"
#include "common/misc/fun_misc.h"
#include "tests/support/scratch_dir.h"

namespace {

/// A message and the line with its time.
void append_line(benchmark::State& state) {
  const scratch_dir directory;
  Tlog_file log;
  log.create_log_file(directory.file("keelmond.log").c_str(), false);
  for (auto _ : state) {
    log.append_log("launched sub process PID: 12345 \r\n", -1);
    log.append_time();
  }
}
BENCHMARK(append_line);

void write_live_file(benchmark::State& state) {
  const scratch_dir directory;
  const working_dir inside(directory.path());
  std::filesystem::create_directory("notify");
  for (auto _ : state)
    Tfun_misc::UpdateProcessLiveFile("kmd_bench", true);
}
BENCHMARK(write_live_file);

void write_and_remove_live_file(benchmark::State& state) {
  const scratch_dir directory;
  const working_dir inside(directory.path());
  std::filesystem::create_directory("notify");
  for (auto _ : state) {
    Tfun_misc::UpdateProcessLiveFile("kmd_bench", true);
    Tfun_misc::UpdateProcessLiveFile("kmd_bench", false);
  }
}
BENCHMARK(write_and_remove_live_file);

void get_current_path(benchmark::State& state) {
  char path[512];
  for (auto _ : state) {
    Tfun_misc::get_current_path(path, "keelmond.log");
    benchmark::DoNotOptimize(path);
  }
}
BENCHMARK(get_current_path);

}  // namespace
