// The C++ model of one HTML document (a tab page or the shell): per element id, the properties
// the program sets. Browsers draw it; the model is the truth. Every property starts unset, which
// leaves the HTML's own state alone, so a document only carries what the code has said.
//
// Change tracking: a setter that gives a property the value it already has does nothing. Real
// changes mark the document dirty and tell its observer once; the window then collects the
// changes of all documents in one task and pushes them to every browser. A property changed
// and changed back before that task runs sends nothing.
//
// All members run on the UI thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ui {

// What the program may set on one element. Unset (nullopt) means "as the HTML has it".
struct ElementState {
  std::optional<std::string> value;  // input/textarea value; text content of other elements
  std::optional<bool> checked;
  std::optional<bool> disabled;
  std::optional<std::string> display;     // style.display: "none", "inline", "" ...
  std::optional<std::string> background;  // style.backgroundColor
  // Range sliders: the position is `value`; steps and ticks are in slider units.
  std::optional<std::int32_t> min;
  std::optional<std::int32_t> max;
  std::optional<std::int32_t> lineStep;
  std::optional<std::int32_t> pageStep;
  std::optional<std::int32_t> tickSpacing;  // 0: no ticks

  bool Empty() const;
  bool operator==(const ElementState&) const = default;
};

// Scroll state of an element as a browser last reported it. Each field is from 0 to INT32_MAX
// (the window refuses other reports), so a difference of two of them cannot overflow.
struct ScrollInfo {
  std::int32_t scrollHeight = 0;
  std::int32_t scrollTop = 0;
  std::int32_t clientHeight = 0;
};

enum class ScrollCommand { kPageDown, kToEnd };

struct ScrollOrder {
  std::string id;
  ScrollCommand command;
};

// The changes since the last TakeChanges, or (from Snapshot) the whole state.
struct DocumentDelta {
  // Per element only the properties that differ from what was last sent.
  std::map<std::string, ElementState> elements;
  std::vector<ScrollOrder> scrolls;  // in the order given; never part of a snapshot
  bool Empty() const { return elements.empty() && scrolls.empty(); }
};

class Document {
 public:
  Document() = default;
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  // Called once each time the document turns from clean to dirty.
  void SetObserver(std::function<void()> onDirty) { onDirty_ = std::move(onDirty); }

  // --- Setters; each is a no-op when the property already has the value ---
  void SetText(const std::string& id, const std::string& text);
  void SetChecked(const std::string& id, bool checked);
  void Enable(const std::string& id, bool enabled);
  void SetDisplay(const std::string& id, const std::string& display);
  void Show(const std::string& id, bool shown) { SetDisplay(id, shown ? "" : "none"); }
  void SetBackground(const std::string& id, const std::string& color);

  // Sliders (an <input type="range">): the range, the steps of the arrow keys and of Page Up
  // and Page Down, the tick spacing (0: none), and the position, which is the element's value.
  void SetSliderRange(const std::string& id, std::int32_t min, std::int32_t max);
  void SetSliderSteps(const std::string& id, std::int32_t line, std::int32_t page);
  void SetSliderTicks(const std::string& id, std::int32_t spacing);
  void SetSliderPosition(const std::string& id, std::int32_t position);

  // Scroll commands go to every browser with the next batch, after the property changes of
  // the same batch (so text set just before is there to scroll through).
  void PageDown(const std::string& id);
  void ScrollToEnd(const std::string& id);

  // --- Reading back ---
  // The value as last set by the code or changed by a browser; "" when never set.
  std::string Text(const std::string& id) const;
  bool Checked(const std::string& id) const;
  bool Enabled(const std::string& id) const;
  // The slider position; 0 when unset or not a number.
  std::int32_t SliderPosition(const std::string& id) const;
  // The last scroll report of a browser for the element; none before any browser reported.
  std::optional<ScrollInfo> Scroll(const std::string& id) const;
  // Elements whose scroll state browsers should report (WatchScroll).
  const std::vector<std::string>& ScrollWatched() const { return scrollWatched_; }
  void WatchScroll(const std::string& id);

  // --- Used by the window ---
  // What changed since the last call; the document is clean afterwards.
  DocumentDelta TakeChanges();
  // Everything set so far, for a browser that connects late. Does not touch change tracking.
  DocumentDelta Snapshot() const;
  bool Dirty() const { return dirty_; }
  // A browser changed an element (typed text, moved slider, ticked box). The model takes the
  // browser's value so that the handler reads it and a later SetText of the old value is a
  // real change; other browsers receive it with the next batch.
  void TakeBrowserValue(const std::string& id, const std::optional<std::string>& value,
                        const std::optional<bool>& checked);
  void TakeScrollReport(const std::string& id, const ScrollInfo& info);

 private:
  template <typename T>
  void Set(const std::string& id, std::optional<T> ElementState::*field, const T& value);
  void MarkDirty();

  std::map<std::string, ElementState> current_;
  std::map<std::string, ElementState> sent_;  // what browsers have (as of the last batch)
  std::vector<ScrollOrder> scrolls_;
  std::map<std::string, ScrollInfo> scrollReports_;
  std::vector<std::string> scrollWatched_;
  bool dirty_ = false;
  std::function<void()> onDirty_;
};

}  // namespace ui
