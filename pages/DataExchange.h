// The exchange from a page's fields to its document: each field bound to an element by id, its
// text made by the field's type. Nothing is read back; a page's fields are the truth and the
// document shows them.
#pragma once

#include <cstdint>
#include <string>

#include "ui/Document.h"

// The texts of the field types. A float takes the short form with 6 significant digits ("%.6g":
// 1.81 for 1.81f, 1e+06 for a million), the integers plain decimal.
std::string FieldText(float value);
std::string FieldText(std::int16_t value);
std::string FieldText(std::int32_t value);
std::string FieldText(std::uint32_t value);

class DataExchange {
 public:
  explicit DataExchange(ui::Document& doc) : doc_(doc) {}

  // Text inputs: the element's value.
  void Text(const std::string& id, const std::string& value) { doc_.SetText(id, value); }
  void Text(const std::string& id, float value) { doc_.SetText(id, FieldText(value)); }
  void Text(const std::string& id, std::int16_t value) { doc_.SetText(id, FieldText(value)); }
  void Text(const std::string& id, std::int32_t value) { doc_.SetText(id, FieldText(value)); }
  void Text(const std::string& id, std::uint32_t value) { doc_.SetText(id, FieldText(value)); }
  // Check boxes: ticked or not.
  void Check(const std::string& id, bool value) { doc_.SetChecked(id, value); }

 private:
  ui::Document& doc_;
};

// The id of an element of index `index` in a numbered row: "<stem>%u", or the bare stem for
// index 0 where the family leaves the first one unnumbered.
std::string IndexedId(const std::string& stem, unsigned index, bool bareFirst);
