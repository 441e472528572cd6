// Parameter blocks in a real keyed file: the exact text a store writes, what a load makes of text
// written elsewhere, the serial block's two sets of keys, and the controllers' interfaces.
#include "link/ParameterBlocks.h"

#include <cstdio>

#include "config/Configuration.h"
#include "tests/config/ConfigFiles.h"
#include "tests/link/ControllerFixture.h"

namespace {

using namespace testing_support;
using config_test::ReadBytes;
using config_test::WriteBytes;

// UTF-8 text as the file holds it: UTF-16LE behind a byte order mark.
std::string FileBytes(const std::string& utf8) {
  std::string out("\xFF\xFE", 2);
  for (char16_t unit : text::ToUtf16(utf8)) {
    out += static_cast<char>(unit & 0xFF);
    out += static_cast<char>(unit >> 8);
  }
  return out;
}

const std::string kEAcute = "\xC3\xA9";         // one UTF-16 unit
const std::string kEmoji = "\xF0\x9F\x98\x80";  // a surrogate pair
const std::string kFourteen = "ABCDEFGHIJKLMN";

PlatenParameters Sample() {
  PlatenParameters p;
  p.Serial = {kFourteen + kEmoji + "tail", "", "P-200", 1, 2, 3, false};
  for (int i = 0; i < 20; ++i)
    p.Serial.machineName += kEAcute;
  // Size and Offset are the two triples before SlowSpeedTurns.
  p.Define = {120000, 4000, 500, 25,   8000, 1.23456789, 1800,
              10,     50,   8,   300,  true, false,      kIndexMarkInverted,
              400,    300,  150, -100, 0,    25,         3};
  p.Pid = {3000000000u, 1200, 3, 1000, 65535, 0, 7, 1, 16, -5};
  return p;
}

class ParameterBlocksTest : public ControllerTest {
 protected:
  std::string Path() const { return scratch / "Blocks.ini"; }
  void Write(const std::string& text) { WriteBytes(Path(), FileBytes(text)); }
  std::string Value(const std::string& section, const std::string& key) {
    FileConfiguration file(Path(), false);
    std::string value = "<missing>";
    if (file.OpenSection(section, false)) file.GetValue(key, value);
    return value;
  }

  config_test::ScratchDir scratch;
};

TEST_F(ParameterBlocksTest, AStoredRecordIsExactTextAndComesBackCutAndParsed) {
  const PlatenParameters in = Sample();
  {
    FileConfiguration file(Path(), false);
    kPlatenBlocks.StoreParameters(file, in, true);
  }
  std::string sixteen;
  for (int i = 0; i < 16; ++i)
    sixteen += kEAcute;
  EXPECT_EQ(ReadBytes(Path()),
            FileBytes("\r\n[DEFINE:PLATEN_SERIAL]\r\nSerialNumber=" + kFourteen + kEmoji +
                      "\r\nMachineName=" + sixteen +
                      "\r\nModelName=P-200\r\n"
                      "\r\n[DEFINE:PLATEN]\r\nSpeed=120000\r\nSlowSpeed=4000\r\nAccel=500\r\n"
                      "Jerk=25\r\nRotaryEncoderRes=8000\r\nGear=1.234568\r\nCurrent=1800\r\n"
                      "SettleWindow=10\r\nSettleTime=50\r\nMotorPoles=8\r\n"
                      "MotorSaturationCounter=300\r\nEncoderSwap=1\r\nMotorSwap=0\r\n"
                      "InvertIndex=1\r\nIndexMarkExists=1\r\nSizeX=400\r\nSizeY=300\r\n"
                      "SizeZ=150\r\nOffsetX=-100\r\nOffsetY=0\r\nOffsetZ=25\r\n"
                      "SlowSpeedTurns=3\r\n"
                      "\r\n[PID:PLATEN]\r\nKp=3000000000\r\nKd=1200\r\nKi=3\r\nIl=1000\r\n"
                      "Fe=65535\r\nKvff=0\r\nKaff=7\r\nDt=1\r\nKout=16\r\nMb=-5\r\n"));

  // The identity numbers were not written, so the reader's record keeps its own.
  PlatenParameters out;
  out.Serial = {"", "", "", 70, 71, 72, true};
  {
    FileConfiguration file(Path(), false);
    kPlatenBlocks.LoadParameters(file, out, true);
  }
  PlatenParameters expected = in;
  expected.Serial = {kFourteen, sixteen.substr(0, 15 * kEAcute.size()), "P-200", 70, 71, 72, true};
  expected.Define.Gear = 1.234568;
  expected.Pid.Kp = 2147483647;  // read as a signed number
  EXPECT_EQ(out, expected);
}

TEST_F(ParameterBlocksTest, SerialNumberAndIdentityKeysOnlyWithSerial) {
  Write(
      "[DEFINE:WAXIS_SERIAL]\r\nSerialNumber=OLD-1\r\nMachineName=Old\r\nModelType=513\r\n"
      "IdentityLong1=40000\r\nIdentityLong2=7\r\nIsEngineeringModel=2\r\n");
  {
    FileConfiguration file(Path(), false);
    kWAxisBlocks.StoreSerial(file, {"NEW-2", "New", "W-1", 9, 9, 9, false}, false);
  }
  EXPECT_EQ(Value("DEFINE:WAXIS_SERIAL", "SerialNumber"), "OLD-1");
  EXPECT_EQ(Value("DEFINE:WAXIS_SERIAL", "MachineName"), "New");
  EXPECT_EQ(Value("DEFINE:WAXIS_SERIAL", "ModelType"), "513");

  FileConfiguration file(Path(), false);
  BoardIdentity without;
  kWAxisBlocks.LoadSerial(file, without, false);
  EXPECT_EQ(without, (BoardIdentity{"", "New", "W-1", 513, 0, 0, false}));
  BoardIdentity with;
  kWAxisBlocks.LoadSerial(file, with, true);
  EXPECT_EQ(with, (BoardIdentity{"OLD-1", "New", "W-1", 513, 40000, 7, true}));
}

TEST_F(ParameterBlocksTest, IndexTypeTravelsAsTwoFlags) {
  const char* const kFlags[] = {"0 1", "1 1", "0 0"};  // InvertIndex, IndexMarkExists
  for (std::uint8_t type = 0; type < 3; ++type) {
    ChannelDefine in;
    in.IndexType = type;
    {
      FileConfiguration file(Path(), false);
      kWAxisBlocks.StoreDefine(file, in);
    }
    EXPECT_EQ(Value("DEFINE:WAXIS", "InvertIndex") + " " + Value("DEFINE:WAXIS", "IndexMarkExists"),
              kFlags[type]);
    ChannelDefine out;
    out.IndexType = 9;
    FileConfiguration file(Path(), false);
    kWAxisBlocks.LoadDefine(file, out);
    EXPECT_EQ(out.IndexType, type);
  }

  // A lone key takes the other flag from the field as passed in; without both nothing changes.
  auto load = [&](const std::string& keys, std::uint8_t before) {
    Write("[DEFINE:WAXIS]\r\n" + keys);
    ChannelDefine out;
    out.IndexType = before;
    FileConfiguration file(Path(), false);
    kWAxisBlocks.LoadDefine(file, out);
    return int{out.IndexType};
  };
  EXPECT_EQ(load("InvertIndex=1\r\nIndexMarkExists=0\r\n", 1), 2);
  EXPECT_EQ(load("IndexMarkExists=0\r\n", 1), 2);
  EXPECT_EQ(load("InvertIndex=0\r\n", 1), 0);
  EXPECT_EQ(load("Speed=1\r\n", 9), 9);
}

TEST_F(ParameterBlocksTest, NumbersFromElsewhereReadAsTheCRuntimeDoes) {
  Write(
      "[PID:PLATEN]\r\nKp=  +12abc\r\nKd=abc\r\nKi=\r\nIl=-1\r\nFe=99999999999\r\n"
      "Mb=-99999999999\r\n"
      "[DEFINE:PLATEN]\r\nGear= 2.5e1x\r\nEncoderSwap=2\r\nSizeX=-1\r\nOffsetX=70000\r\n");
  PlatenParameters out = Sample();
  FileConfiguration file(Path(), false);
  kPlatenBlocks.LoadParameters(file, out, true);
  const ChannelPid pid{12, 0, 0, 0xFFFFFFFFu, 2147483647, 0, 7, 1, 16, -2147483647 - 1};
  EXPECT_EQ(out.Pid, pid);
  EXPECT_EQ(out.Define.Gear, 25.0);
  EXPECT_TRUE(out.Define.EncoderSwap);
  EXPECT_EQ(out.Define.Size[0], 65535);
  EXPECT_EQ(out.Define.Offset[0], 70000 - 65536);
  EXPECT_EQ(out.Define.Speed, 120000u);  // no key, field kept
  EXPECT_EQ(out.Serial, Sample().Serial);
}

TEST_F(ParameterBlocksTest, ALoadWithoutItsSectionChangesNeitherFileNorRecord) {
  Write("[OTHER]\r\nA=1\r\n");
  ChannelPid pid{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  {
    FileConfiguration file(Path(), false);
    kWAxisBlocks.LoadPid(file, pid);
  }
  EXPECT_EQ(ReadBytes(Path()), FileBytes("[OTHER]\r\nA=1\r\n"));
  EXPECT_EQ(pid, (ChannelPid{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
}

// Both controller classes carry the same bodies, reached through the interfaces, without a
// single transfer.
TEST_F(ParameterBlocksTest, BothControllersStoreAndLoadThroughTheirInterfaces) {
  const PlatenParameters p = Sample();
  const WAxisParameters w{p.Serial, p.Define, p.Pid};
  auto direct = [&](bool platen) {
    {
      FileConfiguration file(Path(), false);
      kWAxisBlocks.StoreParameters(file, w, true);
      if (platen) kPlatenBlocks.StoreParameters(file, p, true);
    }
    const std::string bytes = ReadBytes(Path());
    std::remove(Path().c_str());
    return bytes;
  };
  const std::string wOnly = direct(false), both = direct(true);
  EXPECT_EQ(wOnly.find(FileBytes("Size").substr(2)), std::string::npos);
  EXPECT_EQ(wOnly.find(FileBytes("SlowSpeedTurns").substr(2)), std::string::npos);

  CTavroUsbServo& servo = Servo();
  WAxisParameters wBack;
  PlatenParameters pBack;
  {
    FileConfiguration file(Path(), false);
    static_cast<CTavroUsbWAxis&>(servo).StoreParameters(file, w, true);
    static_cast<CTavroUsbPlaten&>(servo).StoreParameters(file, p, true);
    static_cast<CTavroUsbWAxis&>(servo).LoadSerial(file, wBack.Serial, true);
    static_cast<CTavroUsbPlaten&>(servo).LoadParameters(file, pBack, true);
  }
  EXPECT_EQ(ReadBytes(Path()), both);
  EXPECT_EQ(wBack.Serial, pBack.Serial);
  EXPECT_EQ(pBack.Define.Offset[0], -100);
  EXPECT_TRUE(Sent().empty());

  std::remove(Path().c_str());
  CTavroUsbWAxis& manual = ManualVision();
  {
    FileConfiguration file(Path(), false);
    manual.StoreParameters(file, w, true);
    manual.LoadDefine(file, wBack.Define, true);
    manual.LoadPid(file, wBack.Pid, true);
  }
  EXPECT_EQ(ReadBytes(Path()), wOnly);
  EXPECT_EQ(wBack.Pid.Mb, -5);
  EXPECT_EQ(wBack.Define.Size[0], 0);
  EXPECT_TRUE(Sent().empty());
}

}  // namespace
