// One operator at a time.
//
// Several browsers may show the window at once, and all of them see the same state. A motion
// test, though, has one operator: it asks questions whose answers go into a report and it drives
// an axis that somebody stands beside. If any watcher could answer the operator's start dialog,
// click "Yes" to a question the operator was still reading, or start another test the moment one
// ends, the report would hold answers nobody responsible gave. So:
//
// - The browser tab whose click started a test holds control until the test ends.
// - While it does, every other tab is told "Test run from another window" with the test's name;
//   its events on controls that act (From::kOperator) and its answers to the test's own dialogs
//   are refused with the same text. STOP is never refused: the title bar's STOP, the page's STOP
//   and Escape stop the test from any tab, as anybody beside a moving machine must be able to.
// - A tab takes control by naming the test it takes over (the shell asks the user to confirm
//   first); naming another test (the one it saw has ended and a new one began) takes nothing.
// - The holder that goes (its tab closed or hung: no connection for a second, or no sign of life
//   for two) releases control, and a drive of its test ends as on STOP: the watchers' signs of
//   life do not stand in for the operator's. Whoever is there may then answer what the test still
//   asks. Once the test has ended, nobody holds control and any tab may start the next one.
//
// A tab names itself in its hello with an id its shell made up (random, kept for the tab's life,
// so a reload keeps control). The id is trusted for nothing but this rule: every browser that gets
// this far has presented the run's token, which is what gates access. A connection without a hello
// is a tab of its own.
//
// The rule is enforced here, on the server; the shell only shows it. UI thread only.
#pragma once

#include <string>

namespace ui {

// What one tab is told about control.
enum class ControlState {
  kFree,   // no test holds control: anyone may start one
  kYours,  // this tab started (or took over) the test that runs
  kOther,  // another tab holds control; this one watches and may STOP or take over
};

const char* ControlStateName(ControlState state);

// What a tab that is refused is told, and what a watcher sees.
inline constexpr const char* kRunFromAnotherWindow = "Test run from another window";

class ControlRule {
 public:
  // The test that runs now, as the program knows it ("" for none). With none, nobody holds
  // control; a test that runs keeps its holder.
  void Follow(const std::string& running);
  // `who`'s input was followed by `running` starting: `who` holds control from now on, unless
  // somebody already does.
  void Started(const std::string& who, const std::string& running);
  // Whether `who` may act on the machine now.
  bool Allows(const std::string& who) const { return holder_.empty() || holder_ == who; }
  // `who` takes control of the test it names; false (nothing changes) when that test does not
  // run under another holder.
  bool Take(const std::string& who, const std::string& test);
  // Nobody holds control (the holder has gone).
  void Release();

  const std::string& Holder() const { return holder_; }
  const std::string& Test() const { return test_; }
  ControlState StateFor(const std::string& who) const;

 private:
  std::string holder_;  // "" nobody
  std::string test_;    // the held test's name, "" when nobody holds control
};

}  // namespace ui
