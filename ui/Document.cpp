#include "ui/Document.h"

#include <algorithm>
#include <charconv>

namespace ui {

namespace {

// Copies into `out` each property of `now` that is set and differs from `before`.
template <typename T>
void Diff(const std::optional<T>& now, const std::optional<T>& before, std::optional<T>& out) {
  if (now && now != before) out = now;
}

ElementState Difference(const ElementState& now, const ElementState& before) {
  ElementState d;
  Diff(now.value, before.value, d.value);
  Diff(now.checked, before.checked, d.checked);
  Diff(now.disabled, before.disabled, d.disabled);
  Diff(now.display, before.display, d.display);
  Diff(now.background, before.background, d.background);
  Diff(now.min, before.min, d.min);
  Diff(now.max, before.max, d.max);
  Diff(now.lineStep, before.lineStep, d.lineStep);
  Diff(now.pageStep, before.pageStep, d.pageStep);
  Diff(now.tickSpacing, before.tickSpacing, d.tickSpacing);
  return d;
}

}  // namespace

bool ElementState::Empty() const {
  return *this == ElementState{};
}

template <typename T>
void Document::Set(const std::string& id, std::optional<T> ElementState::*field, const T& value) {
  std::optional<T>& slot = current_[id].*field;
  if (slot == value) return;
  slot = value;
  MarkDirty();
}

void Document::MarkDirty() {
  if (dirty_) return;
  dirty_ = true;
  if (onDirty_) onDirty_();
}

void Document::SetText(const std::string& id, const std::string& text) {
  Set(id, &ElementState::value, text);
}

void Document::SetChecked(const std::string& id, bool checked) {
  Set(id, &ElementState::checked, checked);
}

void Document::Enable(const std::string& id, bool enabled) {
  Set(id, &ElementState::disabled, !enabled);
}

void Document::SetDisplay(const std::string& id, const std::string& display) {
  Set(id, &ElementState::display, display);
}

void Document::SetBackground(const std::string& id, const std::string& color) {
  Set(id, &ElementState::background, color);
}

void Document::SetSliderRange(const std::string& id, std::int32_t min, std::int32_t max) {
  Set(id, &ElementState::min, min);
  Set(id, &ElementState::max, max);
}

void Document::SetSliderSteps(const std::string& id, std::int32_t line, std::int32_t page) {
  Set(id, &ElementState::lineStep, line);
  Set(id, &ElementState::pageStep, page);
}

void Document::SetSliderTicks(const std::string& id, std::int32_t spacing) {
  Set(id, &ElementState::tickSpacing, spacing);
}

void Document::SetSliderPosition(const std::string& id, std::int32_t position) {
  SetText(id, std::to_string(position));
}

void Document::PageDown(const std::string& id) {
  scrolls_.push_back({id, ScrollCommand::kPageDown});
  MarkDirty();
}

void Document::ScrollToEnd(const std::string& id) {
  scrolls_.push_back({id, ScrollCommand::kToEnd});
  MarkDirty();
}

std::string Document::Text(const std::string& id) const {
  const auto it = current_.find(id);
  return it != current_.end() && it->second.value ? *it->second.value : std::string();
}

bool Document::Checked(const std::string& id) const {
  const auto it = current_.find(id);
  return it != current_.end() && it->second.checked.value_or(false);
}

bool Document::Enabled(const std::string& id) const {
  const auto it = current_.find(id);
  return it == current_.end() || !it->second.disabled.value_or(false);
}

std::int32_t Document::SliderPosition(const std::string& id) const {
  const std::string text = Text(id);
  std::int32_t v = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  return ec == std::errc() && end == text.data() + text.size() ? v : 0;
}

std::optional<ScrollInfo> Document::Scroll(const std::string& id) const {
  const auto it = scrollReports_.find(id);
  if (it == scrollReports_.end()) return std::nullopt;
  return it->second;
}

void Document::WatchScroll(const std::string& id) {
  if (std::find(scrollWatched_.begin(), scrollWatched_.end(), id) == scrollWatched_.end()) {
    scrollWatched_.push_back(id);
  }
}

DocumentDelta Document::TakeChanges() {
  DocumentDelta delta;
  for (const auto& [id, now] : current_) {
    ElementState d = Difference(now, sent_[id]);
    if (!d.Empty()) delta.elements.emplace(id, std::move(d));
  }
  sent_ = current_;
  delta.scrolls = std::move(scrolls_);
  scrolls_.clear();
  dirty_ = false;
  return delta;
}

DocumentDelta Document::Snapshot() const {
  DocumentDelta all;
  for (const auto& [id, now] : current_) {
    if (!now.Empty()) all.elements.emplace(id, now);
  }
  return all;
}

void Document::TakeBrowserValue(const std::string& id, const std::optional<std::string>& value,
                                const std::optional<bool>& checked) {
  // The browser that sent it already shows the value, which `sent_` does not know: forget what
  // was sent, so that the next batch carries the element's value whatever the handler does
  // with it (a refused text must go back even when it returns to the value sent before).
  ElementState& sent = sent_[id];
  if (value) {
    sent.value.reset();
    SetText(id, *value);
    MarkDirty();
  }
  if (checked) {
    sent.checked.reset();
    SetChecked(id, *checked);
    MarkDirty();
  }
}

void Document::TakeScrollReport(const std::string& id, const ScrollInfo& info) {
  scrollReports_[id] = info;
}

}  // namespace ui
