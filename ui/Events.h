// Events from the browsers and the table that routes them to a page's handlers: one row per
// element id and event kind, as a page lists them. Browsers only listen for what the tables of
// the pages name, so an event outside every table is foreign input and is dropped with a log line.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ui {

enum class EventKind {
  kClick,   // buttons, check boxes, menu items
  kChange,  // text boxes (on leaving the box), sliders (every move), check boxes
};

// "click" / "change"; nullopt for any other name.
std::optional<EventKind> ParseEventKind(const std::string& name);
const char* EventKindName(EventKind kind);

struct Event {
  int page = 0;  // tab index; kShellPage for the shell
  std::string id;
  EventKind kind = EventKind::kClick;
  // The element's state after the event, as the browser saw it: the typed text, the slider
  // position, whether the box is ticked. The page's document already holds them on dispatch.
  std::optional<std::string> value;
  std::optional<bool> checked;
};

inline constexpr int kShellPage = -1;

class EventTable {
 public:
  using Handler = std::function<void(const Event&)>;

  // Adds a row; a second row for the same id and kind replaces the first.
  void On(const std::string& id, EventKind kind, Handler handler);
  void OnClick(const std::string& id, Handler handler) {
    On(id, EventKind::kClick, std::move(handler));
  }
  void OnChange(const std::string& id, Handler handler) {
    On(id, EventKind::kChange, std::move(handler));
  }

  bool Has(const std::string& id, EventKind kind) const { return rows_.count({id, kind}) != 0; }
  // Runs the row's handler; false when the table has no such row.
  bool Dispatch(const Event& event) const;
  // Every (id, kind) of the table, for the browsers to listen for.
  std::vector<std::pair<std::string, EventKind>> Rows() const;

 private:
  std::map<std::pair<std::string, EventKind>, Handler> rows_;
};

}  // namespace ui
