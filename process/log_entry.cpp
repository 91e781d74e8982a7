#include "process/log_entry.h"

#include "process/recorder.h"

void append_entry(const char* text) {
  static recorder::record own;
  recorder::append(own, text);
}
