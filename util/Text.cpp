#include "util/Text.h"

#include <cstdio>
#include <vector>

namespace text {

std::string ToUtf8(const std::u16string& wide) {
  std::string out;
  out.reserve(wide.size());
  for (std::size_t i = 0; i < wide.size(); ++i) {
    char32_t c = wide[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < wide.size() && wide[i + 1] >= 0xDC00 &&
        wide[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (wide[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFD;  // a lone surrogate cannot be written in UTF-8
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

void AppendUtf16Le(std::string& out, std::u16string_view wide) {
  out.reserve(out.size() + wide.size() * 2);
  for (const char16_t unit : wide) {
    out += static_cast<char>(unit & 0xFF);
    out += static_cast<char>(unit >> 8);
  }
}

std::u16string ToUtf16(const std::string& utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  for (std::size_t i = 0; i < utf8.size();) {
    const auto b = static_cast<unsigned char>(utf8[i]);
    int extra = b < 0x80 ? 0 : b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : -1;
    char32_t c = extra == 0 ? b : extra == 1 ? (b & 0x1F) : extra == 2 ? (b & 0x0F) : (b & 0x07);
    bool ok = extra >= 0 && i + static_cast<std::size_t>(extra) < utf8.size();
    for (int k = 1; ok && k <= extra; ++k) {
      const auto cb = static_cast<unsigned char>(utf8[i + static_cast<std::size_t>(k)]);
      ok = (cb & 0xC0) == 0x80;
      c = (c << 6) | (cb & 0x3F);
    }
    if (!ok) {
      out += u'\uFFFD';
      ++i;
      continue;
    }
    i += static_cast<std::size_t>(extra) + 1;
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);
    }
  }
  return out;
}

std::string FormatV(const char* format, va_list args) {
  char small[512];
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (n < 0) return {};
  if (static_cast<std::size_t>(n) < sizeof small)
    return std::string(small, static_cast<std::size_t>(n));
  std::vector<char> big(static_cast<std::size_t>(n) + 1);
  std::vsnprintf(big.data(), big.size(), format, args);
  return std::string(big.data(), static_cast<std::size_t>(n));
}

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string s = FormatV(format, args);
  va_end(args);
  return s;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::string FormatRuntime(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string s = FormatV(format, args);
  va_end(args);
  return s;
}
#pragma GCC diagnostic pop

bool EqualsNoCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

void KeepLastCharacters(std::string& utf8, std::size_t count) {
  // Walk back from the end over `count` lead bytes (continuation bytes are 10xxxxxx).
  std::size_t at = utf8.size();
  std::size_t kept = 0;
  while (at > 0 && kept < count) {
    --at;
    if ((static_cast<unsigned char>(utf8[at]) & 0xC0) != 0x80) ++kept;
  }
  if (kept == count && at > 0) utf8.erase(0, at);
}

namespace {

// The length of the well-formed UTF-8 sequence at the start of `s`, 0 when there is none.
std::size_t Utf8Length(std::string_view s) {
  const auto b = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char c = b(0);
  std::size_t n = 0;
  unsigned char lo = 0x80, hi = 0xBF;  // the second byte's range
  if (c < 0x80) return 1;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) lo = 0xA0;
    if (c == 0xED) hi = 0x9F;  // no surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  if (s.size() < n || b(1) < lo || b(1) > hi) return 0;
  for (std::size_t i = 2; i < n; ++i) {
    if (b(i) < 0x80 || b(i) > 0xBF) return 0;
  }
  return n;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool PercentDecode(std::string_view in, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < in.size(); ++i) {
    if (in[i] != '%') {
      out += in[i];
      continue;
    }
    if (i + 2 >= in.size()) return false;
    const int hi = HexValue(in[i + 1]);
    const int lo = HexValue(in[i + 2]);
    if (hi < 0 || lo < 0) return false;
    out += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return true;
}

void AppendJsonText(std::string& out, std::string_view s) {
  out += '"';
  while (!s.empty()) {
    const unsigned char c = static_cast<unsigned char>(s[0]);
    const std::size_t n = Utf8Length(s);
    if (n == 0) {
      out += "\\ufffd";
      s.remove_prefix(1);
      continue;
    }
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      char buffer[8];
      std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(c));
      out += buffer;
    } else {
      out.append(s.substr(0, n));
    }
    s.remove_prefix(n);
  }
  out += '"';
}

}  // namespace text
