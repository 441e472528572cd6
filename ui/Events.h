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

// Who may send an event while a test runs (see ControlRule): only the browser that holds
// control, or every browser (a STOP, which is never taken away, and what only shows something).
enum class From {
  kOperator,
  kAnyone,
};

class EventTable {
 public:
  using Handler = std::function<void(const Event&)>;

  // Adds a row; a second row for the same id and kind replaces the first. A row is the
  // operator's unless it says otherwise: what acts on the machine is the rule, not the exception.
  void On(const std::string& id, EventKind kind, Handler handler, From from = From::kOperator);
  void OnClick(const std::string& id, Handler handler, From from = From::kOperator) {
    On(id, EventKind::kClick, std::move(handler), from);
  }
  void OnChange(const std::string& id, Handler handler, From from = From::kOperator) {
    On(id, EventKind::kChange, std::move(handler), from);
  }

  bool Has(const std::string& id, EventKind kind) const { return rows_.count({id, kind}) != 0; }
  // Whom the row takes input from; kOperator for a row the table does not have.
  From FromWhom(const std::string& id, EventKind kind) const;
  // Runs the row's handler; false when the table has no such row.
  bool Dispatch(const Event& event) const;
  // Every (id, kind) of the table, for the browsers to listen for.
  std::vector<std::pair<std::string, EventKind>> Rows() const;

 private:
  struct Row {
    Handler handler;
    From from;
  };
  std::map<std::pair<std::string, EventKind>, Row> rows_;
};

}  // namespace ui
