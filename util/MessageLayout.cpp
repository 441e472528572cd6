#include "util/MessageLayout.h"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "util/MessageInteraction.h"

namespace Utility {

namespace {

constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// The free-space bits cover places 0 to 8; the bit above them is button 0's no-minimum bit.
constexpr int kLastFreePlace = 8;

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

bool HasIcon(const MessageLayoutInput& in) {
  return in.icon.cx > 0 && in.icon.cy > 0;
}
bool HasText(const MessageLayoutInput& in) {
  return !(in.flags & kMsgNoText);
}

bool IsFreePlace(std::uint64_t flags, int place) {
  return place <= kLastFreePlace && (flags & MsgFreeSpace(place)) != 0;
}

bool HasNoMinimum(std::uint64_t flags, int index) {
  return index < kMsgMaxButtons && (flags & MsgButtonNoMinimum(index)) != 0;
}

int FloorHalf(int n) {
  return n >= 0 ? n / 2 : -((1 - n) / 2);
}

// Where a length starts when centred in `room`: a half pixel goes to the right where the room is
// odd and the length even, and to the left the other way round.
int CentreOffset(int room, int length) {
  return FloorHalf(room - length) + ((room % 2 != 0 && length % 2 == 0) ? 1 : 0);
}

// Like SplitLines, but a break at the very end gives a last, empty piece, so that joining the
// pieces with "\n" gives the text back with its line breaks made uniform.
std::vector<std::string_view> Paragraphs(std::string_view text) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r' && text[i] != '\n') continue;
    pieces.push_back(text.substr(start, i - start));
    if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
    start = i + 1;
  }
  pieces.push_back(text.substr(start));
  return pieces;
}

// The longest prefix of `line` (in bytes, on a character boundary) that fits in `width`.
std::size_t LongestFit(std::string_view line, const TextMeasure& font, int width) {
  std::vector<std::size_t> ends;  // the end of each character
  for (std::size_t i = 1; i <= line.size(); ++i) {
    if (i == line.size() || (static_cast<unsigned char>(line[i]) & 0xC0) != 0x80) ends.push_back(i);
  }
  // Widths only grow as characters are added, so the fitting prefixes come first.
  std::size_t lo = 0;
  std::size_t hi = ends.size();
  while (lo < hi) {
    const std::size_t mid = (lo + hi) / 2;
    if (font.LineWidth(line.substr(0, ends[mid])) <= width) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return lo == 0 ? 0 : ends[lo - 1];
}

std::size_t FirstCharEnd(std::string_view line) {
  std::size_t i = 1;
  while (i < line.size() && (static_cast<unsigned char>(line[i]) & 0xC0) == 0x80)
    ++i;
  return std::min(i, line.size());
}

void WrapParagraph(std::string_view line, const TextMeasure& font, int width, std::string& out) {
  while (!line.empty() && font.LineWidth(line) > width) {
    const std::size_t fit = LongestFit(line, font, width);
    // The last blank that fits, or the one just behind what fits. The blanks at the break
    // belong to neither line; a run of blanks at the very start is indentation, not a break.
    std::size_t end = 0;
    std::size_t next = 0;
    for (std::size_t s = std::min(fit, line.size() - 1); s > 0; --s) {
      if (!IsBlank(line[s])) continue;
      end = s;
      while (end > 0 && IsBlank(line[end - 1]))
        --end;
      next = s;
      break;
    }
    if (end == 0) {
      // A word wider than the line breaks where it stops fitting, after at least one character.
      next = std::max(fit, FirstCharEnd(line));
      out.append(line.substr(0, next));
      line.remove_prefix(next);
      if (line.empty()) return;
    } else {
      out.append(line.substr(0, end));
      line.remove_prefix(next);
      while (!line.empty() && IsBlank(line.front()))
        line.remove_prefix(1);
      if (line.empty()) return;
    }
    out += '\n';
  }
  out.append(line);
}

// Width of the widest line and height of all lines; an empty text still shows one line.
Size MeasureLines(std::string_view text, const TextMeasure& font) {
  const std::vector<std::string_view> lines = SplitLines(text);
  int width = 0;
  for (std::string_view line : lines)
    width = std::max(width, font.LineWidth(line));
  const int count = std::max<int>(static_cast<int>(lines.size()), 1);
  return {width, count * font.LineHeight()};
}

// An edit control shows the empty line behind a final line feed, which a plain split drops.
Size MeasureShownText(const std::string& text, const TextMeasure& font) {
  if (!text.empty() && text.back() == '\n') return MeasureLines(text + " ", font);
  return MeasureLines(text, font);
}

const TextMeasure& TextFont(const MessageLayoutInput& in) {
  return in.textFont ? *in.textFont : *in.mainFont;
}

// Every button is measured, hidden ones too: a button that is shown later takes the place that
// was kept for it, and the row doesn't shift when buttons come and go.
void MeasureButtons(const MessageLayoutInput& in, MessageMeasure& m) {
  const MessageMetrics& mm = m.metrics;
  const int count = static_cast<int>(in.buttons.size());
  int height = 0;
  int width = 0;
  int places = 0;
  for (int i = 0; i < count; ++i) {
    // Image buttons are drawn as their text in this build, so every button is a text button.
    const Size label = MeasureLines(in.buttons[i], *in.mainFont);
    const int minimum = HasNoMinimum(in.flags, i) ? 0 : mm.buttonWidth;
    const Size size{std::max(minimum, label.cx + 4 * mm.avgW),
                    std::max(mm.buttonHeight, label.cy + mm.buttonHeight - mm.charH)};
    m.buttons.push_back(size);
    height = std::max(height, size.cy);
    width += size.cx;
  }
  for (Size& size : m.buttons)
    size.cy = height;
  if (count == 0) return;
  for (int place = 0; place <= count; ++place)
    places += IsFreePlace(in.flags, place) ? 1 : 0;
  width += (count - 1) * mm.buttonGap + places * mm.freeSpace;
  if (!(in.flags & kMsgWideButtonRow)) width += 2 * mm.buttonGap;
  m.buttonRow = {width, height};
}

// The text as its control shows it, and its size.
Size MeasureText(const MessageLayoutInput& in, const MessageMeasure& m, std::string& shown) {
  shown.clear();
  if (!HasText(in)) return {};
  const MessageMetrics& mm = m.metrics;
  const TextMeasure& font = TextFont(in);
  shown = (in.flags & kMsgAlignColumns) ? AlignColumns(in.text, font) : in.text;
  if (!(in.flags & kMsgWrap)) {
    // The avgW is the control's right margin, which keeps the last character off the border.
    Size size = MeasureShownText(shown, font);
    size.cx += mm.avgW;
    return size;
  }
  // A wrapping text is as wide as the narrowest window would make it, unless the buttons make
  // the window wider anyway; next to an icon it keeps at least three quarters of that width.
  int limit = mm.minContentWidth - 2 * mm.margin;
  if (HasIcon(in)) {
    const int beside = in.icon.cx + mm.margin;
    limit = std::max(limit * 3 / 4, limit - beside);
    limit = std::max(limit, m.buttonRow.cx - beside);
  } else {
    limit = std::max(limit, m.buttonRow.cx);
  }
  shown = WrapText(shown, font, limit - mm.avgW);
  return {limit, MeasureShownText(shown, font).cy};
}

SizeRecord Fixed(Size size) {
  return {size, size, size, 0, 0};
}

Size Transposed(Size s) {
  return {s.cy, s.cx};
}

SizeRecord Transposed(const SizeRecord& r) {
  return {Transposed(r.minimum), Transposed(r.maximum), Transposed(r.ideal), r.spareHeight,
          r.spareWidth};
}

MessageMeasure Measure(const MessageLayoutInput& in, std::string& shown) {
  MessageMeasure m;
  m.metrics = MeasureMetrics(*in.mainFont, in.nonClient, in.flags);
  const MessageMetrics& mm = m.metrics;
  MeasureButtons(in, m);
  m.text = MeasureText(in, m, shown);

  const SizeRecord icon = HasIcon(in) ? Fixed(in.icon) : SizeRecord{};
  SizeRecord text;
  if (HasText(in)) {
    const Size bar = in.scrollBar;
    text = {{bar.cx + mm.avgW, bar.cy},
            {m.text.cx + bar.cx, m.text.cy + bar.cy},
            m.text,
            bar.cx,
            bar.cy};
  }
  const SizeRecord progress =
      (in.flags & kMsgProgressBar) ? Fixed({0, mm.progressHeight}) : SizeRecord{};
  const SizeRecord top =
      HasText(in) ? SideBySide(icon, text, mm.margin) : Stacked(icon, text, mm.margin);
  m.record = Stacked(Stacked(top, progress, mm.margin), Fixed(m.buttonRow), mm.margin);
  return m;
}

void PlaceButtons(const MessageLayoutInput& in, const MessageMeasure& m, const Rect& area,
                  MessageLayout& out) {
  const MessageMetrics& mm = m.metrics;
  const int count = static_cast<int>(m.buttons.size());
  const bool wide = (in.flags & kMsgWideButtonRow) != 0;
  std::vector<bool> free(count + 1);
  int places = 0;
  int fixed = (count - 1) * mm.buttonGap + (wide ? 0 : 2 * mm.buttonGap);
  for (int place = 0; place <= count; ++place) {
    free[place] = IsFreePlace(in.flags, place);
    places += free[place] ? 1 : 0;
  }
  for (const Size& size : m.buttons)
    fixed += size.cx;
  // A full-width row needs somewhere to put the width its buttons don't use.
  if (wide && places == 0) {
    free[0] = true;
    places = 1;
  }
  const int rowWidth = wide ? std::max(area.Width(), fixed) : m.buttonRow.cx;
  int spare = std::max(0, rowWidth - fixed);
  int x = area.left + CentreOffset(area.Width(), rowWidth) + (wide ? 0 : mm.buttonGap);
  for (int place = 0; place <= count; ++place) {
    if (free[place]) {
      const int share = spare / places;
      x += share;
      spare -= share;
      --places;
    }
    if (place == count) break;
    const Size size = m.buttons[place];
    out.buttons.push_back({x, area.bottom - size.cy, x + size.cx, area.bottom});
    x += size.cx + mm.buttonGap;
  }
}

}  // namespace

int MulDiv(int number, int numerator, int denominator) {
  if (denominator == 0) return -1;
  const std::int64_t product = std::int64_t{number} * numerator;
  const std::int64_t divisor = denominator;
  std::int64_t quotient = product / divisor;
  const std::int64_t remainder = product % divisor;
  const std::int64_t absRemainder = remainder < 0 ? -remainder : remainder;
  const std::int64_t absDivisor = divisor < 0 ? -divisor : divisor;
  if (2 * absRemainder >= absDivisor) quotient += ((product < 0) != (divisor < 0)) ? -1 : 1;
  if (quotient < std::numeric_limits<int>::min() || quotient > std::numeric_limits<int>::max())
    return -1;
  return static_cast<int>(quotient);
}

std::vector<std::string_view> SplitLines(std::string_view text) {
  std::vector<std::string_view> lines = Paragraphs(text);
  // A line break ends its line; only a break at the very end would leave an empty piece there.
  if (lines.back().empty()) lines.pop_back();
  return lines;
}

std::string WrapText(std::string_view text, const TextMeasure& font, int width) {
  std::string out;
  bool first = true;
  for (std::string_view paragraph : Paragraphs(text)) {
    if (!first) out += '\n';
    first = false;
    WrapParagraph(paragraph, font, width, out);
  }
  return out;
}

std::string AlignColumns(const std::string& text, const TextMeasure& font) {
  // Lines at LF, and cells at tabs; every cell but a line's last ends with its tab.
  std::vector<std::vector<std::string>> lines;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    std::vector<std::string> cells;
    std::size_t cell = start;
    for (std::size_t tab = text.find('\t', cell); tab < end; tab = text.find('\t', cell)) {
      cells.push_back(text.substr(cell, tab + 1 - cell));
      cell = tab + 1;
    }
    cells.push_back(text.substr(cell, end - cell));
    lines.push_back(std::move(cells));
    if (end == text.size()) break;
    start = end + 1;
  }

  // A cell is measured alone, as a line of its own. Once the columns before it are aligned it
  // starts on the same tab stop in every line of the table, and tab stops repeat, so that is the
  // width it takes where it is drawn.
  const auto alignTable = [&](std::size_t first, std::size_t last) {
    for (std::size_t column = 0;; ++column) {
      int widest = -1;
      for (std::size_t i = first; i < last; ++i) {
        if (lines[i].size() > column + 1)
          widest = std::max(widest, font.LineWidth(lines[i][column]));
      }
      if (widest < 0) return;
      for (std::size_t i = first; i < last; ++i) {
        if (lines[i].size() <= column + 1) continue;
        std::string& cell = lines[i][column];
        // The bound only stops a font whose spaces take no room.
        for (int n = 0; n <= widest && font.LineWidth(cell) < widest; ++n)
          cell.insert(cell.size() - 1, 1, ' ');
      }
    }
  };
  for (std::size_t i = 0; i < lines.size();) {
    std::size_t j = i;
    while (j < lines.size() && lines[j].size() > 1)
      ++j;
    if (j > i) alignTable(i, j);
    i = j + 1;
  }

  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) out += '\n';
    for (const std::string& cell : lines[i])
      out += cell;
  }
  return out;
}

SizeRecord SideBySide(const SizeRecord& a, const SizeRecord& b, int gap) {
  const auto join = [gap](Size x, Size y) {
    return Size{x.cx + y.cx + (x.cx != 0 && y.cx != 0 ? gap : 0), std::max(x.cy, y.cy)};
  };
  SizeRecord r;
  r.minimum = join(a.minimum, b.minimum);
  r.maximum = join(a.maximum, b.maximum);
  r.ideal = join(a.ideal, b.ideal);
  r.spareWidth = a.spareWidth + b.spareWidth;
  r.spareHeight =
      std::max(0, std::max(a.ideal.cy + a.spareHeight, b.ideal.cy + b.spareHeight) - r.ideal.cy);
  return r;
}

SizeRecord Stacked(const SizeRecord& a, const SizeRecord& b, int gap) {
  return Transposed(SideBySide(Transposed(a), Transposed(b), gap));
}

MessageMetrics MeasureMetrics(const TextMeasure& mainFont, const Size& nonClient,
                              std::uint64_t flags) {
  MessageMetrics mm;
  mm.avgW = (mainFont.LineWidth(kLetters) + 26) / 52;
  mm.charH = mainFont.LineHeight();
  const auto h = [&](int n) { return MulDiv(n, mm.avgW, 4); };
  const auto v = [&](int n) { return MulDiv(n, mm.charH, 8); };
  mm.margin = h(7);
  mm.buttonGap = (flags & kMsgWideButtonRow) ? mm.margin : h(21);
  mm.freeSpace = h(21);
  mm.buttonWidth = h(50);
  mm.buttonHeight = v(14);
  mm.progressHeight = v(12);
  mm.minContentWidth = 3 * h(21) + 2 * (mm.buttonWidth + mm.margin);
  mm.frame = {nonClient.cx + 2 * mm.margin, nonClient.cy + 2 * mm.margin};
  return mm;
}

MessageMeasure MeasureMessage(const MessageLayoutInput& in) {
  std::string shown;
  return Measure(in, shown);
}

void PlaceControls(const MessageLayoutInput& in, const MessageMeasure& m, Size client,
                   MessageLayout& out) {
  const MessageMetrics& mm = m.metrics;
  out.metrics = mm;
  out.icon = out.text = out.progress = Rect{};
  out.buttons.clear();
  out.vScroll = out.hScroll = false;

  Rect area{mm.margin, mm.margin, client.cx - mm.margin, client.cy - mm.margin};
  if (!m.buttons.empty()) {
    PlaceButtons(in, m, area, out);
    area.bottom -= m.buttonRow.cy + mm.margin;
  }
  if (in.flags & kMsgProgressBar) {
    out.progress = {area.left, area.bottom - mm.progressHeight, area.right, area.bottom};
    area.bottom -= mm.progressHeight + mm.margin;
  }

  int textLeft = area.left;
  if (HasIcon(in)) {
    const int left = HasText(in) ? area.left : area.left + CentreOffset(area.Width(), in.icon.cx);
    out.icon = {left, area.top, left + in.icon.cx, area.top + in.icon.cy};
    textLeft = out.icon.right + mm.margin;
  }
  if (!HasText(in)) return;

  const int width = area.right - textLeft;
  int height = m.text.cy;
  if (width < m.text.cx) height += in.scrollBar.cy;  // room for the horizontal bar
  height = std::max(0, std::min(height, area.Height()));
  out.text = {textLeft, area.top, area.right, area.top + height};

  // Each bar takes room from the other direction, so a horizontal bar can call for a vertical
  // one that was not needed before it.
  int roomW = out.text.Width();
  int roomH = out.text.Height();
  out.vScroll = roomH < m.text.cy;
  if (out.vScroll) roomW -= in.scrollBar.cx;
  out.hScroll = roomW < m.text.cx;
  if (out.hScroll) roomH -= in.scrollBar.cy;
  if (roomH < m.text.cy) out.vScroll = true;
}

MessageLayout LayOutMessage(const MessageLayoutInput& in) {
  MessageLayout out;
  const MessageMeasure m = Measure(in, out.shownText);
  const MessageMetrics& mm = m.metrics;
  const SizeRecord& r = m.record;
  const Rect& area = in.workArea;
  const int roomW = area.Width() - mm.frame.cx;
  const int roomH = area.Height() - mm.frame.cy;

  // A dimension that is cut gets scroll bars, which take room in the other one.
  int w = std::min(r.ideal.cx, roomW);
  int h = std::min(r.ideal.cy, roomH);
  if (w < r.ideal.cx) h = std::min(h + r.spareHeight, roomH);
  if (h < r.ideal.cy) w = std::min(w + r.spareWidth, roomW);
  w = std::max(w, mm.minContentWidth - 2 * mm.margin);
  Size size{w + mm.frame.cx, h + mm.frame.cy};

  // A window the user has made smaller keeps to that size when its content changes.
  if (in.replace && (in.flags & kMsgSizingBorder)) {
    if (in.current.Width() < in.currentMaxTrack.cx) size.cx = std::min(size.cx, in.current.Width());
    if (in.current.Height() < in.currentMaxTrack.cy)
      size.cy = std::min(size.cy, in.current.Height());
  }

  const Rect& centre = in.replace ? in.current : area;
  int left = centre.left + CentreOffset(centre.Width(), size.cx);
  int top = centre.top + CentreOffset(centre.Height(), size.cy);
  const std::uint64_t horizontal = in.flags & (kMsgAlignLeft | kMsgAlignRight);
  const std::uint64_t vertical = in.flags & (kMsgAlignTop | kMsgAlignBottom);
  if (horizontal == kMsgAlignLeft) left = area.left;
  if (horizontal == kMsgAlignRight) left = area.right - size.cx;
  if (vertical == kMsgAlignTop) top = area.top;
  if (vertical == kMsgAlignBottom) top = area.bottom - size.cy;
  // Into the work area; a window larger than the area keeps its top left corner in it.
  left = std::max(std::min(left, area.right - size.cx), area.left);
  top = std::max(std::min(top, area.bottom - size.cy), area.top);
  out.window = {left, top, left + size.cx, top + size.cy};

  out.minTrack = {std::min(r.minimum.cx + mm.frame.cx, size.cx),
                  std::min(r.minimum.cy + mm.frame.cy, size.cy)};
  out.maxTrack = {std::min(std::max(r.maximum.cx + mm.frame.cx, size.cx), area.Width()),
                  std::min(std::max(r.maximum.cy + mm.frame.cy, size.cy), area.Height())};

  PlaceControls(in, m, {size.cx - in.nonClient.cx, size.cy - in.nonClient.cy}, out);
  return out;
}

Rect ApplyMonitorOverride(const Rect& monitor, const Rect& work, bool workArea, int overrideX,
                          int overrideY) {
  Rect r = workArea ? work : monitor;
  if (overrideX != 0) {
    r.right = r.left + overrideX;
    if (workArea) r.right -= monitor.right - work.right;
  }
  if (overrideY != 0) {
    r.bottom = r.top + overrideY;
    if (workArea) r.bottom -= monitor.bottom - work.bottom;
  }
  return r;
}

}  // namespace Utility
