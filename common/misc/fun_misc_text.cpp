#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwctype>
#include <memory>
#include <string_view>
#include <tuple>

#include "common/misc/fun_misc.h"
#include "common/misc/unique_file.h"

namespace {

using namespace std::string_view_literals;

constexpr auto npos = std::string_view::npos;
constexpr int kUnknownImage = 5;
constexpr int kGuidLength = 32;
constexpr std::size_t kMaxNewPath = 512;
constexpr std::size_t kMaxDigits = 39;
constexpr std::size_t kMaxSizeText = 32;

struct image_type {
  std::string_view magic;
  const char* extension;
};

/// In the order of the type codes. TIFF is the little-endian kind only, which is part of the
/// interface: 4 means that one and nothing else.
constexpr std::array<image_type, kUnknownImage> kImageTypes{{{"BM"sv, ".bmp"},
                                                             {"GIF8"sv, ".gif"},
                                                             {"\xFF\xD8\xFF"sv, ".jpg"},
                                                             {"\x89PNG"sv, ".png"},
                                                             {"II*\0"sv, ".tif"}}};

std::string_view view(const char* text) noexcept {
  return text == nullptr ? "" : text;
}

/// The first N bytes of the file, followed by zeros when it is shorter. @return whether it could be
/// opened.
template <std::size_t N>
bool read_beginning(const char* path, std::array<char, N>& bytes) noexcept {
  bytes = {};
  const unique_file file(path == nullptr ? nullptr : std::fopen(path, "rbe"));
  if (!file) return false;
  std::ignore = std::fread(bytes.data(), 1, N, file.get());
  return true;
}

/// The numbers of a version, read as `scanf` reads "%d.%d.%d.%d".
std::array<int, 4> version_numbers(const char* text) noexcept {
  std::array<int, 4> numbers{};
  const char* next = text == nullptr ? "" : text;
  for (int& number : numbers) {
    char* end = nullptr;
    const long value = std::strtol(next, &end, 10);
    if (end == next) break;
    number = static_cast<int>(value);
    if (*end != '.') break;
    next = end + 1;
  }
  return numbers;
}

/// The number between the last "(" and the last ")" of a path, as a text; empty when there is none.
std::string_view number_in_parentheses(std::string_view path, std::size_t open) noexcept {
  const std::size_t close = path.rfind(')');
  if (close == npos || close <= open) return {};
  const std::string_view number = path.substr(open + 1, close - open - 1);
  const bool digits = number.find_first_not_of("0123456789") == npos;
  return digits && number.size() <= kMaxDigits ? number : std::string_view{};
}

/// Writes the path that comes after `path` when names are numbered. @return false when there is
/// none, or none that fits.
bool write_next_path(std::string_view path, char (&out)[kMaxNewPath]) noexcept {
  const std::size_t dot = std::min(path.rfind('.'), path.size());
  std::size_t kept = dot;
  long number = 0;
  const std::size_t open = path.rfind('(');
  if (open != npos && open != 0) {
    const std::string_view digits = number_in_parentheses(path, open);
    if (digits.empty()) return false;
    // Stops at the ")", and at a number far too large before it could overflow.
    number = std::strtol(digits.data(), nullptr, 10);
    kept = open;
  }
  const std::string_view extension = path.substr(dot);
  if (number >= INT_MAX) return false;
  const int length = std::snprintf(out, kMaxNewPath, "%.*s(%d)%.*s", static_cast<int>(kept),
                                   path.data(), static_cast<int>(number + 1),
                                   static_cast<int>(extension.size()), extension.data());
  return length > 0 && static_cast<std::size_t>(length) < kMaxNewPath;
}

template <typename Change>
char* change_bytes(char* text, Change change) noexcept {
  for (char* next = text; next != nullptr && *next != '\0'; ++next) {
    *next = static_cast<char>(change(static_cast<unsigned char>(*next)));
  }
  return text;
}

/// Appends an array of `size` + 1 bytes that begins with `text`.
void append_string(std::string_view text, std::size_t size, std::vector<char*>& list) {
  auto copy = std::make_unique<char[]>(size + 1);
  text.copy(copy.get(), size);
  list.push_back(nullptr);
  list.back() = copy.release();
}

}  // namespace

int Tfun_misc::random(int a, int b) noexcept {
  // With a > b both bounds are left out, and with a = b the number lies above them. That is part of
  // the interface: by the order of the bounds a caller says whether they count.
  const std::int64_t low = a < b ? a : std::int64_t{b} + 1;
  const std::int64_t high = a < b ? std::int64_t{b} + 1 : a;
  std::srand(static_cast<unsigned>(std::time(nullptr)));
  const std::int64_t drawn = std::rand();
  if (high == low) return a;
  return static_cast<int>(std::min<std::int64_t>(low + drawn % (high - low), INT_MAX));
}

void Tfun_misc::ReplaceLetter(char* text, const char* find, const char* repl) noexcept {
  if (text == nullptr || find == nullptr || repl == nullptr) return;
  // Either would find the same place again for ever.
  if (*find == '\0' || *find == *repl) return;
  while ((text = std::strstr(text, find)) != nullptr)
    *text = *repl;
}

char* Tfun_misc::create_guid(char* out) noexcept {
  // The digits are in it three times, which is part of the interface: a digit is three times as
  // likely as a letter.
  constexpr auto kAlphabet = "0123456789abcdefghijklm0123456789nopqrstuvwxyz0123456789"sv;
  if (out == nullptr) return out;
  char* end = out + std::strlen(out);
  for (int i = 0; i < kGuidLength; ++i) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    std::srand(static_cast<unsigned>(now.tv_nsec));
    *end++ = kAlphabet[static_cast<std::size_t>(std::rand()) % kAlphabet.size()];
  }
  *end = '\0';
  return out;
}

int Tfun_misc::get_photo_ext_name(const char* path, char* ext) noexcept {
  std::array<char, 4> bytes;
  if (!read_beginning(path, bytes)) return kUnknownImage;
  const std::string_view beginning(bytes.data(), bytes.size());
  for (std::size_t code = 0; code < kImageTypes.size(); ++code) {
    if (!beginning.starts_with(kImageTypes[code].magic)) continue;
    if (ext != nullptr) std::strcpy(ext, kImageTypes[code].extension);
    return static_cast<int>(code);
  }
  return kUnknownImage;
}

int Tfun_misc::checkup_image_is_gif(const char* path) noexcept {
  std::array<char, 10> bytes;
  if (!read_beginning(path, bytes)) return 0;
  return std::string_view(bytes.data(), bytes.size()).starts_with("GIF") ? 1 : 0;
}

int Tfun_misc::compare_ver(const char* a, const char* b) noexcept {
  return version_numbers(a) > version_numbers(b) ? 1 : 0;
}

char* Tfun_misc::get_filename_name(const char* path, char* out, bool strip_ext) noexcept {
  if (out == nullptr) return out;
  const std::string_view whole = view(path);
  const std::size_t name_at = whole.rfind('/') + 1;  // npos + 1 is 0
  const std::string_view name = whole.substr(name_at);
  const std::size_t length = strip_ext ? std::min(name.rfind('.'), name.size()) : name.size();
  std::memmove(out, name.data(), length);
  // A stripped name gets no terminator: a caller may put it over the beginning of another text.
  if (!strip_ext) out[length] = '\0';
  return out;
}

char* Tfun_misc::get_filename_name_for_url(const char* path, char* out, bool strip_ext) noexcept {
  return get_filename_name(path, out, strip_ext);
}

void Tfun_misc::get_filename_ext(const char* path, char* out, bool with_dot) noexcept {
  const std::string_view whole = view(path);
  const std::size_t dot = whole.rfind('.');
  if (out == nullptr || dot == npos || dot == 0) return;
  const std::string_view extension = whole.substr(with_dot ? dot : dot + 1);
  std::memmove(out, extension.data(), extension.size());
  out[extension.size()] = '\0';
}

int Tfun_misc::create_new_filename(const char* path, char* out) noexcept {
  if (out == nullptr) return 0;
  std::string_view candidate = view(path);
  if (!file_exists(path)) {
    std::memmove(out, candidate.data(), candidate.size());
    out[candidate.size()] = '\0';
    return 1;
  }
  // No numbered path gives 1: the result tells whether `path` itself was free.
  char next[kMaxNewPath];
  char taken[kMaxNewPath];
  while (write_next_path(candidate, next)) {
    if (!file_exists(next)) {
      std::strcpy(out, next);
      return 0;
    }
    std::strcpy(taken, next);
    candidate = taken;
  }
  return 0;
}

void Tfun_misc::calc_file_view_size(long size, char* out) noexcept {
  constexpr float kStep = 0.0009765625F;  // 1 / 1024
  if (out == nullptr) return;
  if (size <= 0) {
    // Appended, unlike all other sizes, so that a caller can name what is empty before it.
    std::strcat(out, " 0 Byte");
    return;
  }
  // In single precision, which is part of the interface: large sizes show its rounding.
  const float kilobytes = static_cast<float>(size) * kStep;
  const float megabytes = kilobytes * kStep;
  if (size < 1024) {
    std::snprintf(out, kMaxSizeText, "%ld Byte", size);
  } else if (size < 1048576) {
    std::snprintf(out, kMaxSizeText, "%.2f KB", static_cast<double>(kilobytes));
  } else if (size < 1073741824) {
    std::snprintf(out, kMaxSizeText, "%.2f MB", static_cast<double>(megabytes));
  } else {
    std::snprintf(out, kMaxSizeText, "%.4f GB", static_cast<double>(megabytes * kStep));
  }
}

char* Tfun_misc::string_trim(char* text, bool leading_only) noexcept {
  if (text == nullptr) return text;
  char* const end = text + std::strlen(text);
  char* kept = text;
  if (leading_only) {
    // What is not leading stays, even at the end; that is part of the interface.
    char* const first = std::find_if(text, end, [](char c) { return c != ' '; });
    kept = std::copy(first, end, text);
  } else {
    kept = std::remove(text, end, ' ');
  }
  std::fill(kept, end, '\0');
  return text;
}

int Tfun_misc::is_have_space(const char* text) noexcept {
  const std::string_view bytes = view(text);
  return std::any_of(bytes.begin(), bytes.end(),
                     [](char c) { return std::iswspace(static_cast<unsigned char>(c)) != 0; })
             ? 1
             : 0;
}

int Tfun_misc::get_last_str_pos(const char* text, const char* sub) noexcept {
  const std::string_view searched = view(sub);
  const std::size_t found = searched.empty() ? npos : view(text).rfind(searched);
  return found == npos ? -1 : static_cast<int>(found);
}

char* Tfun_misc::strlwr(char* text) noexcept {
  return change_bytes(text, [](int c) { return std::tolower(c); });
}

char* Tfun_misc::strupr(char* text) noexcept {
  return change_bytes(text, [](int c) { return std::toupper(c); });
}

char* Tfun_misc::stoupper(char* text) noexcept {
  return strupr(text);
}

void Tfun_misc::AdjustPrintFormat(char* format) noexcept {
  if (format == nullptr) return;
  while ((format = std::strstr(format, "%lu")) != nullptr) {
    char* const letter = format + 1;
    std::memmove(letter, letter + 1, std::strlen(letter));
  }
}

void Tfun_misc::add_string(const char* src, int len, std::vector<char*>& list) {
  const std::size_t size = len < 0 ? 0 : static_cast<std::size_t>(len);
  // `src` need not be terminated when it is that long.
  append_string(src == nullptr ? "" : std::string_view(src, ::strnlen(src, size)), size, list);
}

void Tfun_misc::split_string(const char* text, int /*n*/, const char* delim,
                             std::vector<char*>& list) {
  const std::string_view separator = view(delim);
  std::string_view rest = view(text);
  while (!rest.empty()) {
    const std::size_t end = separator.empty() ? npos : rest.find(separator);
    const std::string_view piece = rest.substr(0, end);
    if (!piece.empty()) append_string(piece, piece.size(), list);
    rest.remove_prefix(end == npos ? rest.size() : end + separator.size());
  }
}

void Tfun_misc::del_string_list(const std::vector<char*>& list) {
  for (std::size_t i = 0, size = list.size(); i < size; ++i)
    delete[] list.at(i);
}
