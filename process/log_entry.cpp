#include "process/log_entry.h"

#include "common/log/log_file.h"

void append_entry(const char* text) {
  if (g_logFile == nullptr) return;
  g_logFile->append_log(text, -1);
  g_logFile->append_time();
}
