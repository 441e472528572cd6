// Host and board agree on every form. For each profile, every operation of the controller runs
// once as the host means it: it must succeed, and the records it reads must be what the board says
// of itself through its `board` control. Then the same operations run again for each neighbouring
// generation the host could take the board for (another protocol, a firmware on the other side of
// a release, the other machine kind, the other EEPROM form, the older light driver): wherever the
// host then sends a command in a form this board does not speak, the operation must fail, as it
// would against hardware. A host form changed to a neighbouring one fails the first half; a board
// that lets a neighbouring form pass fails the second.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "link/CTavroUsbManualVision.h"
#include "link/CTavroUsbServo.h"
#include "sim/Profiles.h"
#include "sim/Simulator.h"
#include "tests/support/EveryOperation.h"
#include "tests/support/Recorders.h"

namespace {

using namespace testing_support;

constexpr std::uint32_t kLinkOpenedCode = 0x80002010;

// The form of one transfer as the board sees it.
struct Form {
  std::uint32_t io;
  std::uint8_t command;
  std::uint32_t requestLength;
  std::uint32_t replyLength;
  auto operator<=>(const Form&) const = default;
};

std::string Describe(const Form& f) {
  char text[96];
  std::snprintf(text, sizeof text, "0x%02X on 0x%X, %u bytes asking %u", f.command, f.io,
                f.requestLength, f.replyLength);
  return text;
}

// A generation the host could take the board for: what it changes in the host's copy of the
// version record, and for the servo controller the machine kind.
struct Neighbour {
  std::string name;
  std::function<void(BoardVersionInfo&)> change;
  int machineKind = -1;    // -1: as learnt
  bool oldDriver = false;  // the link-opened call fails, so the host takes the first driver
};

template <typename Controller>
class Mistaken : public Controller {
 public:
  Mistaken(const CTavroUsb& link, const Neighbour& n) : Controller(link) {
    if (n.change) n.change(this->versionInfo);
    if (n.machineKind >= 0)
      this->machineKind = static_cast<decltype(this->machineKind)>(n.machineKind);
  }
};

// Firmware versions on either side of every release the host's gates test.
constexpr float kFirmwares[] = {1.10f, 1.11f, 1.12f, 1.14f, 1.51f, 1.52f, 1.62f, 1.73f, 1.78f,
                                1.81f, 1.82f, 1.84f, 2.02f, 2.08f, 2.18f, 2.22f, 2.25f};

std::vector<Neighbour> NeighboursOf(const sim::Profile& p) {
  std::vector<Neighbour> out;
  for (std::uint16_t pv = 0; pv <= 5; ++pv) {
    if (pv == p.version.protocolVersion) continue;
    out.push_back(
        {"protocol " + std::to_string(pv), [pv](BoardVersionInfo& v) { v.protocolVersion = pv; }});
  }
  for (float fw : kFirmwares) {
    if (std::abs(fw - p.version.firmwareVersion) < 0.005f) continue;
    char name[32];
    std::snprintf(name, sizeof name, "firmware %.2f", static_cast<double>(fw));
    out.push_back({name, [fw](BoardVersionInfo& v) { v.firmwareVersion = fw; }});
  }
  if (p.version.isServo) {
    const int kind = sim::IsCurrentServo(p) ? 1 : 2;
    out.push_back({"machine kind " + std::to_string(kind), nullptr, kind});
  }
  out.push_back({"the other EEPROM information form",
                 [](BoardVersionInfo& v) { v.eepromInfoLong = !v.eepromInfoLong; }});
  const bool newDriver = ((p.driverWord >> 16) & 0xFF) >= 3 || (p.driverWord >> 24) >= 2;
  if (newDriver) out.push_back({"the first light driver", nullptr, -1, true});
  return out;
}

std::vector<std::string> ControllerProfiles() {
  std::vector<std::string> names;
  for (const sim::Profile& p : sim::Profiles()) {
    if (p.version.protocolVersion <= 5 && (p.version.isServo || p.version.isManualVision))
      names.push_back(p.name);
  }
  return names;
}

// The `board` control's answer as key and value; quotes are taken off.
std::map<std::string, std::string> Fields(const std::string& answer) {
  std::map<std::string, std::string> out;
  std::size_t at = answer.find(' ');
  while (at != std::string::npos && at < answer.size()) {
    const std::size_t eq = answer.find('=', at + 1);
    if (eq == std::string::npos) break;
    const std::string key = answer.substr(at + 1, eq - at - 1);
    std::size_t end = 0;
    if (answer[eq + 1] == '"') {
      end = answer.find('"', eq + 2);
      out[key] = answer.substr(eq + 2, end - eq - 2);
      ++end;
    } else {
      end = answer.find(' ', eq);
      out[key] = answer.substr(eq + 1, end == std::string::npos ? end : end - eq - 1);
    }
    at = end;
  }
  return out;
}

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  for (std::string part; std::getline(in, part, ',');)
    parts.push_back(part);
  return parts;
}

class Conformance : public LinkFixture, public ::testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    profile_ = sim::FindProfile(GetParam());
    board_ = std::make_unique<sim::Simulator>(
        sim::SimulatorOptions{.profile = GetParam(), .deviceDir = dir.Path()});
    std::string error;
    ASSERT_TRUE(board_->Start(&error)) << error;
  }

  // Opens a link of its own; a neighbour of the first driver has its link-opened call fail.
  bool Open(CTavroUsb& link, bool oldDriver, bool skipVersion) {
    if (oldDriver) board_->Command("fault status link count=1");
    link.SetReportErrors(false);  // failures are expected here; the error log still has them
    return link.Open(false, skipVersion) == 0;
  }

  // The forms of the commands sent since the datagram numbered `since`.
  std::vector<Form> FormsSince(std::uint32_t since) const {
    std::vector<Form> forms;
    for (const sim::Transfer& t : board_->TrafficSeen().recent) {
      if (t.sequence <= since || t.code == kLinkOpenedCode) continue;
      forms.push_back({t.code, t.request[0], t.requestLength, t.replyLength});
    }
    return forms;
  }
  std::uint32_t Now() const { return board_->TrafficSeen().total; }

  // Runs every operation on `c` (over `link`); reopens the link after a failure.
  template <typename Check>
  void RunAll(CTavroUsb& link, Controllers c, bool oldDriver, Check check) {
    for (const Operation& op : EveryOperation()) {
      const std::uint32_t before = Now();
      const std::optional<bool> ok = op.run(c);
      if (!ok) continue;
      check(op, *ok, FormsSince(before));
      if (!link.IsOpen()) {
        ASSERT_TRUE(Open(link, oldDriver, true)) << op.name;
      }
    }
  }

  // What the board says of itself equals what the host read.
  void CompareWithTheBoard(CTavroUsbController& c) {
    std::map<std::string, std::string> said = Fields(board_->Command("board"));
    const BoardVersionInfo& v = c.VersionInfo();
    char version[16];
    std::snprintf(version, sizeof version, "%.2f", static_cast<double>(v.firmwareVersion));
    EXPECT_EQ(said["firmware"], v.firmwareName);
    EXPECT_EQ(said["version"], version);
    EXPECT_EQ(said["revision"], std::to_string(v.boardRevision));
    BoardIdentity id;
    ASSERT_TRUE(c.ReadBoardIdentity(id));
    EXPECT_EQ((std::tuple{said["serial"], said["machine"], said["model"]}),
              (std::tuple{id.serialNumber, id.machineName, id.modelName}));
    const EepromInfo& e = c.EepromInformation();
    const std::vector<std::string> eeprom = Split(said["eeprom"]);
    ASSERT_EQ(eeprom.size(), 6u);
    const std::uint32_t host[6] = {e.userSize, e.machineSize,  e.updateSize,
                                   e.pageSize, e.maxReadWrite, e.hasCopy ? 1u : 0u};
    for (std::size_t i = 0; i < 6; ++i) {
      if (eeprom[i] != "-") {
        EXPECT_EQ(eeprom[i], std::to_string(host[i])) << "eeprom field " << i;
      }
    }
    std::uint16_t fpga = 0;
    ASSERT_TRUE(c.GetFpgaVersion(fpga));
    if (fpga != 0) {
      EXPECT_EQ(said["fpga"], std::to_string(fpga));
    }
    auto* servo = dynamic_cast<CTavroUsbServo*>(&c);
    for (std::uint32_t chip = 0; servo && chip < 2; ++chip) {
      PmdVersion pmd;
      ASSERT_TRUE(servo->GetPmdVersion(pmd, chip));
      if (pmd.family == 0) continue;  // not asked: the gate gives zeros
      const std::string words = std::to_string(pmd.family) + "," + std::to_string(pmd.motor) + "," +
                                std::to_string(pmd.axes) + "," + std::to_string(pmd.attributes) +
                                "," + std::to_string(pmd.customer) + "," +
                                std::to_string(pmd.major) + "," + std::to_string(pmd.minor);
      EXPECT_EQ(said["chip" + std::to_string(chip)], words);
    }
  }

  template <typename Controller>
  void Run() {
    // The right forms: every operation succeeds, and each form it used is one the board speaks.
    std::map<std::uint8_t, std::set<Form>> spoken;
    {
      CTavroUsb link;
      ASSERT_TRUE(Open(link, false, false));
      Controller c(link);
      CompareWithTheBoard(c);
      int ran = 0;
      RunAll(link, ControllersOf(c), false,
             [&](const Operation& op, bool ok, const std::vector<Form>& forms) {
               ++ran;
               // Some operations are false by design where the board lacks them, and send nothing.
               EXPECT_TRUE(ok || forms.empty()) << op.name;
               for (const Form& f : forms)
                 spoken[f.command].insert(f);
             });
      EXPECT_GT(ran, 40);
      EXPECT_TRUE(link.IsOpen());
      // The driver's describe request belongs to the window alone: no operation, and no open,
      // sends it.
      EXPECT_EQ(board_->Command("count describe"), "ok 0");
    }
    // Each neighbour: an operation that sends a command in another form than the board's fails.
    int mistakes = 0;
    for (const Neighbour& n : NeighboursOf(*profile_)) {
      SCOPED_TRACE(n.name);
      CTavroUsb link;
      ASSERT_TRUE(Open(link, n.oldDriver, false));
      Mistaken<Controller> c(link, n);
      RunAll(link, ControllersOf(c), n.oldDriver,
             [&](const Operation& op, bool ok, const std::vector<Form>& forms) {
               for (const Form& f : forms) {
                 const auto known = spoken.find(f.command);
                 if (known == spoken.end() || known->second.count(f)) continue;
                 ++mistakes;
                 EXPECT_FALSE(ok) << op.name
                                  << " passed in a form the board does not speak: " << Describe(f);
                 break;
               }
             });
    }
    EXPECT_GT(mistakes, 0) << "no neighbour sent a form of its own";
    RecordProperty("neighbouring_forms_refused", mistakes);
  }

  const sim::Profile* profile_ = nullptr;
  std::unique_ptr<sim::Simulator> board_;
};

TEST_P(Conformance, EveryOperationAgreesWithTheBoardAndNoNeighbouringFormPasses) {
  if (profile_->version.isServo) {
    Run<CTavroUsbServo>();
  } else {
    Run<CTavroUsbManualVision>();
  }
}

INSTANTIATE_TEST_SUITE_P(Profiles, Conformance, ::testing::ValuesIn(ControllerProfiles()),
                         [](const auto& param) {
                           std::string name = param.param;
                           for (char& c : name) {
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           }
                           return name;
                         });

}  // namespace
