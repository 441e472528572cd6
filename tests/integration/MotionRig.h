// The motion tests end to end: the real main dialog with its Stage page, timers and test threads,
// the simulated board's machine underneath, all in virtual time. An operator connected as a
// browser answers the start dialogs and boxes over the window's protocol, types into the page,
// and shows signs of life as the shell's script does.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "pages/Stage.h"
#include "sim/Board.h"
#include "tests/integration/DialogRig.h"
#include "util/Text.h"

namespace motion_rig {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing_support::Operator;

// A report as text (all of it ASCII), and the numbers that follow a label in it, in order.
inline std::string ReadReport(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream all;
  all << in.rdbuf();
  const std::string bytes = all.str();
  if (bytes.size() < 2 || bytes[0] != '\xFF' || bytes[1] != '\xFE') return {};
  std::u16string wide;
  for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
    wide.push_back(static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                         static_cast<unsigned char>(bytes[i + 1]) << 8));
  }
  return text::ToUtf8(wide);
}

inline std::vector<long> NumbersAfter(const std::string& body, const std::string& label) {
  std::vector<long> out;
  for (std::size_t at = body.find(label); at != std::string::npos; at = body.find(label, at + 1)) {
    out.push_back(std::strtol(body.c_str() + at + label.size(), nullptr, 10));
  }
  return out;
}

struct TraceRow {
  double time;
  long bias, linear, rotary, limit;
};

inline std::vector<TraceRow> ReadTrace(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::vector<TraceRow> rows;
  if (!std::getline(in, line)) return rows;  // the header
  while (std::getline(in, line)) {
    TraceRow r{};
    char comma;
    std::istringstream fields(line);
    fields >> r.time >> comma >> r.bias >> comma >> r.linear >> comma >> r.rotary >> comma >>
        r.limit;
    if (fields) rows.push_back(r);
  }
  return rows;
}

// The real dialog on a simulated board of a profile, with an operator at a browser.
class MotionRig : public testing_support::DialogRig {
 protected:
  // `beforeDialog` runs once the board is up and before the dialog is made.
  void Open(const std::string& profile, const std::function<void()>& beforeDialog = {}) {
    OpenDialog(profile, false, beforeDialog);
    op.Connect();
    op.Load(1);
    op.Show(1);
    ASSERT_TRUE(Wait([&] { return PageShownAndConnected(); }, seconds(1)));
    // The operator looks at the page for a moment before clicking: its 200 ms tick has read
    // the machine (the platen's switches among it).
    Wait([] { return false; }, milliseconds(400));
  }

  StageDlg& Page() { return dynamic_cast<StageDlg&>(*dlg->Page(1)); }
  // The dialog's and the pages' flags belong to the UI thread: `look` runs there. False when it
  // has not run within 5 s of machine time.
  bool OnUiThread(std::function<bool()> look) {
    auto answer = std::make_shared<std::atomic<int>>(-1);
    loop.Post([look = std::move(look), answer] { *answer = look() ? 1 : 0; });
    Wait([&] { return answer->load() >= 0; }, seconds(5));
    return answer->load() == 1;
  }
  bool PageShownAndConnected() {
    return OnUiThread([this] { return Page().PageReady && Page().Connected; });
  }
  bool PageConnected() {
    return OnUiThread([this] { return Page().Connected; });
  }
  bool DialogConnected() {
    return OnUiThread([this] { return dlg->IsConnected(); });
  }
  motion::StageTestState& State() { return Page().TestState(); }
  void Click(const std::string& id) {
    op.Send(json{{"t", "event"}, {"page", 1}, {"id", id}, {"kind", "click"}});
  }
  void Type(const std::string& id, const std::string& value) {
    op.Send(json{{"t", "event"}, {"page", 1}, {"id", id}, {"kind", "change"}, {"value", value}});
  }
  // Clicks a test button and waits for the test to end; `during` runs every 20 ms meanwhile.
  bool RunTest(const std::string& button, platform::Duration limit = seconds(300),
               const std::function<void()>& during = {}) {
    const std::size_t asked = op.Dialogs().size();
    Click(button);
    if (!Wait([&] { return State().Running || op.Dialogs().size() > asked; }, seconds(1)))
      return false;
    return Wait(
        [&] {
          if (during) during();
          return !State().Running;
        },
        limit);
  }
  // The tuning record the board holds for a stage axis, whatever the link does.
  sim::AxisTuning Tuning(unsigned axis) {
    sim::AxisTuning tuning;
    board_->AtMachine([&](sim::Board& b) {
      tuning = b.machine().axes[axis].tuning;
      return std::string();
    });
    return tuning;
  }
  std::string Report(const std::string& name) { return ReadReport(reports_ / name); }
  // Every stage axis is back under its own tuning: no motor is left driven open loop.
  void ExpectEveryAxisHandedBack() {
    for (unsigned axis = 0; axis < 4; ++axis) {
      EXPECT_FALSE(Tuning(axis).OpenLoop()) << "axis " << axis;
    }
  }
};

}  // namespace motion_rig
