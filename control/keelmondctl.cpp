#include "control/command_line.h"

int main(int argc, char** argv) {
  return control::run_command_line(argc, argv);
}
