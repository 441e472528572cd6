// What the shell draws besides the pages: the contents of the start dialogs (a radio group with
// OK and Cancel) and of the non-modal message window. The window (ui/Window.h) opens them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ui {

// A modal dialog with some text, one radio group and OK / Cancel.
struct ChoiceDialog {
  std::string title;               // caption
  std::vector<std::string> texts;  // paragraphs above the group; line ends are kept
  std::string group;               // the group box's label
  std::vector<std::string> options;
  int initial = 0;  // the option ticked when the dialog opens
};

struct ChoiceResult {
  int result;  // kIdOk or kIdCancel
  int choice;  // the option ticked at OK; `initial` after Cancel
};

// A rectangle in CSS pixels.
struct Box {
  int left = 0;
  int top = 0;
  int width = 0;
  int height = 0;
  bool operator==(const Box&) const = default;
};

// Where a laid-out message window and its controls stand: the window in the browser's viewport,
// the controls in its client area (below the caption, inside the border). Without `placed` the
// shell arranges the window by itself.
struct MessageWindowGeometry {
  bool placed = false;
  Box window;
  int minWidth = 0;  // the tracking sizes, for a resizable window
  int minHeight = 0;
  int maxWidth = 0;
  int maxHeight = 0;
  Box icon;  // empty: no icon
  Box text;
  Box progress;
  std::vector<Box> buttons;
  int textPadRight = 0;  // the text's right margin inside its box
  bool vScroll = false;  // the text's scroll bars
  bool hScroll = false;
  bool operator==(const MessageWindowGeometry&) const = default;
};

// The non-modal message window: its look as the caller lays it out.
struct MessageWindowContent {
  std::string title;
  std::string text;  // empty: no text block
  std::vector<std::string> buttons;
  bool selectableText = false;  // the text can take the focus and be selected
  bool fixedFont = false;
  bool wrap = false;         // wrap long lines; otherwise they scroll sideways
  bool progressBar = false;  // a bar of range 0 to kProgressMax
  bool closeBox = true;      // a close box in the caption, which reports kWindowClosed
  bool resizable = false;    // the user can resize it; each new size is reported
  bool blocksPages = false;  // the pages take no input while it is up
  // Escape reports kWindowClosed, Enter presses the focused button, Left and Right move the
  // focus along the button row.
  bool keyboard = false;
  bool focusFirstButton = false;  // the first shown button takes the focus, drawn as default
  std::string icon;               // "information", "warning", "error", "question"; "": none
  int width = 0;                  // CSS pixels of the whole window; 0: as the content needs
  int height = 0;
  MessageWindowGeometry geometry;
};

// A message window as the browsers are told it: the content and what changed since.
struct MessageWindowState {
  MessageWindowContent content;
  int progress = 0;
  std::vector<bool> enabled;  // by button
  std::vector<bool> shown;
  std::vector<bool> checks;
};

inline constexpr int kProgressMax = 200;
// The result a message window's button callback gets for the close box.
inline constexpr int kWindowClosed = -2;

}  // namespace ui
