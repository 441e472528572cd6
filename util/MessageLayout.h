// The arithmetic of the message window's layout, as pure functions: from the fonts, the flags,
// the text, the buttons, the icon, the frame and the work area to the window's rectangle, its
// tracking sizes and the rectangles of its controls. Nothing here draws or keeps state.
//
// All distances come from the main font. avgW is the width of the 52 letters A-Z a-z plus 26,
// over 52; charH is the font's line height. A horizontal dialog unit n is MulDiv(n, avgW, 4) and
// a vertical one MulDiv(n, charH, 8) pixels.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Utility {

struct Size {
  int cx = 0;
  int cy = 0;
  bool operator==(const Size&) const = default;
};

struct Rect {
  int left = 0;
  int top = 0;
  int right = 0;
  int bottom = 0;
  int Width() const { return right - left; }
  int Height() const { return bottom - top; }
  bool Empty() const { return right <= left || bottom <= top; }
  bool operator==(const Rect&) const = default;
};

// number x numerator / denominator, rounded to the nearest integer with halves away from zero,
// from a 64-bit product; -1 when the denominator is 0 or the result does not fit in an int.
int MulDiv(int number, int numerator, int denominator);

// How a font measures one line of text (no line breaks in it), with tabs expanded to the font's
// tab stops, in whole pixels that the drawn line never exceeds.
class TextMeasure {
 public:
  virtual ~TextMeasure() = default;
  virtual int LineWidth(std::string_view line) const = 0;
  virtual int LineHeight() const = 0;
};

// A text's lines: split at CR LF, CR or LF.
std::vector<std::string_view> SplitLines(std::string_view text);

// Breaks `text` into lines no wider than `width` in `font`: at the last space or tab that fits,
// or inside a word that is wider than the whole line. Each line break of the result is "\n".
std::string WrapText(std::string_view text, const TextMeasure& font, int width);

// Lines up tab-separated columns: in every run of lines with more than one cell, spaces go in
// front of the tab of each cell that is narrower (with its tab expanded) than the column's widest.
std::string AlignColumns(const std::string& text, const TextMeasure& font);

// --- Size records --------------------------------------------------------------------------------

// A block's minimum, maximum and ideal size, and the room it would take beyond the ideal when it
// is cut (the scroll bars' room).
struct SizeRecord {
  Size minimum;
  Size maximum;
  Size ideal;
  int spareWidth = 0;
  int spareHeight = 0;
};

// Side by side: widths add (with the gap where both widths are non-zero), heights take the
// greater; spare widths add, and the spare height is what the taller of (ideal + spare) of the
// two exceeds the joined ideal height by.
SizeRecord SideBySide(const SizeRecord& a, const SizeRecord& b, int gap);
// One above the other: the same with width and height exchanged.
SizeRecord Stacked(const SizeRecord& a, const SizeRecord& b, int gap);

// --- The layout --------------------------------------------------------------------------------

struct MessageLayoutInput {
  std::uint64_t flags = 0;  // the window's flags; kMsgNoText when it has no text control
  const TextMeasure* mainFont = nullptr;  // buttons and all distances
  const TextMeasure* textFont = nullptr;  // the text (the fixed font with kMsgFixedFont)
  std::string text;
  std::vector<std::string> buttons;  // labels; hidden buttons keep their place
  Size icon;                         // {0, 0}: none
  Size nonClient;                    // what the frame adds around the client area
  Size scrollBar;                    // a vertical bar's width, a horizontal bar's height
  Rect workArea;
  // A re-placement (a changed text or icon): the window as it stands, centred on instead of the
  // work area, and the maximum tracking size of the previous layout.
  bool replace = false;
  Rect current;
  Size currentMaxTrack;
};

struct MessageMetrics {
  int avgW = 0;
  int charH = 0;
  int margin = 0;           // 7 horizontal units: around everything and between the blocks
  int buttonGap = 0;        // 21 horizontal units, or the margin with kMsgWideButtonRow
  int freeSpace = 0;        // 21 horizontal units for each free place in the button row
  int buttonWidth = 0;      // 50 horizontal units: the minimum
  int buttonHeight = 0;     // 14 vertical units: the minimum
  int progressHeight = 0;   // 12 vertical units
  int minContentWidth = 0;  // 3 x 21 horizontal units + 2 x (button width + margin)
  Size frame;               // nonClient plus two margins each way
};

MessageMetrics MeasureMetrics(const TextMeasure& mainFont, const Size& nonClient,
                              std::uint64_t flags);

// What the measuring gives, kept for the placing of the controls.
struct MessageMeasure {
  MessageMetrics metrics;
  Size text;  // the measured text ({0, 0} without a text control)
  std::vector<Size> buttons;
  Size buttonRow;
  SizeRecord record;  // the whole content
};

MessageMeasure MeasureMessage(const MessageLayoutInput& in);

struct MessageLayout {
  Rect window;  // in the work area's coordinates
  Size minTrack;
  Size maxTrack;
  // In client coordinates; empty when the window has no such control.
  Rect icon;
  Rect text;
  Rect progress;
  std::vector<Rect> buttons;
  bool vScroll = false;  // the text's scroll bars
  bool hScroll = false;
  std::string shownText;  // the text as its control shows it: wrapped (kMsgWrap) or aligned
  MessageMetrics metrics;
};

// The controls in a client area of `client` size.
void PlaceControls(const MessageLayoutInput& in, const MessageMeasure& m, Size client,
                   MessageLayout& out);

// Measures, sizes and places the window, and places its controls.
MessageLayout LayOutMessage(const MessageLayoutInput& in);

// The work area after the monitor override: a non-zero overrideX makes the right edge the left
// edge plus overrideX, and overrideY the bottom the top plus overrideY. For the work area
// (workArea true) the edge is then drawn in by what the work area lacks from the monitor on that
// side.
Rect ApplyMonitorOverride(const Rect& monitor, const Rect& work, bool workArea, int overrideX,
                          int overrideY);

}  // namespace Utility
