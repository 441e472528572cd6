// The non-modal message window as its callers see it: a title, a text, up to eight buttons, some
// flags and an optional icon, shown on the UI thread while the caller, on any thread, keeps a
// thread-safe handle to change the text, drive the progress bar, wait for a result or close it.
//
// Every operation of the handle may be called from any thread. None of them touches the window:
// each queues its work for the UI thread, which runs the window. A caller may wait on the done
// event, but never on the UI thread, which must stay free to run the window.
//
// Results: a button's index, -1 for Close and for "no result yet", -2 for the close box (or
// Escape), -3 when the window was destroyed by other means (its host went away).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Clock.h"

namespace Utility {

// --- Flags (64 bits) -------------------------------------------------------------------------
// The text takes the focus and can be selected; without it the text cannot be focused, a right
// click on it does nothing and the pointer over it stays the arrow.
inline constexpr std::uint64_t kMsgSelectableText = 0x1;
inline constexpr std::uint64_t kMsgFixedFont = 0x2;     // the text in the fixed-pitch font
inline constexpr std::uint64_t kMsgSizingBorder = 0x4;  // the user can resize the window
inline constexpr std::uint64_t kMsgSystemMenu = 0x8;    // a close box in the caption
inline constexpr std::uint64_t kMsgProgressBar = 0x10;  // a bar of range 0 to 200
// Alignment in the work area; left with right (or top with bottom) means neither.
inline constexpr std::uint64_t kMsgAlignLeft = 0x20;
inline constexpr std::uint64_t kMsgAlignRight = 0x40;
inline constexpr std::uint64_t kMsgAlignTop = 0x80;
inline constexpr std::uint64_t kMsgAlignBottom = 0x100;
inline constexpr std::uint64_t kMsgNoText = 0x200;  // set by CreateMessage when the text is empty
// The window owns its icon. Icons are shared records here, so the bit changes nothing.
inline constexpr std::uint64_t kMsgOwnsIcon = 0x400;
// The gap between buttons is the margin, and the button row spans the whole width.
inline constexpr std::uint64_t kMsgWideButtonRow = 0x800;
// A button reports its click (pulsing the done event) without ending the message.
inline constexpr std::uint64_t kMsgKeepOpen = 0x1000;
inline constexpr std::uint64_t kMsgWrap = 0x2000;          // long lines of the text wrap
inline constexpr std::uint64_t kMsgAlignColumns = 0x4000;  // tab-separated columns line up
// The first visible button takes the focus and is drawn as the default button.
inline constexpr std::uint64_t kMsgDialogKeys = 0x8000;
// The main window takes no input until the message ends.
inline constexpr std::uint64_t kMsgDisableMain = 0x10000;
// Escape closes (result -2), Enter presses the current button, Left and Right move between the
// buttons.
inline constexpr std::uint64_t kMsgKeyboard = 0x20000;

// Per-button bits, by a button's index (0 to 7) or a place in the row (0 to the button count;
// the last place is behind the last button).
constexpr std::uint64_t MsgButtonHidden(int index) {
  return std::uint64_t{0x40000} << index;
}
constexpr std::uint64_t MsgFreeSpace(int place) {  // free space goes in front of that place
  return std::uint64_t{0x4000000} << place;
}
constexpr std::uint64_t MsgButtonNoMinimum(int index) {
  return std::uint64_t{0x800000000} << index;
}
// An image button. This build has no image buttons: the bit is ignored and the value is text.
constexpr std::uint64_t MsgButtonImage(int index) {
  return std::uint64_t{0x80000000000} << index;
}

inline constexpr int kMsgMaxButtons = 8;
inline constexpr int kMsgProgressMax = 200;

// --- Values ------------------------------------------------------------------------------------

// A title, text or button value: a string id (looked up in strings::Load) or a text. Id 0 is the
// empty value: an empty title or text, and a button that is left out.
struct TextOrId {
  TextOrId(unsigned stringId = 0) : id(stringId) {}
  TextOrId(int stringId) : id(stringId > 0 ? static_cast<unsigned>(stringId) : 0) {}
  TextOrId(const char* value) : text(value ? value : ""), isText(value != nullptr) {}
  TextOrId(std::string value) : text(std::move(value)), isText(true) {}

  // The text, or the string table's text for the id ("" for 0 and for ids the table lacks).
  std::string Resolve() const;
  bool IsNone() const { return !isText && id == 0; }

  unsigned id = 0;
  std::string text;
  bool isText = false;
};

// An icon as the shell draws it: a kind of sign ("information", "warning", "error",
// "question") in a box of the given size in pixels.
struct MessageIcon {
  std::string kind;
  int width = 32;
  int height = 32;
};
using Icon = std::shared_ptr<const MessageIcon>;  // null: no icon

// --- The handle --------------------------------------------------------------------------------

class MessageInteractionIFace;
using DoneCallback = void (*)(std::shared_ptr<MessageInteractionIFace> interaction, void* argument);

class MessageInteractionIFace {
 public:
  virtual ~MessageInteractionIFace() = default;
  // Closes the window; the result becomes -1.
  virtual void Close() = 0;
  // Index -1010 to 9 names window control 1010 + index; only the buttons (0 to 7) can be
  // enabled or disabled here, any other index of that range does nothing.
  virtual void EnableButton(int index, bool enable) = 0;
  // The bar's position is fraction x 200, cut to an integer and kept in 0 to 200.
  virtual void SetProgress(double fraction) = 0;
  // Makes a pendant button act as button `index`. Nothing delivers pendant buttons to a message
  // window in this program; the binding is kept for a host that does.
  virtual void BindPendantButton(int button, int index) = 0;
  // Set when the message is over; pulsed for a click that leaves it open (kMsgKeepOpen).
  virtual platform::Event& GetDoneEvent() = 0;
  virtual int GetResult() = 0;
  // The last result, which is then reset to -1.
  virtual int TakeResult() = 0;
  virtual void SetTitle(const std::string& title) = 0;
  // A changed text is measured and the window placed again; the alignment bits of the two flag
  // words (kMsgAlignLeft/Right in the first, kMsgAlignTop/Bottom in the second) take the place of
  // the window's own for that placement. An equal text changes nothing.
  virtual void SetText(const std::string& text, std::uint64_t hFlags, std::uint64_t vFlags) = 0;
  // Replaces the icon, and lays out and places the window again if its size differs.
  virtual void SetIcon(Icon icon, std::uint64_t hFlags, std::uint64_t vFlags) = 0;
  // A non-zero state shows button `index` (below 8) pressed.
  virtual void SetButtonCheck(int index, int state) = 0;
  virtual int GetButtonCheck(int index) = 0;  // 0 for an index of 8 or more
  // Scrolls the text so that line `line` (from 0) can be seen.
  virtual void ScrollToLine(int line) = 0;
  // Only kMsgKeepOpen of the mask is applied.
  virtual void SetFlags(std::uint64_t mask, std::uint64_t value) = 0;
  // Runs `callback` once, on the UI thread, when the message is over (at once through the UI
  // thread's queue if it already is). A null callback removes one that is stored.
  virtual void SetDoneCallback(DoneCallback callback, void* argument) = 0;
};

// The common base of what can be attached to a message window.
class MsgIntrBase {
 public:
  virtual ~MsgIntrBase() = default;
};

// Builds a message and asks the UI thread to show it. `controls` are attached extras that this
// program never uses; they are ignored. A button value that IsNone is left out. Without a host
// (SetMessageWindowHost) the handle is made but no window ever shows.
std::shared_ptr<MessageInteractionIFace> CreateMessage(
    const TextOrId& title, const TextOrId& text,
    const std::vector<std::shared_ptr<MsgIntrBase>>& controls, std::uint64_t flags, Icon icon,
    const std::array<TextOrId, 8>& buttons);

// Calls `fn` on the UI thread. Unless `direct`, with `send` the call happens at once on the UI
// thread, and from another thread it is posted and waited for; without `send` it is posted.
// With `direct` and `send` it happens only on the UI thread, at once. False when it was not and
// will not be called (no host, an ended loop, `direct` and `send` on another thread).
bool RunOnUiThread(std::function<void()> fn, bool send, bool direct);

}  // namespace Utility
