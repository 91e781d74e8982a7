// Bringing the monitors into line with a configuration.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "bench/sample_config.h"
#include "common/log/console.h"
#include "common/misc/unique_fd.h"
#include "process/server_config.h"
#include "tests/support/scratch_dir.h"

namespace {

/// Sends console lines to nowhere, in the way in which a daemon writes them.
class quiet_console final {
 public:
  quiet_console() : before_(::dup(STDOUT_FILENO)) {
    const unique_fd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    ::dup2(nowhere.get(), STDOUT_FILENO);
    // It keeps its own way there, so once is enough for all objects of this class.
    [[maybe_unused]] static const bool opened = (console::open(), true);
  }
  quiet_console(const quiet_console&) = delete;
  quiet_console& operator=(const quiet_console&) = delete;
  ~quiet_console() { ::dup2(before_.get(), STDOUT_FILENO); }

 private:
  unique_fd before_;
};

/// A state that asks for nothing: the loader reads, tests and looks up each entry all the same.
constexpr char kNoState[] = "other";

void load_entries(benchmark::State& state) {
  const scratch_dir directory;
  directory.write("server.ini", sample_config::server_ini(state.range(0), kNoState));
  const std::string path = directory.file("server.ini");
  const quiet_console quiet;
  for (auto _ : state)
    loadServerConfig(path.c_str());
  state.SetComplexityN(state.range(0));
}

/// No entry has a monitor.
void load_unknown(benchmark::State& state) {
  load_entries(state);
}
BENCHMARK(load_unknown)
    ->RangeMultiplier(10)
    ->Range(10, 10000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

/// Every entry has one, as in a reload. None of them has a thread.
void load_known(benchmark::State& state) {
  for (std::int64_t i = 1; i <= state.range(0); ++i) {
    const std::string name = sample_config::program_name(i);
    monitor_list.push_back(new Tfun_monitor("/bin/true", name.c_str(), kNoState));
  }
  load_entries(state);
  for (const Tfun_monitor* monitor : monitor_list)
    delete monitor;
  monitor_list.clear();
}
BENCHMARK(load_known)
    ->RangeMultiplier(10)
    ->Range(10, 10000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity();

}  // namespace
