// Where message windows live: the UI thread's loop and the shell window that draws them, and the
// work area they are placed in. The handle callers hold is declared in util/MessageInteraction.h.
//
// A message window is a window of the shell, laid out by util/MessageLayout.h in the shell's
// fonts: the C++ side decides every size and position, and the shell draws what it is told.
#pragma once

#include "util/MessageLayout.h"

namespace platform {
class TaskLoop;
}
namespace ui {
class Window;
}

namespace Utility {

// Makes `window`, run by `loop`, the host of message windows; the calling thread becomes the UI
// thread (the loop's thread). Call it before the loop runs. Null for both ends the hosting: every
// window still up is destroyed (its message ends with -3), and later messages never show. Both
// must outlive the hosting.
void SetMessageWindowHost(platform::TaskLoop* loop, ui::Window* window);

// The rectangle that message windows are placed in: the browser's viewport, after the monitor
// override of the shared settings. Kind 0 is the work area, 1 the whole monitor; the shell has no
// task bar, so they differ only by what an override takes off. UI thread.
Rect GetWorkArea(int kind);

// Acts as a press of pendant button `number` on every message window that bound it (and has that
// button enabled): a host that reads the pendant while a message is up calls it. UI thread.
void PressPendantButton(int number);

// The shell's frame of a message window, which its style sheet keeps to: a 1 px border and a
// caption bar 30 px high, and the browser's scroll bars 15 px thick.
inline constexpr int kShellBorder = 1;
inline constexpr int kShellCaption = 30;
inline constexpr int kShellScrollBar = 15;

}  // namespace Utility
