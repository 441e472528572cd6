// The machine image as the host's reader sees it: signatures, and the fields it takes by offset.
#include "wire/WireFormat.h"
#include "sim/MachineImage.h"

#include <gtest/gtest.h>

namespace sim {
namespace {

TEST(MachineImage, SignaturesAndFieldsAtTheirImageOffsets) {
  const Profile& p = *FindProfile("autovision");
  const std::vector<std::uint8_t> image = BuildMachineImage(p);
  ASSERT_EQ(image.size(), 1022u);
  for (std::size_t at : {0, 162, 232, 484, 554, 596, 644, 876}) {
    EXPECT_EQ(image[at], 0x01) << at;
    EXPECT_EQ(image[at + 1], 0x01) << at;
  }
  const wire::Bytes b = image;
  EXPECT_EQ(wire::GetWideText(b, 2), p.identity.serialNumber);
  EXPECT_EQ(wire::GetWideText(b, 66), p.identity.modelName);
  EXPECT_EQ(wire::GetWord(b, 98), p.identity.identityWord);
  EXPECT_EQ(wire::GetLong(b, 100), p.identity.identityLong1);
  EXPECT_EQ(wire::GetWideText(b, 164), p.namedRecord.name);
  for (std::size_t axis = 0; axis < 4; ++axis) {
    SCOPED_TRACE(axis);
    const AxisSetup& a = p.axes[axis];
    EXPECT_EQ(wire::GetWord(b, 306 + 2 * axis), a.motorMaximum);  // read by the motion tests
    EXPECT_EQ(wire::GetSignedLong(b, 486 + 4 * axis), a.countsPerMm);
    EXPECT_EQ(wire::GetReal(b, 234 + 4 * axis), a.axisReal);
    EXPECT_EQ(wire::GetWord(b, 646 + 2 * axis), a.kp);
    EXPECT_EQ(wire::GetLong(b, 670 + 4 * axis), a.il);
    EXPECT_EQ(wire::GetLong(b, 686 + 4 * axis), a.fe);
    EXPECT_EQ(wire::GetSignedWord(b, 734 + 2 * axis), a.mb);
  }
  // Nothing runs into the tails that an upgrade would zero: section 2 from 190, section 6 from 98.
  for (std::size_t at = 232 + 190; at < 484; ++at)
    EXPECT_EQ(image[at], 0) << at;
  for (std::size_t at = 644 + 98; at < 876; ++at)
    EXPECT_EQ(image[at], 0) << at;
}

}  // namespace
}  // namespace sim
