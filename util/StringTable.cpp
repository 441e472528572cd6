#include "util/StringTable.h"

#include <map>

namespace strings {

namespace {

// The table holds the texts the program shows by id. The link's message ids (19905 to 19913)
// belong to a translated table this build does not carry, so their lookups fall back.
const std::map<unsigned, std::string>& Table() {
  static const std::map<unsigned, std::string> table = {
      {101, "&About TavroTest..."},
      // Lead-ins of the file access warning, one for each way an open can fail, and its button.
      {19092, "Could not open for reading: "},
      {19093, "Could not open for writing (the file can be read): "},
      {19094, "Could not open for writing or reading: "},
      {36301, "OK"},
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
