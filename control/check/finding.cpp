#include "control/check/finding.h"

#include <algorithm>

namespace control {

std::vector<finding> findings::sorted() const {
  std::vector<finding> list = all_;
  std::stable_sort(list.begin(), list.end(), [](const finding& a, const finding& b) {
    return a.file != b.file ? a.file < b.file : a.line < b.line;
  });
  return list;
}

}  // namespace control
