// The program's string table: texts by numeric id. A lookup of an id the table lacks gives an
// empty string, and callers fall back to their literal text.
#pragma once

#include <string>

namespace strings {

std::string Load(unsigned id);
// The table's text for `id`, or `fallback` when the table has none.
std::string LoadOr(unsigned id, const char* fallback);

}  // namespace strings
