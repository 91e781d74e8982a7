#include "control/text/joined.h"

namespace control {

std::string joined(const std::vector<std::string>& texts, std::string_view separator) {
  std::string whole;
  for (const std::string& text : texts) {
    if (!whole.empty()) whole += separator;
    whole += text;
  }
  return whole;
}

}  // namespace control
