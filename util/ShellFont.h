// How the web shell's message window measures its text: advance widths of the fonts that its
// style sheet names, summed as the browser lays them out, so that the window's arithmetic and the
// drawn text agree.
#pragma once

#include "util/MessageLayout.h"

namespace Utility {

// Metrics of the web shell's message window, which its style sheet must keep to.
inline constexpr int kShellFontPx = 14;
inline constexpr int kShellLineHeight = 17;  // CSS line-height of the text and buttons
inline constexpr int kShellTabSize = 8;      // CSS tab-size, in spaces

const TextMeasure& ShellMainFont();   // DejaVu Sans 14px
const TextMeasure& ShellFixedFont();  // DejaVu Sans Mono 14px

}  // namespace Utility
