#include "tests/support/unique_name.h"

#include <cstdio>
#include <random>

std::string unique_name() {
  static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  static const std::string prefix = [] {
    std::random_device random;
    std::string text = "k";
    for (int i = 0; i < 10; ++i)
      text += kLetters[random() % (sizeof kLetters - 1)];
    return text;
  }();
  static int used = 0;
  char name[16];
  std::snprintf(name, sizeof name, "%s%04d", prefix.c_str(), ++used % 10000);
  return name;
}
