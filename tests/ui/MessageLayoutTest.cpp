#include "util/MessageLayout.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "util/MessageInteraction.h"
#include "util/ShellFont.h"

namespace Utility {
namespace {

// Every byte 6 px, tab stops every 48 px, lines 13 px: the metrics test below gives the
// distances that the expected rectangles of the other tests are made of.
class FixedFont : public TextMeasure {
 public:
  int LineWidth(std::string_view line) const override {
    int width = 0;
    for (char c : line)
      width = c == '\t' ? (width / 48 + 1) * 48 : width + 6;
    return width;
  }
  int LineHeight() const override { return 13; }
};

const FixedFont kFont;

MessageLayoutInput Input(std::string text, std::uint64_t flags = 0) {
  MessageLayoutInput in;
  in.flags = flags;
  in.mainFont = &kFont;
  in.textFont = &kFont;
  in.text = std::move(text);
  in.nonClient = {2, 32};
  in.scrollBar = {10, 10};
  in.workArea = {0, 0, 1000, 800};
  return in;
}

std::string Repeat(const std::string& s, int n) {
  std::string out;
  for (int i = 0; i < n; ++i)
    out += s;
  return out;
}

TEST(MessageLayoutArithmetic, MulDivRoundsHalvesAwayFromZero) {
  EXPECT_EQ(MulDiv(7, 6, 4), 11);
  EXPECT_EQ(MulDiv(-7, 6, 4), -11);
  EXPECT_EQ(MulDiv(7, 6, -4), -11);
  EXPECT_EQ(MulDiv(-7, -6, -4), -11);
  EXPECT_EQ(MulDiv(5, 1, 4), 1);
  EXPECT_EQ(MulDiv(100000, 100000, 100000), 100000);  // the product needs 64 bits
  EXPECT_EQ(MulDiv(1, 2, 0), -1);
  EXPECT_EQ(MulDiv(INT_MAX, 2, 1), -1);
}

TEST(MessageLayoutArithmetic, DialogUnitsComeFromTheAverageWidthAndTheLineHeight) {
  const MessageMetrics m = MeasureMetrics(kFont, {2, 32}, 0);
  EXPECT_EQ(m.avgW, 6);  // (52 letters x 6 + 26) / 52
  EXPECT_EQ(m.charH, 13);
  EXPECT_EQ(m.margin, 11);
  EXPECT_EQ(m.buttonGap, 32);
  EXPECT_EQ(m.freeSpace, 32);
  EXPECT_EQ((Size{m.buttonWidth, m.buttonHeight}), (Size{75, 23}));
  EXPECT_EQ(m.progressHeight, 20);
  EXPECT_EQ(m.minContentWidth, 268);
  EXPECT_EQ(m.frame, (Size{24, 54}));
  EXPECT_EQ(MeasureMetrics(kFont, {2, 32}, kMsgWideButtonRow).buttonGap, 11);
}

TEST(MessageLayoutArithmetic, JoinsCountTheGapOnlyBetweenTwoNonZeroSides) {
  const SizeRecord a{{10, 5}, {20, 30}, {15, 20}, 3, 4};
  const SizeRecord b{{0, 8}, {5, 10}, {5, 22}, 2, 1};
  const SizeRecord row = SideBySide(a, b, 7);
  EXPECT_EQ(row.minimum, (Size{10, 8}));
  EXPECT_EQ(row.maximum, (Size{32, 30}));
  EXPECT_EQ(row.ideal, (Size{27, 22}));
  EXPECT_EQ(row.spareWidth, 5);
  EXPECT_EQ(row.spareHeight, 2);  // a's 20 + 4 beyond the joined 22

  const SizeRecord column = Stacked(a, b, 7);
  EXPECT_EQ(column.minimum, (Size{10, 20}));
  EXPECT_EQ(column.ideal, (Size{15, 49}));
  EXPECT_EQ(column.spareHeight, 5);
  EXPECT_EQ(column.spareWidth, 3);
}

TEST(MessageLayoutText, SplitsAtEveryLineBreakAndWrapsAtTheLastBlankThatFits) {
  EXPECT_EQ(SplitLines("a\r\nb\rc\nd"), (std::vector<std::string_view>{"a", "b", "c", "d"}));
  EXPECT_EQ(SplitLines("a\n\n"), (std::vector<std::string_view>{"a", ""}));
  EXPECT_TRUE(SplitLines("").empty());

  EXPECT_EQ(WrapText("the quick brown fox", kFont, 60), "the quick\nbrown fox");
  EXPECT_EQ(WrapText("aaaa    bbbb", kFont, 48), "aaaa\nbbbb");
  EXPECT_EQ(WrapText("aaaaaaaa bb", kFont, 48), "aaaaaaaa\nbb");
  EXPECT_EQ(WrapText("abcdefghijklmnop", kFont, 60), "abcdefghij\nklmnop");  // inside a word
  EXPECT_EQ(WrapText("ab", kFont, 3), "a\nb");
  EXPECT_EQ(WrapText("a b c\r\nd\n", kFont, 600), "a b c\nd\n");
}

TEST(MessageLayoutText, AlignsEachRunOfTabbedLinesColumnByColumn) {
  EXPECT_EQ(AlignColumns("x\tyyyyyyyyy\tz\nxxxxxxxxx\ty\tz\nend\n", kFont),
            "x       \tyyyyyyyyy\tz\nxxxxxxxxx\ty       \tz\nend\n");
  EXPECT_EQ(AlignColumns("a\tb\tc\nlonger name\td", kFont), "a       \tb\tc\nlonger name\td");
  // A line without a tab ends the table.
  EXPECT_EQ(AlignColumns("ab\tc\nplain\nlonger name\td", kFont), "ab\tc\nplain\nlonger name\td");

  // In the proportional shell font the padded columns end on the same pixel.
  const std::string aligned = AlignColumns("i\tA\nWWWWWWWWWW\tB", ShellMainFont());
  const std::vector<std::string_view> lines = SplitLines(aligned);
  ASSERT_EQ(lines.size(), 2u);
  const auto toTab = [](std::string_view line) { return line.substr(0, line.find('\t') + 1); };
  EXPECT_EQ(ShellMainFont().LineWidth(toTab(lines[0])), ShellMainFont().LineWidth(toTab(lines[1])));
}

TEST(MessageLayoutText, MeasuresWidestLinePlusMarginAndWrapsInTheWidthLimit) {
  EXPECT_EQ(MeasureMessage(Input("hello\nworld!!")).text, (Size{48, 26}));
  EXPECT_EQ(MeasureMessage(Input("hello\n")).text, (Size{36, 26}));  // the empty last line
  EXPECT_EQ(MeasureMessage(Input("", kMsgNoText)).text, (Size{}));

  const std::string text = Repeat("abcdefghi ", 11) + "abcdefghi";
  // 246 wide without an icon, wrapped in 240: four words to a line.
  MessageLayoutInput in = Input(text, kMsgWrap);
  EXPECT_EQ(MeasureMessage(in).text, (Size{246, 39}));
  EXPECT_EQ(LayOutMessage(in).shownText, WrapText(text, kFont, 240));
  in.icon = {32, 32};  // the greater of 246 x 3/4 and 246 - 43
  EXPECT_EQ(MeasureMessage(in).text.cx, 203);
  in.buttons = {"OK", "OK", "OK"};  // a row of 353 makes the text 353 - 43 wide
  EXPECT_EQ(MeasureMessage(in).text.cx, 310);
}

TEST(MessageLayoutButtons, MeasuresWidthAndRowHeight) {
  MessageLayoutInput in = Input("", kMsgNoText | MsgButtonNoMinimum(1));
  in.buttons = {"OK", "OK", "A long label here", "Two\nlines"};
  const MessageMeasure m = MeasureMessage(in);
  ASSERT_EQ(m.buttons.size(), 4u);
  EXPECT_EQ(m.buttons[0], (Size{75, 36}));  // the minimum, and the row's greatest height
  EXPECT_EQ(m.buttons[1], (Size{36, 36}));  // no minimum: the label plus 4 avgW
  EXPECT_EQ(m.buttons[2], (Size{126, 36}));
  EXPECT_EQ(m.buttons[3], (Size{75, 36}));  // two lines: 26 + 23 - 13
  EXPECT_EQ(m.buttonRow, (Size{312 + 3 * 32 + 2 * 32, 36}));
}

TEST(MessageLayoutButtons, FreePlacesAndTheWideRowMoveTheButtons) {
  MessageLayoutInput in = Input("", kMsgNoText | MsgFreeSpace(1));
  in.buttons = {"OK", "Cancel"};
  EXPECT_EQ(MeasureMessage(in).buttonRow.cx, 278);
  EXPECT_EQ(LayOutMessage(in).buttons, (std::vector<Rect>{{43, 11, 118, 34}, {182, 11, 257, 34}}));
  // A wide row spans the area; without free places its spare width goes in front.
  in.flags = kMsgNoText | kMsgWideButtonRow;
  EXPECT_EQ(MeasureMessage(in).buttonRow.cx, 161);
  EXPECT_EQ(LayOutMessage(in).buttons, (std::vector<Rect>{{96, 11, 171, 34}, {182, 11, 257, 34}}));
  in.flags |= MsgFreeSpace(0) | MsgFreeSpace(2);  // 85 spare: 42 in front, 43 behind
  EXPECT_EQ(LayOutMessage(in).buttons, (std::vector<Rect>{{53, 11, 128, 34}, {139, 11, 214, 34}}));
}

TEST(MessageLayoutButtons, HiddenButtonsKeepTheirPlace) {
  MessageLayoutInput in = Input("hello");
  in.buttons = {"Yes", "No", "Cancel"};
  const MessageLayout shown = LayOutMessage(in);
  in.flags |= MsgButtonHidden(0) | MsgButtonHidden(2);
  EXPECT_EQ(LayOutMessage(in).buttons, shown.buttons);
  EXPECT_EQ(LayOutMessage(in).window, shown.window);
}

// "hello" is a 36 x 13 text block; the minimum width makes the window 270 x 67.
TEST(MessageLayoutSizing, CentresOrAlignsInTheWorkArea) {
  const MessageLayout layout = LayOutMessage(Input("hello"));
  EXPECT_EQ(layout.text, (Rect{11, 11, 257, 24}));
  EXPECT_EQ(layout.minTrack, (Size{40, 64}));
  EXPECT_EQ(layout.maxTrack, (Size{270, 77}));

  struct Case {
    Rect area;
    std::uint64_t flags;
    Rect window;
  };
  const std::uint64_t all = kMsgAlignLeft | kMsgAlignRight | kMsgAlignTop | kMsgAlignBottom;
  for (const Case& c : {
           Case{{0, 0, 1000, 800}, 0, {365, 366, 635, 433}},
           // Rounded up only for an odd area and an even window; opposite flags mean neither.
           Case{{0, 0, 1001, 800}, 0, {366, 366, 636, 433}},
           Case{{0, 0, 1001, 800}, all, {366, 366, 636, 433}},
           Case{{0, 0, 1000, 800}, kMsgAlignLeft | kMsgAlignTop, {0, 0, 270, 67}},
           Case{{0, 0, 1000, 800}, kMsgAlignRight | kMsgAlignBottom, {730, 733, 1000, 800}},
       }) {
    MessageLayoutInput in = Input("hello", c.flags);
    in.workArea = c.area;
    EXPECT_EQ(LayOutMessage(in).window, c.window) << c.flags << " in " << c.area.right;
  }
}

TEST(MessageLayoutSizing, TooLongOrWideTextTakesTheAreaWithAScrollBar) {
  const MessageLayout tall = LayOutMessage(Input(Repeat("line\n", 99) + "line"));
  EXPECT_EQ(tall.window, (Rect{365, 0, 635, 800}));
  EXPECT_EQ(tall.text, (Rect{11, 11, 257, 757}));
  EXPECT_TRUE(tall.vScroll);
  EXPECT_FALSE(tall.hScroll);

  const MessageLayout wide = LayOutMessage(Input(std::string(300, 'w')));
  EXPECT_EQ(wide.window, (Rect{0, 361, 1000, 438}));
  EXPECT_EQ(wide.text, (Rect{11, 11, 987, 34}));  // 13 + the bar's 10
  EXPECT_TRUE(wide.hScroll);
  EXPECT_FALSE(wide.vScroll);
}

TEST(MessageLayoutSizing, ReplacementCentresOnTheCurrentWindowAndKeepsTheUsersWidth) {
  MessageLayoutInput in = Input("hello");
  in.replace = true;
  in.current = {100, 100, 400, 200};
  EXPECT_EQ(LayOutMessage(in).window, (Rect{115, 116, 385, 183}));
  in.current = {900, 780, 1000, 800};  // clamped back into the area
  EXPECT_EQ(LayOutMessage(in).window, (Rect{730, 733, 1000, 800}));

  // With a sizing border a window the user made narrower stays so.
  in.flags = kMsgSizingBorder;
  in.current = {100, 100, 300, 150};
  in.currentMaxTrack = {500, 50};  // narrower than its maximum, but as high as it: it grows
  EXPECT_EQ(LayOutMessage(in).window, (Rect{100, 91, 300, 158}));
  in.currentMaxTrack = {200, 50};
  EXPECT_EQ(LayOutMessage(in).window.Width(), 270);
  in.currentMaxTrack = {500, 50};
  in.flags = 0;
  EXPECT_EQ(LayOutMessage(in).window.Width(), 270);
}

TEST(MessageLayoutPlacing, WithoutTextTheIconIsCentredAtTheTop) {
  MessageLayoutInput in = Input("", kMsgNoText);
  in.icon = {32, 32};
  in.buttons = {"OK"};
  const MessageLayout layout = LayOutMessage(in);
  EXPECT_EQ(layout.window.Height(), 66 + 22 + 32);
  EXPECT_EQ(layout.icon, (Rect{118, 11, 150, 43}));
  EXPECT_TRUE(layout.text.Empty());
  EXPECT_EQ(layout.buttons, (std::vector<Rect>{{96, 54, 171, 77}}));

  in.flags = 0;
  in.text = "hello";
  const MessageLayout withText = LayOutMessage(in);
  EXPECT_EQ(withText.icon, (Rect{11, 11, 43, 43}));
  EXPECT_EQ(withText.text.left, 54);
}

TEST(MessageLayoutPlacing, ProgressBarSitsAboveTheButtons) {
  MessageLayoutInput in = Input("hello", kMsgProgressBar);
  in.buttons = {"OK"};
  const MessageLayout layout = LayOutMessage(in);
  EXPECT_EQ(layout.window.Height(), 78 + 54);
  EXPECT_EQ(layout.buttons, (std::vector<Rect>{{96, 66, 171, 89}}));
  EXPECT_EQ(layout.progress, (Rect{11, 35, 257, 55}));
  EXPECT_EQ(layout.text, (Rect{11, 11, 257, 24}));
}

TEST(MessageLayoutPlacing, HorizontalBarCanCallForAVerticalOne) {
  const MessageLayoutInput in = Input(std::string(50, 'w') + "\n" + std::string(50, 'w'));
  const MessageMeasure m = MeasureMessage(in);
  ASSERT_EQ(m.text, (Size{306, 26}));
  MessageLayout layout;
  PlaceControls(in, m, {222, 52}, layout);  // the text gets 200 x 30, of which the bar takes 10
  EXPECT_EQ(layout.text, (Rect{11, 11, 211, 41}));
  EXPECT_TRUE(layout.hScroll);
  EXPECT_TRUE(layout.vScroll);
}

TEST(MessageLayoutMonitor, OverrideSetsTheSizeAndKeepsTheWorkAreaInsets) {
  const Rect monitor{0, 0, 1920, 1080};
  const Rect work{0, 0, 1920, 1040};
  EXPECT_EQ(ApplyMonitorOverride(monitor, work, false, 1024, 768), (Rect{0, 0, 1024, 768}));
  EXPECT_EQ(ApplyMonitorOverride(monitor, work, true, 1024, 768), (Rect{0, 0, 1024, 728}));
  EXPECT_EQ(ApplyMonitorOverride(monitor, work, true, 1280, 0), (Rect{0, 0, 1280, 1040}));
  EXPECT_EQ(ApplyMonitorOverride(monitor, work, true, 0, 0), work);
  EXPECT_EQ(ApplyMonitorOverride({1920, 0, 3840, 1080}, {1920, 0, 3800, 1080}, true, 1024, 0),
            (Rect{1920, 0, 2904, 1080}));
}

TEST(ShellFontTest, MeasuresAdvancesAndTabStopsOfTheShellFonts) {
  const TextMeasure& sans = ShellMainFont();
  const TextMeasure& mono = ShellFixedFont();
  EXPECT_LT(sans.LineWidth("iiii"), sans.LineWidth("MMMM"));
  EXPECT_EQ(mono.LineWidth("iiii"), mono.LineWidth("MMMM"));
  EXPECT_EQ(sans.LineWidth("\xc3\xa9"), sans.LineWidth("e"));  // é, decoded from two bytes
  // Outside the tables, and each byte that is not UTF-8, an em.
  EXPECT_EQ(mono.LineWidth("\xf0\x9f\x98\x80"), kShellFontPx);
  EXPECT_EQ(sans.LineWidth("\xff"), kShellFontPx);
  EXPECT_EQ(sans.LineWidth("\xe6\xbc"), 2 * kShellFontPx);

  EXPECT_EQ(sans.LineWidth("\t"), sans.LineWidth(std::string(kShellTabSize, ' ')));
  EXPECT_EQ(mono.LineWidth("abcdefg\t"), mono.LineWidth("\t"));
  EXPECT_EQ(mono.LineWidth("abcdefgh\t"), mono.LineWidth("\t\t"));
  // Nine i's end within half a space of the first stop, so the tab goes on to the second.
  EXPECT_EQ(sans.LineWidth("iiiiiiiii\t"), sans.LineWidth("\t\t"));
}

}  // namespace
}  // namespace Utility
