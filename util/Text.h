// Text helpers. Inside the program text is UTF-8 in std::string; the board's wide-text fields
// and the shared files are UTF-16 (std::u16string).
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

namespace text {

std::string ToUtf8(const std::u16string& wide);
std::u16string ToUtf16(const std::string& utf8);
// Appends the units as the shared files hold them: two bytes each, low byte first.
void AppendUtf16Le(std::string& out, std::u16string_view wide);

// printf into a std::string: the system's message and report formats are C formats and must
// come out exactly as the C library writes them.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string FormatV(const char* format, va_list args) __attribute__((format(printf, 1, 0)));
// The same for a format that is only known at run time (from the string table).
std::string FormatRuntime(const char* format, ...);

// Cuts UTF-8 text to its last `count` characters (code points), never inside one.
void KeepLastCharacters(std::string& utf8, std::size_t count);

// Compares ASCII letters without regard to case.
bool EqualsNoCase(const std::string& a, const std::string& b);

// Decodes the %XX escapes of a URL's path or query into `out`; false on a broken escape.
bool PercentDecode(std::string_view in, std::string& out);

// Appends `s` as a JSON string: quotes, backslashes and control bytes escaped, and each byte that
// is not part of well-formed UTF-8 written as U+FFFD, so the answer is always valid JSON (the
// texts come from files and names any local user can write).
void AppendJsonText(std::string& out, std::string_view s);

}  // namespace text
