#include "process/watch_pause.h"

#include <chrono>

#include "process/supervisor_signals.h"

void pause_between_watches() {
  supervisor_signals::wait(-1, std::chrono::seconds(2));
}
