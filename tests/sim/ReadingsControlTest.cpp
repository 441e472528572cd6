// The board's measurements a person changes through the control language: supply rails set off
// nominal and drifting, and the laser switched or re-rated by the board itself.
#include <chrono>

#include "SimTestSupport.h"
#include "wire/WireFormat.h"

namespace sim::testing {
namespace {

using std::chrono::seconds;

class ReadingsControlTest : public SimTest {
 protected:
  void SetUp() override { StartConnected("autovision"); }
  // Channel `i`'s rail over its nominal, as the converter reports it (full scale is the nominal
  // over the divider; channel 3's divider is 0.8503).
  double Share(std::size_t i, double divider) {
    const RawReply r = client_->Command(Request(0x57, 15, {0, 3}), 33);
    return wire::GetWord(r.bytes, 1 + 2 * i) / (65535.0 * divider);
  }
  std::uint32_t LaserWord(std::size_t word) {
    const RawReply r = client_->Command(Request(0x2A, 2), 126);
    return wire::GetLong(r.bytes, 2 + 4 * word);
  }
};

TEST_F(ReadingsControlTest, ASupplySetOffNominalReadsThereAndDriftsOnWithMachineTime) {
  EXPECT_NEAR(Share(3, 0.8503), 0.99, 0.005) << "as built, about 1 % low";
  EXPECT_EQ(Control("supply 3 7"), "ok supply 3 +7.00% drift +0.00%/s");
  EXPECT_NEAR(Share(3, 0.8503), 1.07, 0.005);
  EXPECT_NEAR(Share(4, 0.3636), 0.99, 0.005) << "the other rails stay";

  Control("supply 3 -2 -1");  // 1 % a second downwards
  clock_.SleepFor(seconds(10));
  EXPECT_NEAR(Share(3, 0.8503), 0.88, 0.005);
  EXPECT_EQ(Control("supply 3").rfind("ok supply 3 -12.0", 0), 0u);

  Control("supply all 0");
  EXPECT_NEAR(Share(3, 0.8503), 1.0, 0.005);
  EXPECT_NEAR(Share(15, 0.9324), 1.0, 0.005);
}

TEST_F(ReadingsControlTest, SupplyRefusesWhatNoRailCanDo) {
  ExpectRefused({"supply", "supply 16 5", "supply x 5", "supply 3 60", "supply 3 5 11",
                 "supply 3 nan", "supply 3 5 1 2", "supply all"});
}

TEST_F(ReadingsControlTest, TheLaserSwitchesAndChangesItsRateByItself) {
  EXPECT_EQ(LaserWord(19), 1u);
  Control("laser off");
  EXPECT_EQ(LaserWord(19), 0u);
  Control("laser rate 4");
  EXPECT_EQ(LaserWord(1), 4u);
  ExpectRefused({"laser rate 16"});
  // The machine's own laser commands are still there.
  EXPECT_EQ(Control("laser notready"), "ok laser notready");
  ExpectRefused({"laser sideways"});
}

// The board's sensitivity maximum may be set, 0 (a probe without a sensitivity to set) included;
// what the probe is set to stays within it.
TEST_F(ReadingsControlTest, TheSensitivityMaximumIsSetAndBoundsTheSensitivity) {
  StartConnected("servo");
  const auto word = [&](std::uint8_t code) {
    return wire::GetWord(client_->Command(Request(code, 1), 3).bytes, 1);
  };
  const auto set = [&](std::uint16_t value) {
    Packet q = Request(0x77, 3);
    wire::PutWord(q, 1, value);
    EXPECT_EQ(client_->Command(q, 2).bytes, (Packet{0x77, 0}));
  };
  EXPECT_EQ(word(0x79), 1023);
  set(900);
  EXPECT_EQ(Control("sensitivity max 500"), "ok sensitivity=500 max=500") << "the value follows";
  EXPECT_EQ(word(0x79), 500);
  set(800);
  EXPECT_EQ(word(0x78), 500);
  Control("sensitivity max 0");
  EXPECT_EQ(word(0x79), 0);
  set(1);
  EXPECT_EQ(word(0x78), 0);
  EXPECT_EQ(Control("sensitivity"), "ok sensitivity=0 max=0");
  ExpectRefused({"sensitivity max -1", "sensitivity max 65536", "sensitivity 5"});
}

}  // namespace
}  // namespace sim::testing
