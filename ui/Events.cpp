#include "ui/Events.h"

namespace ui {

std::optional<EventKind> ParseEventKind(const std::string& name) {
  if (name == "click") return EventKind::kClick;
  if (name == "change") return EventKind::kChange;
  return std::nullopt;
}

const char* EventKindName(EventKind kind) {
  return kind == EventKind::kClick ? "click" : "change";
}

void EventTable::On(const std::string& id, EventKind kind, Handler handler, From from) {
  rows_[{id, kind}] = Row{std::move(handler), from};
}

From EventTable::FromWhom(const std::string& id, EventKind kind) const {
  const auto it = rows_.find({id, kind});
  return it == rows_.end() ? From::kOperator : it->second.from;
}

bool EventTable::Dispatch(const Event& event) const {
  const auto it = rows_.find({event.id, event.kind});
  if (it == rows_.end()) return false;
  it->second.handler(event);
  return true;
}

std::vector<std::pair<std::string, EventKind>> EventTable::Rows() const {
  std::vector<std::pair<std::string, EventKind>> rows;
  for (const auto& [key, handler] : rows_)
    rows.push_back(key);
  return rows;
}

}  // namespace ui
