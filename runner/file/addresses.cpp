#include "runner/file/addresses.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

#include "runner/file/values.h"

namespace runner {
namespace {

bool parse_port(std::string_view text, std::uint16_t& out) {
  const auto number = parse_count(text);
  if (!number || *number < 1 || *number > 65535) return false;
  out = static_cast<std::uint16_t>(*number);
  return true;
}

bool parse_host(std::string_view text, std::string& out) {
  const bool bracketed = text.starts_with('[') && text.ends_with(']');
  if (bracketed) text = text.substr(1, text.size() - 2);
  out = text == "localhost" ? "127.0.0.1" : std::string(text);
  in6_addr address{};
  return ::inet_pton(bracketed ? AF_INET6 : AF_INET, out.c_str(), &address) == 1;
}

/// Where the port's colon stands: not one within brackets.
std::size_t find_colon(std::string_view text) {
  const std::size_t bracket = text.rfind(']');
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return colon;
  return bracket != std::string_view::npos && bracket > colon ? std::string_view::npos : colon;
}

}  // namespace

bool parse_tcp_address(std::string_view text, probe_settings& out) {
  out.how = probe_settings::kind::tcp;
  const std::size_t colon = find_colon(text);
  if (colon == std::string_view::npos) {
    out.host = "127.0.0.1";
    return parse_port(text, out.port);
  }
  return parse_host(text.substr(0, colon), out.host) &&
         parse_port(text.substr(colon + 1), out.port);
}

bool parse_http_address(std::string_view text, probe_settings& out) {
  constexpr std::string_view kScheme = "http://";
  const bool is_address = text.starts_with(kScheme);
  if (is_address) text.remove_prefix(kScheme.size());
  const std::size_t slash = std::min(text.find('/'), text.size());
  const std::string_view place = text.substr(0, slash);
  const std::string_view path = text.substr(slash);
  const bool is_plain =
      std::all_of(path.begin(), path.end(), [](char c) { return c > ' ' && c < '\x7f'; });
  if (!is_plain) return false;
  bool is_right = false;
  if (is_address && find_colon(place) == std::string_view::npos) {
    out.port = 80;
    is_right = parse_host(place, out.host);
  } else {
    is_right = parse_tcp_address(place, out);
  }
  out.how = probe_settings::kind::http;
  out.path = path.empty() ? "/" : std::string(path);
  return is_right;
}

}  // namespace runner
