#include "sim/MachineImage.h"

#include "wire/WireFormat.h"

namespace sim {

namespace {

// One section of the image being written: offsets below count from the section's start, and an
// array of four is indexed by axis (X, Y, Z, Zoom). Writes past the section are dropped.
class Section {
 public:
  Section(std::vector<std::uint8_t>& image, std::size_t index)
      : bytes_(image.data() + kImageSections[index].offset, kImageSections[index].length) {
    bytes_[0] = kCurrentSignature[0];
    bytes_[1] = kCurrentSignature[1];
  }

  void Byte(std::size_t at, std::uint8_t v) { wire::PutByte(bytes_, at, v); }
  void Flag(std::size_t at, bool v) { wire::PutFlag(bytes_, at, v); }
  void Word(std::size_t at, std::uint16_t v) { wire::PutWord(bytes_, at, v); }
  void Long(std::size_t at, std::uint32_t v) { wire::PutLong(bytes_, at, v); }
  void Real(std::size_t at, float v) { wire::PutReal(bytes_, at, v); }
  void Text(std::size_t at, const std::u16string& v) { wire::PutWideText(bytes_, at, v); }

  // Arrays of four, one element per axis, from a function of the axis index.
  template <typename Fn>
  void Words(std::size_t at, Fn fn) {
    for (std::size_t i = 0; i < 4; ++i)
      Word(at + 2 * i, static_cast<std::uint16_t>(fn(i)));
  }
  template <typename Fn>
  void Longs(std::size_t at, Fn fn) {
    for (std::size_t i = 0; i < 4; ++i)
      Long(at + 4 * i, static_cast<std::uint32_t>(fn(i)));
  }
  template <typename Fn>
  void Flags(std::size_t at, Fn fn) {
    for (std::size_t i = 0; i < 4; ++i)
      Flag(at + i, fn(i));
  }
  template <typename Fn>
  void Reals(std::size_t at, Fn fn) {
    for (std::size_t i = 0; i < 4; ++i)
      Real(at + 4 * i, fn(i));
  }

 private:
  wire::MutableBytes bytes_;
};

void WriteIdentity(Section s, const IdentityRecord& id) {
  s.Text(2, id.serialNumber);
  s.Text(34, id.machineName);
  s.Text(66, id.modelName);
  s.Word(98, id.identityWord);
  s.Long(100, id.identityLong1);
  s.Long(104, id.identityLong2);
  s.Flag(108, id.identityFlag);
  s.Word(110, 1);
}

void WriteNamedRecord(Section s, const NamedRecord& r) {
  s.Text(2, r.name);
  s.Real(34, r.values[0]);
  s.Real(38, r.values[1]);
  s.Real(42, r.values[2]);
  s.Byte(46, r.byte1);
  s.Byte(47, r.byte2);
}

// The carried axis fields have no meaning the host uses; they get values that differ per field
// and per axis (field number times a step, plus the axis), so a misplaced field is visible.
void WriteAxisDefinitionFirstHalf(Section s, const std::array<AxisSetup, 4>& axes) {
  const auto carried = [](unsigned field) {
    return [field](std::size_t i) { return 100 * field + i; };
  };
  const auto flag = [](unsigned field) {
    return [field](std::size_t i) { return (field + i) % 2 == 0; };
  };
  s.Reals(2, [&](std::size_t i) { return axes[i].axisReal; });
  s.Words(18, carried(1));
  s.Words(26, carried(2));
  s.Words(34, carried(3));
  s.Words(42, carried(4));
  s.Words(50, carried(5));
  s.Longs(58, [](std::size_t i) { return 100000 + i; });
  s.Words(74, [&](std::size_t i) { return axes[i].motorMaximum; });
  s.Words(82, carried(6));
  s.Words(90, carried(7));
  s.Flags(98, flag(1));
  s.Flags(102, flag(2));
  s.Flags(106, [](std::size_t i) { return i == 3; });  // the zoom's real is kept as it is
  s.Flags(110, flag(4));
  s.Flags(114, flag(5));
  s.Flags(118, flag(6));
  s.Longs(122, [](std::size_t i) { return 200000 + i; });
  s.Flags(138, flag(7));
  s.Words(142, carried(8));
  for (std::size_t i = 0; i < 4; ++i)
    s.Byte(150 + i, 0);
  s.Words(154, carried(9));
  s.Longs(162, [](std::size_t i) { return 300000 + i; });
  s.Words(178, carried(10));
  s.Flags(186, flag(8));
}

void WriteAxisDefinitionSecondHalf(Section s, const std::array<AxisSetup, 4>& axes) {
  s.Longs(2, [&](std::size_t i) { return axes[i].countsPerMm; });
  s.Flags(18, [](std::size_t i) { return i != 3; });
  s.Flags(22, [](std::size_t i) { return i == 2; });
  s.Flags(26, [](std::size_t i) { return (6 + i) % 2 == 0; });  // second copy of AxisFlag6
  for (std::size_t i = 0; i < 4; ++i)
    s.Byte(30 + i, static_cast<std::uint8_t>(0x10 + i));
  s.Flags(34, [](std::size_t i) { return i < 2; });
  s.Words(42, [](std::size_t i) { return 1100 + i; });
  s.Flags(50, [](std::size_t i) { return i == 0; });
}

void WriteMachineData(Section s) {
  s.Flag(2, true);
  s.Real(7, 0.25f);
  s.Flag(11, false);
  s.Long(12, 0x00012345);
  s.Long(16, 0x00067890);
}

void WritePlainBytes(Section s) {
  for (std::size_t at = 2; at < 34; ++at)
    s.Byte(at, static_cast<std::uint8_t>(at * 3));
}

void WriteTuning(Section s, const std::array<AxisSetup, 4>& axes) {
  s.Words(2, [&](std::size_t i) { return axes[i].kp; });
  s.Words(10, [&](std::size_t i) { return axes[i].kd; });
  s.Words(18, [&](std::size_t i) { return axes[i].ki; });
  s.Longs(26, [&](std::size_t i) { return axes[i].il; });
  s.Longs(42, [&](std::size_t i) { return axes[i].fe; });
  s.Words(58, [&](std::size_t i) { return axes[i].kvff; });
  s.Words(66, [&](std::size_t i) { return axes[i].kaff; });
  s.Words(74, [&](std::size_t i) { return axes[i].dt; });
  s.Words(82, [&](std::size_t i) { return axes[i].kout; });
  s.Words(90, [&](std::size_t i) { return static_cast<std::uint16_t>(axes[i].mb); });
}

void WriteFurtherAxisData(Section s) {
  s.Longs(2, [](std::size_t i) { return 400000 + i; });
  s.Longs(18, [](std::size_t i) { return 500000 + i; });
  s.Reals(34, [](std::size_t i) { return 1.5f + static_cast<float>(i); });
}

}  // namespace

std::vector<std::uint8_t> BuildMachineImage(const Profile& profile) {
  std::vector<std::uint8_t> image(kMachineImageBytes, 0);
  WriteIdentity(Section(image, 0), profile.identity);
  WriteNamedRecord(Section(image, 1), profile.namedRecord);
  WriteAxisDefinitionFirstHalf(Section(image, 2), profile.axes);
  WriteAxisDefinitionSecondHalf(Section(image, 3), profile.axes);
  WriteMachineData(Section(image, 4));
  WritePlainBytes(Section(image, 5));
  WriteTuning(Section(image, 6), profile.axes);
  WriteFurtherAxisData(Section(image, 7));
  return image;
}

}  // namespace sim
