#include "util/ShellFont.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Utility {

namespace {

// Advances in font units of U+0020..U+007E, then U+00A0..U+00FF, from scripts/font_advances.py.
// DejaVuSans.ttf
constexpr int kSansUnitsPerEm = 2048;
constexpr std::array<std::uint16_t, 191> kSansAdvances = {
    651,  821,  942,  1716, 1303, 1946, 1597, 563,  799,  799,  1024, 1716, 651,  739,  651,  690,
    1303, 1303, 1303, 1303, 1303, 1303, 1303, 1303, 1303, 1303, 690,  690,  1716, 1716, 1716, 1087,
    2048, 1401, 1405, 1430, 1577, 1294, 1178, 1587, 1540, 604,  604,  1343, 1141, 1767, 1532, 1612,
    1235, 1612, 1423, 1300, 1251, 1499, 1401, 2025, 1403, 1251, 1403, 799,  690,  799,  1716, 1024,
    1024, 1255, 1300, 1126, 1300, 1260, 721,  1300, 1298, 569,  569,  1186, 569,  1995, 1298, 1253,
    1300, 1300, 842,  1067, 803,  1298, 1212, 1675, 1212, 1212, 1075, 1303, 690,  1303, 1716, 651,
    821,  1303, 1303, 1303, 1303, 690,  1024, 1024, 2048, 965,  1253, 1716, 739,  2048, 1024, 1024,
    1716, 821,  821,  1024, 1303, 1303, 651,  1024, 821,  965,  1253, 1985, 1985, 1985, 1087, 1401,
    1401, 1401, 1401, 1401, 1401, 1995, 1430, 1294, 1294, 1294, 1294, 604,  604,  604,  604,  1587,
    1532, 1612, 1612, 1612, 1612, 1612, 1716, 1612, 1499, 1499, 1499, 1499, 1251, 1239, 1290, 1255,
    1255, 1255, 1255, 1255, 1255, 2011, 1126, 1260, 1260, 1260, 1260, 569,  569,  569,  569,  1253,
    1298, 1253, 1253, 1253, 1253, 1253, 1716, 1253, 1298, 1298, 1298, 1298, 1212, 1300, 1212,
};
// DejaVuSansMono.ttf
constexpr int kMonoUnitsPerEm = 2048;
// Every character of the table has the same advance.
constexpr std::uint16_t kMonoAdvance = 1233;

constexpr char32_t kInvalid = 0xFFFFFFFF;

// The code point that starts at `text[i]`, and `i` moved past it; kInvalid for a byte that
// does not start a well-formed sequence, which is then skipped alone.
char32_t NextCodePoint(std::string_view text, std::size_t& i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned lead = byte(i);
  int length = 0;
  char32_t cp = 0;
  char32_t least = 0;
  if (lead < 0x80) {
    ++i;
    return lead;
  } else if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, cp = lead & 0x1F, least = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, cp = lead & 0x0F, least = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, cp = lead & 0x07, least = 0x10000;
  } else {
    ++i;
    return kInvalid;
  }
  if (i + length > text.size()) {
    ++i;
    return kInvalid;
  }
  for (int k = 1; k < length; ++k) {
    const unsigned next = byte(i + k);
    if ((next & 0xC0) != 0x80) {
      ++i;
      return kInvalid;
    }
    cp = (cp << 6) | (next & 0x3F);
  }
  // Overlong forms, surrogates and what lies beyond Unicode are not characters.
  if (cp < least || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
    ++i;
    return kInvalid;
  }
  i += length;
  return cp;
}

class AdvanceTableFont final : public TextMeasure {
 public:
  // A fixed-pitch font has no table: `advances` null, `fixedAdvance` for every character of it.
  constexpr AdvanceTableFont(const std::uint16_t* advances, std::uint16_t fixedAdvance,
                             int unitsPerEm)
      : advances_(advances), fixedAdvance_(fixedAdvance), unitsPerEm_(unitsPerEm) {}

  int LineWidth(std::string_view line) const override {
    const std::int64_t space = Advance(U' ');
    const std::int64_t tabStop = kShellTabSize * space;
    std::int64_t total = 0;
    for (std::size_t i = 0; i < line.size();) {
      const char32_t cp = NextCodePoint(line, i);
      if (cp != U'\t') {
        total += Advance(cp);
        continue;
      }
      // Tab stops count from the line's start. Like the browser, a tab that would come closer
      // than half a space to its stop goes on to the next one, so that it always shows.
      std::int64_t next = (total / tabStop + 1) * tabStop;
      if (2 * (next - total) < space) next += tabStop;
      total = next;
    }
    // Rounded up: the browser places glyphs at fractions of a pixel, and the line it draws
    // must never be wider than this.
    const std::int64_t scaled = total * kShellFontPx;
    return static_cast<int>((scaled + unitsPerEm_ - 1) / unitsPerEm_);
  }

  int LineHeight() const override { return kShellLineHeight; }

 private:
  // Characters that the table lacks come from a fallback font; an em is a safe bound for them.
  std::int64_t Advance(char32_t cp) const {
    std::size_t index = 0;
    if (cp >= 0x20 && cp <= 0x7E) {
      index = cp - 0x20;
    } else if (cp >= 0xA0 && cp <= 0xFF) {
      index = cp - 0xA0 + (0x7E - 0x20 + 1);
    } else {
      return unitsPerEm_;
    }
    return advances_ ? advances_[index] : fixedAdvance_;
  }

  const std::uint16_t* advances_;
  std::uint16_t fixedAdvance_;
  int unitsPerEm_;
};

}  // namespace

const TextMeasure& ShellMainFont() {
  static const AdvanceTableFont font(kSansAdvances.data(), 0, kSansUnitsPerEm);
  return font;
}

const TextMeasure& ShellFixedFont() {
  static const AdvanceTableFont font(nullptr, kMonoAdvance, kMonoUnitsPerEm);
  return font;
}

}  // namespace Utility
