#include "control/text/table.h"

#include <algorithm>
#include <cstddef>

namespace control {
namespace {

constexpr std::size_t kGap = 2;
constexpr std::size_t kNarrowest = 4;

bool continues_character(char c) {
  return (static_cast<unsigned char>(c) & 0xc0U) == 0x80U;
}

std::string padded(const std::string& text, std::size_t width, table::align side) {
  const std::size_t used = columns_of(text);
  const std::string blanks(width > used ? width - used : 0, ' ');
  return side == table::align::right ? blanks + text : text + blanks;
}

}  // namespace

std::size_t columns_of(const std::string& text) {
  return text.size() -
         static_cast<std::size_t>(std::count_if(text.begin(), text.end(), continues_character));
}

std::string cut_to(const std::string& text, std::size_t columns) {
  if (columns_of(text) <= columns) return text;
  std::size_t at = 0;
  for (std::size_t used = 0; at < text.size(); ++at) {
    if (!continues_character(text[at]) && ++used == columns) break;
  }
  return text.substr(0, at) + "~";
}

std::string printable(const std::string& text) {
  std::string shown = text;
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return shown;
}

std::vector<std::size_t> table::natural_widths() const {
  std::vector<std::size_t> widths(columns_.size(), 0);
  for (const std::vector<cell>& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], columns_of(row[i].text));
  }
  for (std::size_t i = 0; i < widths.size(); ++i) {
    if (widths[i] > 0) widths[i] = std::max(widths[i], columns_of(columns_[i].title));
  }
  return widths;
}

std::vector<std::size_t> table::widths(int limit) const {
  std::vector<std::size_t> widths = natural_widths();
  if (limit <= 0) return widths;
  const auto excess = [&] {
    std::size_t whole = 0;
    for (const std::size_t width : widths)
      whole += width == 0 ? 0 : width + kGap;
    const auto allowed = static_cast<std::size_t>(limit) + kGap;
    return whole > allowed ? whole - allowed : 0;
  };
  const auto shrink = [&](const auto& may_shrink) {
    for (std::size_t i = widths.size(); i-- > 0;) {
      if (may_shrink(columns_[i]) && widths[i] > kNarrowest)
        widths[i] -= std::min(excess(), widths[i] - kNarrowest);
    }
  };
  shrink([](const column& one) { return one.may_shrink; });
  for (std::size_t i = widths.size(); i-- > 0 && excess() > 0;) {
    if (columns_[i].side == align::right) widths[i] = 0;
  }
  shrink([](const column& one) { return one.side == align::left; });
  return widths;
}

std::string table::print(const terminal& out) const {
  const std::vector<std::size_t> wide = widths(out.width());
  const auto line = [&](const auto& text_of, const auto& tone_of) {
    std::string text;
    std::string gap;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      if (wide[i] == 0) continue;
      const std::string shown = cut_to(text_of(i), wide[i]);
      text += gap + out.painted(padded(shown, wide[i], columns_[i].side), tone_of(i));
      gap = std::string(kGap, ' ');
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text + "\n";
  };
  std::string whole = line([&](std::size_t i) { return columns_[i].title; },
                           [](std::size_t) { return tone::faint; });
  for (const std::vector<cell>& row : rows_) {
    whole += line([&](std::size_t i) { return i < row.size() ? row[i].text : std::string(); },
                  [&](std::size_t i) { return i < row.size() ? row[i].how : tone::plain; });
  }
  return whole;
}

}  // namespace control
