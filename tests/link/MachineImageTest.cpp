// The machine image: its host form, the upgrade of older sections, and how a servo board's image
// is read or, on boards that keep none, put together from the per-axis commands.
#include <array>
#include <cmath>
#include <cstring>

#include "link/MachineImage.h"
#include "tests/link/ControllerFixture.h"

namespace {

using namespace testing_support;

std::uint8_t* Section(EepromImage& image, std::size_t section) {
  return image.bytes.data() + kImageSectionPlaces[section].offset;
}

void Sign(EepromImage& image, std::size_t section, std::uint8_t a, std::uint8_t b) {
  Section(image, section)[0] = a;
  Section(image, section)[1] = b;
}

float RealAt(const std::uint8_t* at) {
  float v;
  std::memcpy(&v, at, sizeof v);
  return v;
}

void PutRealAt(std::uint8_t* at, float v) {
  std::memcpy(at, &v, sizeof v);
}

TEST(MachineImage, HostFormTurnsFieldsAndDropsSectionsWithoutAKnownSignature) {
  EepromImage image;
  image.bytes.fill(0xAB);
  Sign(image, 0, 0x01, 0x01);
  Sign(image, 1, 0xBA, 0x5E);
  // Signatures that are one byte off either known one.
  Sign(image, 2, 0xBA, 0x00);
  Sign(image, 3, 0x01, 0x02);
  Sign(image, 4, 0x02, 0x01);
  Sign(image, 6, 0x01, 0x01);
  std::uint8_t* s0 = Section(image, 0);
  s0[98] = 0x12;  // identity word, big-endian on the EEPROM
  s0[99] = 0x34;
  s0[108] = 0x80;  // a flag
  std::uint8_t* s6 = Section(image, 6);
  const std::uint8_t il[4] = {0x00, 0x01, 0x02, 0x03};  // tuning Il of axis 1
  std::memcpy(s6 + 26 + 4, il, 4);

  image::ToHostForm(image);

  EXPECT_EQ(s0[98], 0x34);
  EXPECT_EQ(s0[99], 0x12);
  EXPECT_EQ(s0[108], 1);
  EXPECT_EQ(s0[2], 0xAB);  // text is left as it is
  std::uint32_t hostIl;
  std::memcpy(&hostIl, s6 + 26 + 4, 4);
  EXPECT_EQ(hostIl, 0x00010203u);
  for (std::size_t section : {2, 3, 4, 5, 7}) {
    const std::uint8_t* s = Section(image, section);
    EXPECT_TRUE(std::all_of(s, s + kImageSectionPlaces[section].length,
                            [](std::uint8_t b) { return b == 0; }))
        << "section " << section;
  }
  EXPECT_EQ(image::SectionLayout(image, 1), image::Layout::Older);
}

TEST(MachineImage, AnErasedEepromBecomesAnEmptyCurrentImage) {
  EepromImage image;
  image.bytes.fill(0xFF);
  image::ToHostForm(image);
  image::Upgrade(image);
  for (std::size_t section = 0; section < kImageSectionCount; ++section) {
    EXPECT_EQ(image::SectionLayout(image, section), image::Layout::Current);
    const std::uint8_t* s = Section(image, section);
    EXPECT_TRUE(std::all_of(s + 2, s + kImageSectionPlaces[section].length,
                            [](std::uint8_t b) { return b == 0; }));
  }
  EXPECT_EQ(image.MotorMaximum(0), 0);
}

TEST(MachineImage, UpgradeConvertsTheOlderAxisRealUnlessItsFlagSaysItIsCurrent) {
  EepromImage image;
  for (std::size_t section = 0; section < kImageSectionCount; ++section)
    Sign(image, section, 0xBA, 0x5E);
  std::uint8_t* s2 = Section(image, 2);
  PutRealAt(s2 + 2, 2540.0f);      // axis 0: counts per inch, converted
  PutRealAt(s2 + 2 + 4, 2540.0f);  // axis 1: its AxisFlag3 says it is already converted
  s2[106 + 1] = 1;
  PutRealAt(s2 + 2 + 8, 0.0f);  // axis 2: zero stays zero
  s2[150] = 7;                  // AxisByte1 is dropped
  Section(image, 0)[100] = 9;   // beyond the older identity's end (98)
  Section(image, 7)[40] = 9;    // beyond the older section 7's end (34)

  image::Upgrade(image);

  EXPECT_NEAR(RealAt(s2 + 2), 0.01f, 1e-7);
  EXPECT_EQ(RealAt(s2 + 2 + 4), 2540.0f);
  EXPECT_EQ(RealAt(s2 + 2 + 8), 0.0f);
  EXPECT_EQ(s2[150], 0);
  EXPECT_EQ(Section(image, 0)[100], 0);
  EXPECT_EQ(Section(image, 7)[40], 0);
  for (std::size_t section = 0; section < kImageSectionCount; ++section)
    EXPECT_EQ(image::SectionLayout(image, section), image::Layout::Current);
}

TEST(MachineImage, UpgradeOfACurrentImageOnlyZeroesTheTails) {
  EepromImage image;
  for (std::size_t section = 0; section < kImageSectionCount; ++section)
    Sign(image, section, 0x01, 0x01);
  std::uint8_t* s2 = Section(image, 2);
  PutRealAt(s2 + 2, 2540.0f);
  s2[150] = 7;
  Section(image, 0)[100] = 9;  // inside the current identity
  Section(image, 0)[115] = 9;  // beyond it (112)
  Section(image, 7)[40] = 9;   // inside the current section 7 (50)

  image::Upgrade(image);

  EXPECT_EQ(RealAt(s2 + 2), 2540.0f);
  EXPECT_EQ(s2[150], 7);
  EXPECT_EQ(Section(image, 0)[100], 9);
  EXPECT_EQ(Section(image, 0)[115], 0);
  EXPECT_EQ(Section(image, 7)[40], 9);
}

// ---- reading it from a board ----------------------------------------------------------------

using ServoImageTest = ControllerTest;

TEST_F(ServoImageTest, ABoardWithAnImageIsReadInPiecesAndTurnedToHostForm) {
  replies[0x28] = LongEepromInfo(2048, 32, 256);
  // Section 2 signed current, axis 0's MotorMaximum 0x0102 big-endian; the rest erased.
  std::array<std::uint8_t, 1024> memory;
  memory.fill(0xFF);
  memory[232] = memory[233] = 0x01;
  memory[232 + 74] = 0x01;
  memory[232 + 75] = 0x02;
  answer = [&](const BoardRequest& r) { return EepromBlockRead(r, memory.data()); };
  CTavroUsbServo& servo = Servo();
  EepromImage image;
  std::uint32_t status = 9;
  ASSERT_TRUE(servo.GetEepromImage(image, status, false));
  EXPECT_EQ(status, 0u);
  EXPECT_EQ(Sent().size(), 4u);  // 1022 bytes, 256 a piece
  EXPECT_EQ(image.MotorMaximum(0), 0x0102);
  EXPECT_EQ(image::SectionLayout(image, 0), image::Layout::Invalid);
  EXPECT_EQ(image::SectionLayout(image, 2), image::Layout::Current);
}

TEST_F(ServoImageTest, OlderBoardsPutTheImageTogetherFromTheirCommands) {
  version = FirstServoBoard(1.2f, 1);
  Bytes define = Distinct(47);
  wire::PutWord(define, 20, 1234);     // MotorMaximum
  wire::PutLong(define, 31, 0x10000);  // CountsPerMm
  wire::PutReal(define, 2, 2540.0f);   // AxisReal in the older form
  define[28] = 0;                      // AxisFlag3 clear
  replies[0x62] = define;
  Bytes named(65, 0);
  named[1] = 1;
  wire::PutWideText(named, 2, text::ToUtf16("Head"));
  replies[0x72] = named;
  Bytes machine(32, 0);
  wire::PutReal(machine, 6, 3.5f);
  replies[0x31] = machine;
  CTavroUsbServo& servo = Servo();

  EepromImage image;
  std::uint32_t status = 9;
  ASSERT_TRUE(servo.GetEepromImage(image, status, true));
  EXPECT_EQ(status, 0u);
  std::vector<std::uint8_t> codes;
  for (const BoardRequest& r : Sent())
    codes.push_back(r.bytes[0]);
  const std::vector<std::uint8_t> expected = {0x60, 0x72, 0x62, 0x62, 0x62, 0x62, 0x62, 0x62,
                                              0x62, 0x62, 0x31, 0x74, 0x74, 0x74, 0x74};
  EXPECT_EQ(codes, expected);
  EXPECT_EQ(image.MotorMaximum(2), 1234);
  EXPECT_EQ(image.CountsPerMm(2), 0x10000);
  EXPECT_NEAR(RealAt(Section(image, 2) + 2), 0.01f, 1e-7);
  EXPECT_EQ(text::ToUtf8(wire::GetWideText(Bytes(Section(image, 1), Section(image, 1) + 34), 2)),
            "Head");
  EXPECT_EQ(RealAt(Section(image, 4) + 7), 3.5f);
  for (std::size_t section = 0; section < kImageSectionCount; ++section)
    EXPECT_EQ(image::SectionLayout(image, section), image::Layout::Current);
}

TEST_F(ServoImageTest, AbsentOrUnusableRecordsReadAsNothing) {
  version = FirstServoBoard(1.13f, 1);
  version.hasCommand72 = false;
  CTavroUsbServo& old = Servo();
  MachineData data;
  bool valid = true;
  NamedRecord record;
  ASSERT_TRUE(old.GetMachineData(data));
  EXPECT_EQ(data.Real, -1.0f);
  ASSERT_TRUE(old.GetNamedRecord(valid, record));
  EXPECT_FALSE(valid);
  EXPECT_TRUE(Sent().empty());

  version = AutoVisionBoard();
  Bytes machine(32, 0);
  wire::PutReal(machine, 6, std::nanf(""));
  machine[10] = 1;
  replies[0x31] = machine;
  Bytes named(65, 0);
  named[1] = 1;
  named[2] = named[3] = 0xFF;  // an erased name
  replies[0x72] = named;
  CTavroUsbServo& servo = Servo();
  ASSERT_TRUE(servo.GetMachineData(data));
  EXPECT_EQ(data.Real, -1.0f);
  EXPECT_TRUE(data.Flag2);
  valid = true;
  record.Name = "stale";
  ASSERT_TRUE(servo.GetNamedRecord(valid, record));
  EXPECT_FALSE(valid);
  EXPECT_EQ(record, NamedRecord{});
}

}  // namespace
