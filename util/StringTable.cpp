#include "util/StringTable.h"

#include <map>

namespace strings {

namespace {

// The table holds the texts the program shows by id. The link's message ids (19905 to 19913)
// belong to a translated table this build does not carry, so their lookups fall back.
const std::map<unsigned, std::string>& Table() {
  static const std::map<unsigned, std::string> table = {
      {101, "&About TavroTest..."},
  };
  return table;
}

}  // namespace

std::string Load(unsigned id) {
  const auto it = Table().find(id);
  return it == Table().end() ? std::string() : it->second;
}

std::string LoadOr(unsigned id, const char* fallback) {
  std::string s = Load(id);
  return s.empty() ? std::string(fallback) : s;
}

}  // namespace strings
