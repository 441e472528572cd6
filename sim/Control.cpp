#include "sim/Control.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "sim/Profiles.h"
#include "sim/ReadingsControl.h"
#include "sim/Simulator.h"

namespace sim {

namespace {

using Words = std::vector<std::string>;

std::string Error(const std::string& why) {
  return "error: " + why;
}

bool ParseNumber(const std::string& text, long long& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  out = std::strtoll(text.c_str(), &end, 0);
  return errno == 0 && end && *end == '\0';
}

// ---- fault ------------------------------------------------------------------------------------

bool ParseTarget(const std::string& word, FaultRule& rule) {
  long long code = 0;
  if (word == "all") {
    rule.target = FaultTarget::kAll;
  } else if (word == "link") {
    rule.target = FaultTarget::kLinkOpened;
  } else if (ParseNumber(word, code) && code >= 0 && code <= 0xFF) {
    rule.target = FaultTarget::kCommand;
    rule.command = static_cast<std::uint8_t>(code);
  } else {
    return false;
  }
  return true;
}

// One key=value setting of a fault rule; an empty answer means it was taken.
std::string ParseFaultSetting(const std::string& word, FaultRule& rule) {
  const auto eq = word.find('=');
  const std::string key = word.substr(0, eq);
  long long v = 0;
  if (!ParseNumber(word.substr(eq + 1), v)) return "bad number in '" + word + "'";
  if (key == "count" && v >= 0 && v <= 1'000'000) {
    rule.count = static_cast<int>(v);
  } else if (key == "reason" && v >= -128 && v <= 255) {
    rule.reason = static_cast<std::int8_t>(v);
  } else if (key == "code" && v >= 0 && v <= 0xFFFFFFFFLL) {
    rule.status = static_cast<std::uint32_t>(v);
  } else if (key == "ms" && v >= 0 && v <= 3'600'000) {
    rule.delayMs = v;
  } else {
    return "unknown or out-of-range setting '" + word + "'";
  }
  return {};
}

std::string ClearFaults(Simulator& sim, const Words& args) {
  long long id = 0;
  if (args.size() == 1) {
    sim.ClearFaults();
    return "ok faults cleared";
  }
  if (args.size() == 2 && ParseNumber(args[1], id) && sim.ClearFault(static_cast<int>(id))) {
    return "ok fault #" + args[1] + " cleared";
  }
  return Error("no fault rule '" + (args.size() > 1 ? args[1] : std::string()) + "'");
}

std::string RunFault(Simulator& sim, const Words& args) {
  if (args.empty())
    return Error("fault needs a kind: refuse short long drop status late, or clear");
  if (args[0] == "clear") return ClearFaults(sim, args);
  const auto kind = ParseFaultKind(args[0]);
  if (!kind) return Error("unknown fault '" + args[0] + "'");
  FaultRule rule;
  rule.kind = *kind;
  bool targeted = false;
  for (std::size_t i = 1; i < args.size(); ++i) {
    if (args[i].find('=') != std::string::npos) {
      const std::string why = ParseFaultSetting(args[i], rule);
      if (!why.empty()) return Error(why);
    } else if (targeted || !ParseTarget(args[i], rule)) {
      return Error("bad target '" + args[i] + "' (all, link, or a command byte such as 0x2B)");
    } else {
      targeted = true;
    }
  }
  rule.id = sim.AddFault(rule);
  return "ok fault " + DescribeFault(rule);
}

std::string RunFaults(Simulator& sim, const Words&) {
  const std::vector<FaultRule> rules = sim.Faults();
  std::string answer = "ok " + std::to_string(rules.size()) + " fault rule(s)";
  for (std::size_t i = 0; i < rules.size(); ++i) {
    answer += (i == 0 ? ": " : "; ") + DescribeFault(rules[i]);
  }
  return answer;
}

// ---- board events -------------------------------------------------------------------------------

std::string RunUnplug(Simulator& sim, const Words&) {
  return sim.Unplug() ? "ok unplugged" : Error("already unplugged");
}

std::string RunReplug(Simulator& sim, const Words&) {
  if (sim.Plugged()) return Error("already plugged in");
  std::string why;
  return sim.Replug(&why) ? "ok serving " + sim.EntryPath() : Error(why);
}

std::string RunProfile(Simulator& sim, const Words& args) {
  if (args.empty()) return "ok " + sim.ProfileName();
  if (args.size() > 1 || !sim.SetProfile(args[0])) {
    return Error("unknown profile '" + args[0] + "' (" + ProfileNames() + ")");
  }
  return "ok profile " + args[0];
}

std::string RunApp(Simulator& sim, const Words& args) {
  if (args.size() != 1 || (args[0] != "on" && args[0] != "off")) {
    return Error("app takes on or off");
  }
  std::string why;
  if (!sim.PoseAsApplication(args[0] == "on", &why)) return Error(why);
  return args[0] == "on" ? "ok the measuring application runs"
                         : "ok the measuring application ended";
}

std::string RunProfiles(Simulator&, const Words&) {
  return "ok " + ProfileNames();
}

// ---- diagnostic text, status, counters ----------------------------------------------------------

std::string RunDiag(Simulator& sim, const Words& args) {
  const bool raw = !args.empty() && args[0] == "raw";
  std::string text;
  for (std::size_t i = raw ? 1 : 0; i < args.size(); ++i)
    text += (text.empty() ? "" : " ") + args[i];
  if (!raw) text += "\r\n";
  sim.QueueDiagText(text);
  return "ok " + std::to_string(text.size()) + " bytes queued";
}

std::string RunStatus(Simulator& sim, const Words&) {
  const SimulatorStatus s = sim.Status();
  return "ok profile=" + s.profile + " plugged=" + (s.plugged ? "yes" : "no") +
         " entry=" + s.entryPath + " connections=" + std::to_string(s.connections) +
         " requests=" + std::to_string(s.requests) + " faults=" + std::to_string(s.faultRules) +
         " diag=" + std::to_string(s.pendingDiagBytes) +
         " describe=" + (s.describes ? "on" : "off");
}

// describe off: the driver fails the describe request as one older than it would, so that a host
// can be seen to show no mark of a simulated board.
std::string RunDescribe(Simulator& sim, const Words& args) {
  if (args.size() != 1 || (args[0] != "on" && args[0] != "off")) {
    return Error("describe takes on or off");
  }
  sim.SetDescribes(args[0] == "on");
  return "ok describe " + args[0];
}

std::string RunCount(Simulator& sim, const Words& args) {
  const Traffic t = sim.TrafficSeen();
  long long code = 0;
  if (args.empty()) return "ok " + std::to_string(t.total);
  if (args[0] == "link") return "ok " + std::to_string(t.linkOpened);
  if (args[0] == "describe") return "ok " + std::to_string(t.describe);
  if (args[0] == "malformed") return "ok " + std::to_string(t.malformed);
  if (ParseNumber(args[0], code) && code >= 0 && code <= 0xFF) {
    return "ok " + std::to_string(t.commands[static_cast<std::size_t>(code)]);
  }
  return Error("count takes a command byte, link, describe or malformed");
}

// The last transfers (of one command byte, if named) as `sequence:microseconds:bytes`, the time on
// the board's clock when each came and the packet's kept bytes in hex: enough for a look at a
// host's timing from outside without a trace of every packet.
std::string RunRecent(Simulator& sim, const Words& args) {
  long long code = -1;
  if (args.size() > 1 ||
      (args.size() == 1 && (!ParseNumber(args[0], code) || code < 0 || code > 0xFF))) {
    return Error("recent takes at most a command byte");
  }
  std::string answer = "ok";
  for (const Transfer& t : sim.TrafficSeen().recent) {
    if (code >= 0 && (t.requestLength == 0 || t.request[0] != code)) continue;
    const auto us =
        std::chrono::duration_cast<std::chrono::microseconds>(t.at.time_since_epoch()).count();
    char entry[48];
    std::snprintf(entry, sizeof entry, " %u:%lld:", t.sequence, static_cast<long long>(us));
    answer += entry;
    const std::size_t kept = std::min<std::size_t>(t.requestLength, t.request.size());
    for (std::size_t i = 0; i < kept; ++i) {
      std::snprintf(entry, sizeof entry, "%02x", t.request[i]);
      answer += entry;
    }
  }
  return answer;
}

std::string FormatVersion(float v) {
  char out[32];
  std::snprintf(out, sizeof out, "%.2f", static_cast<double>(v));
  return out;
}

// What the board says about itself, as Board Information shows it: for tests that compare.
std::string RunBoard(Simulator& sim, const Words&) {
  const Profile p = sim.CurrentProfile();
  const auto q = [](const std::u16string& s) { return "\"" + ToNarrow(s) + "\""; };
  std::string answer =
      "ok firmware=" + q(p.version.firmwareName) +
      " version=" + FormatVersion(p.version.firmwareVersion) +
      " revision=" + std::to_string(p.version.boardRevision) +
      " fpga=" + std::to_string(p.fpgaWord) + " serial=" + q(p.identity.serialNumber) +
      " machine=" + q(p.identity.machineName) + " model=" + q(p.identity.modelName);
  // The EEPROM sizes as the board's answer carries them: the short form of the older boards
  // has the user size, and from protocol 2 the machine size and copy flag; "-" for the rest.
  const EepromGeometry& e = p.eeprom;
  const bool all = p.version.eepromInfoLong;
  const bool machine = all || p.version.protocolVersion >= 2;
  const auto said = [](bool carried, std::uint32_t v) { return carried ? std::to_string(v) : "-"; };
  answer += " eeprom=" + std::to_string(e.userSize) + "," + said(machine, e.machineSize) + "," +
            said(all, e.updateSize) + "," + said(all, e.pageSize) + "," +
            said(all, e.maxReadWrite) + "," + (machine ? (e.hasCopy ? "1" : "0") : "-");
  for (std::size_t i = 0; i < p.chips.size(); ++i) {
    answer += " chip" + std::to_string(i) + "=";
    const auto words = p.chips[i].Words();
    for (std::size_t k = 0; k < words.size(); ++k)
      answer += (k ? "," : "") + std::to_string(words[k]);
  }
  return answer;
}

std::string RunQuit(Simulator& sim, const Words&) {
  if (!sim.CanQuit()) return Error("quit is not available here");
  sim.Quit();
  return "ok bye";
}

std::string RunHelp(Simulator&, const Words&);

struct Verb {
  const char* name;
  const char* usage;
  std::string (*run)(Simulator&, const Words&);
};

constexpr Verb kVerbs[] = {
    {.name = "help", .usage = "help", .run = RunHelp},
    {.name = "status", .usage = "status", .run = RunStatus},
    {.name = "profiles", .usage = "profiles", .run = RunProfiles},
    {.name = "profile", .usage = "profile [NAME]", .run = RunProfile},
    {.name = "unplug", .usage = "unplug", .run = RunUnplug},
    {.name = "replug", .usage = "replug", .run = RunReplug},
    {.name = "fault",
     .usage = "fault KIND [all|link|CODE] [count=N] [reason=N] [code=N] [ms=N]",
     .run = RunFault},
    {.name = "fault", .usage = "fault clear [ID]", .run = RunFault},
    {.name = "faults", .usage = "faults", .run = RunFaults},
    {.name = "diag", .usage = "diag [raw] \"TEXT\"", .run = RunDiag},
    {.name = "count", .usage = "count [CODE|link|describe|malformed]", .run = RunCount},
    {.name = "recent", .usage = "recent [CODE]", .run = RunRecent},
    {.name = "board", .usage = "board", .run = RunBoard},
    {.name = "app", .usage = "app on|off", .run = RunApp},
    {.name = "describe", .usage = "describe on|off", .run = RunDescribe},
    {.name = "quit", .usage = "quit", .run = RunQuit},
};

std::string RunHelp(Simulator&, const Words&) {
  std::string answer = "ok commands:";
  for (const Verb& v : kVerbs)
    answer += std::string(" ") + (&v == kVerbs ? "" : "| ") + v.usage;
  return answer + MachineControlUsage() + ReadingsControlUsage() + FaultControlUsage();
}

bool ReadEscape(const std::string& line, std::size_t& i, std::string& word) {
  if (++i >= line.size()) return false;
  const char c = line[i];
  if (c == 'n') word += '\n';
  if (c == 'r') word += '\r';
  if (c == 't') word += '\t';
  if (c == '\\' || c == '"') word += c;
  if (c == 'x') {
    if (i + 2 >= line.size()) return false;
    char* end = nullptr;
    const std::string hex = line.substr(i + 1, 2);
    const long v = std::strtol(hex.c_str(), &end, 16);
    if (*end != '\0') return false;
    word += static_cast<char>(v);
    i += 2;
  }
  return std::string("nrt\\\"x").find(c) != std::string::npos;
}

}  // namespace

bool SplitControlWords(const std::string& line, std::vector<std::string>& words,
                       std::string& error) {
  words.clear();
  std::size_t i = 0;
  while (i < line.size()) {
    if (line[i] == ' ' || line[i] == '\t') {
      ++i;
      continue;
    }
    std::string word;
    if (line[i] != '"') {
      while (i < line.size() && line[i] != ' ' && line[i] != '\t')
        word += line[i++];
      words.push_back(word);
      continue;
    }
    for (++i; i < line.size() && line[i] != '"'; ++i) {
      if (line[i] != '\\') {
        word += line[i];
      } else if (!ReadEscape(line, i, word)) {
        error = "bad escape in quoted text";
        return false;
      }
    }
    if (i >= line.size()) {
      error = "quoted text without its closing quote";
      return false;
    }
    ++i;
    words.push_back(word);
  }
  return true;
}

std::string RunControlCommand(Simulator& sim, const std::string& line) {
  Words words;
  std::string why;
  if (!SplitControlWords(line, words, why)) return Error(why);
  if (words.empty()) return Error("empty command");
  for (const Verb& v : kVerbs) {
    if (words[0] == v.name) return v.run(sim, Words(words.begin() + 1, words.end()));
  }
  if (std::string answer; RunReadingsControl(sim, words, answer)) return answer;
  if (std::string answer; RunMachineControl(sim, words, answer)) return answer;
  if (std::string answer; RunFaultControl(sim, words, answer)) return answer;
  return Error("unknown command '" + words[0] + "' (try help)");
}

}  // namespace sim
