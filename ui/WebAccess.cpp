#include "ui/WebAccess.h"

#include <algorithm>
#include <random>

#include "util/Query.h"
#include "util/Text.h"

namespace ui {

std::string RandomToken() {
  std::random_device random;
  static const char kHex[] = "0123456789abcdef";
  std::string token;
  for (int i = 0; i < 8; ++i) {
    const unsigned v = random();
    for (int b = 0; b < 4; ++b) {
      const unsigned byte = (v >> (8 * b)) & 0xFF;
      token += kHex[byte >> 4];
      token += kHex[byte & 0xF];
    }
  }
  return token;
}

bool TokenMatches(std::string_view target, std::string_view token) {
  const std::size_t q = target.find('?');
  const std::string_view given = q == std::string_view::npos
                                     ? std::string_view{}
                                     : query::RawValue(target.substr(q + 1), "token");
  if (given.size() != token.size()) return false;
  unsigned char diff = 0;
  for (std::size_t i = 0; i < given.size(); ++i)
    diff |= static_cast<unsigned char>(given[i] ^ token[i]);
  return diff == 0;
}

std::optional<std::string> SafePath(std::string_view target) {
  const std::string_view raw = target.substr(0, target.find('?'));
  std::string path;
  if (!text::PercentDecode(raw, path) || path.empty() || path[0] != '/') return std::nullopt;
  if (path == "/") return std::string("/shell.html");
  if (path.find('\\') != std::string::npos || path.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  std::size_t start = 1;
  while (start <= path.size()) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string_view segment(path.data() + start, end - start);
    if (segment.empty() || segment == "." || segment == "..") return std::nullopt;
    start = end + 1;
  }
  return path;
}

bool HostAllowed(std::string_view host, std::uint16_t port) {
  const std::string p = ":" + std::to_string(port);
  return host == "127.0.0.1" + p || host == "localhost" + p;
}

bool OriginAllowed(std::string_view origin, std::uint16_t port) {
  const std::string p = ":" + std::to_string(port);
  return origin == "http://127.0.0.1" + p || origin == "http://localhost" + p;
}

std::string WithToken(std::string_view html, const std::string& token) {
  constexpr auto npos = std::string_view::npos;
  std::string out;
  out.reserve(html.size() + 256);
  std::size_t at = 0;
  while (true) {
    std::size_t name = npos;
    std::size_t valueStart = 0;
    for (const std::string_view attribute :
         {std::string_view(" href=\""), std::string_view(" src=\""), std::string_view("\nhref=\""),
          std::string_view("\nsrc=\"")}) {
      const std::size_t found = html.find(attribute, at);
      if (found < name) {
        name = found;
        valueStart = found + attribute.size();
      }
    }
    const std::size_t valueEnd = name == npos ? npos : html.find('"', valueStart);
    if (valueEnd == npos) break;
    const std::string_view value = html.substr(valueStart, valueEnd - valueStart);
    const bool relative =
        !value.empty() && value[0] != '#' && value.find(':') == npos && value.substr(0, 2) != "//";
    // Before a fragment, if there is one.
    const std::size_t insertAt =
        relative ? valueStart + std::min(value.find('#'), value.size()) : valueEnd;
    out.append(html.substr(at, insertAt - at));
    if (relative) {
      const bool hasQuery = value.substr(0, insertAt - valueStart).find('?') != npos;
      out += hasQuery ? '&' : '?';
      out += "token=";
      out += token;
    }
    at = insertAt;
  }
  out.append(html.substr(at));
  return out;
}

std::string SafeFileName(std::string_view name) {
  std::string out;
  for (const char c : name.substr(0, 128)) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '_' || c == '-';
    out += plain ? c : '_';
  }
  return out;
}

}  // namespace ui
