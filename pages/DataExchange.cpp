#include "pages/DataExchange.h"

#include "util/Text.h"

std::string FieldText(float value) {
  return text::Format("%.6g", static_cast<double>(value));
}
std::string FieldText(std::int16_t value) {
  return text::Format("%d", value);
}
std::string FieldText(std::int32_t value) {
  return text::Format("%d", value);
}
std::string FieldText(std::uint32_t value) {
  return text::Format("%u", value);
}

std::string IndexedId(const std::string& stem, unsigned index, bool bareFirst) {
  if (index == 0 && bareFirst) return stem;
  return stem + text::Format("%u", index);
}
