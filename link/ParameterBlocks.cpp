#include "link/ParameterBlocks.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

#include "config/Configuration.h"
#include "config/Folders.h"
#include "util/Text.h"

namespace {

// Texts are written with at most 16 characters, the size of the board's field, and read into a
// field of 16 with its terminator, so at most 15 come back.
constexpr std::size_t kTextWritten = 16;
constexpr std::size_t kTextRead = 15;

// Numbers are read as the C runtime's atoi reads them (config::ToInt), which is what the other
// programs on these files use. An unsigned value above 2147483647 is written in full but reads
// back as 2147483647, where that reading sticks.
using config::ToInt;

// At most `units` UTF-16 units of the text, which is how the file's other readers and writers
// count characters; the record holds UTF-8. The text ends at a NUL, as a C string does, and at a
// line end, which would split the key's line. A character is never cut in two: a surrogate pair
// that would lose its second half goes as a whole.
std::string Cut(const std::string& utf8, std::size_t units) {
  std::u16string wide = text::ToUtf16(utf8);
  constexpr std::u16string_view kEnds(u"\0\r\n", 3);
  wide.resize(std::min({wide.find_first_of(kEnds), units, wide.size()}));
  if (!wide.empty() && wide.back() >= 0xD800 && wide.back() <= 0xDBFF) wide.pop_back();
  return text::ToUtf8(wide);
}

// Writers, one for each form of a field; the result of SetValue is not looked at, as a failed
// set can only mean that no section is open, which the caller has checked.
template <typename Int>
requires std::is_integral_v<Int>
void Put(Configuration& file, const std::string& key, Int value) {
  file.SetValue(key, std::to_string(value));
}
// Six decimals, so a ratio with more does not come back exactly.
void Put(Configuration& file, const std::string& key, double value) {
  file.SetValue(key, text::Format("%lf", value));
}
void PutText(Configuration& file, const std::string& key, const std::string& value) {
  file.SetValue(key, Cut(value, kTextWritten));
}

// Readers: a missing key leaves the field alone and gives false. Numbers go through ToInt and
// keep the low bits that fit the field, so a negative Offset comes back as it went; a flag is
// any number but 0.
template <typename Int>
requires std::is_integral_v<Int>
bool Get(Configuration& file, const std::string& key, Int& field) {
  std::string text;
  if (!file.GetValue(key, text)) return false;
  field = static_cast<Int>(ToInt(text));
  return true;
}
// As the C library's strtod: the program stays in the "C" locale, so the decimal point is '.'
// on both sides; text that is no number gives 0.
bool Get(Configuration& file, const std::string& key, double& field) {
  std::string text;
  if (!file.GetValue(key, text)) return false;
  field = std::strtod(text.c_str(), nullptr);
  return true;
}
bool GetText(Configuration& file, const std::string& key, std::string& field) {
  std::string text;
  if (!file.GetValue(key, text)) return false;
  field = Cut(text, kTextRead);
  return true;
}

// The keys of a block in their order in the file, each with its field, for the store and the
// load alike. `Pid` and `Define` may be const.
template <typename Pid, typename Fn>
void EachPidKey(Pid& pid, Fn&& fn) {
  fn("Kp", pid.Kp);
  fn("Kd", pid.Kd);
  fn("Ki", pid.Ki);
  fn("Il", pid.Il);
  fn("Fe", pid.Fe);
  fn("Kvff", pid.Kvff);
  fn("Kaff", pid.Kaff);
  fn("Dt", pid.Dt);
  fn("Kout", pid.Kout);
  fn("Mb", pid.Mb);
}

// The definition's keys in front of IndexType's two.
template <typename Define, typename Fn>
void EachDefineKey(Define& define, Fn&& fn) {
  fn("Speed", define.Speed);
  fn("SlowSpeed", define.SlowSpeed);
  fn("Accel", define.Accel);
  fn("Jerk", define.Jerk);
  fn("RotaryEncoderRes", define.RotaryEncoderRes);
  fn("Gear", define.Gear);
  fn("Current", define.Current);
  fn("SettleWindow", define.SettleWindow);
  fn("SettleTime", define.SettleTime);
  fn("MotorPoles", define.MotorPoles);
  fn("MotorSaturationCounter", define.MotorSaturationCounter);
  fn("EncoderSwap", define.EncoderSwap);
  fn("MotorSwap", define.MotorSwap);
}

constexpr char kAxisLetters[] = {'X', 'Y', 'Z'};

std::string AxisKey(const char* stem, std::size_t axis) {
  return stem + std::string(1, kAxisLetters[axis]);
}

// The platen's keys behind IndexType's two.
template <typename Define, typename Fn>
void EachPlatenKey(Define& define, Fn&& fn) {
  for (std::size_t axis = 0; axis < 3; ++axis)
    fn(AxisKey("Size", axis), define.Size[axis]);
  for (std::size_t axis = 0; axis < 3; ++axis)
    fn(AxisKey("Offset", axis), define.Offset[axis]);
  fn("SlowSpeedTurns", define.SlowSpeedTurns);
}

}  // namespace

void ParameterBlocks::StorePid(Configuration& file, const ChannelPid& in) const {
  if (!file.OpenSection(pidSection_, true)) return;
  EachPidKey(in, [&](const std::string& key, auto value) { Put(file, key, value); });
}

void ParameterBlocks::StoreDefine(Configuration& file, const ChannelDefine& in) const {
  if (!file.OpenSection(defineSection_, true)) return;
  const auto put = [&](const std::string& key, auto value) { Put(file, key, value); };
  EachDefineKey(in, put);
  // IndexType has two keys: whether the mark is inverted and whether there is a mark at all.
  Put(file, "InvertIndex", in.IndexType == kIndexMarkInverted);
  Put(file, "IndexMarkExists", in.IndexType < kNoIndexMark);
  if (platenDefine_) EachPlatenKey(in, put);
}

void ParameterBlocks::StoreSerial(Configuration& file, const BoardIdentity& in,
                                  bool withSerial) const {
  if (!file.OpenSection(serialSection_, true)) return;
  // Without withSerial the parameters are written without the unit's serial number, and a
  // number the section already holds stays as it is.
  if (withSerial) PutText(file, "SerialNumber", in.serialNumber);
  PutText(file, "MachineName", in.machineName);
  PutText(file, "ModelName", in.modelName);
}

void ParameterBlocks::LoadPid(Configuration& file, ChannelPid& out) const {
  if (!file.OpenSection(pidSection_, false)) return;
  EachPidKey(out, [&](const std::string& key, auto& field) { Get(file, key, field); });
}

void ParameterBlocks::LoadDefine(Configuration& file, ChannelDefine& out) const {
  if (!file.OpenSection(defineSection_, false)) return;
  const auto get = [&](const std::string& key, auto& field) { Get(file, key, field); };
  EachDefineKey(out, get);
  // The two keys are always written together. When a file lacks one of them, the missing flag
  // is taken from IndexType as the caller passed it in, so that a lone key changes only what it
  // says; with both missing IndexType stays as it was, like any other field without its key.
  bool inverted = out.IndexType == kIndexMarkInverted;
  bool markExists = out.IndexType < kNoIndexMark;
  const bool gotInverted = Get(file, "InvertIndex", inverted);
  const bool gotMarkExists = Get(file, "IndexMarkExists", markExists);
  if (gotInverted || gotMarkExists)
    out.IndexType = !markExists ? kNoIndexMark : inverted ? kIndexMarkInverted : kIndexMark;
  if (platenDefine_) EachPlatenKey(out, get);
}

void ParameterBlocks::LoadSerial(Configuration& file, BoardIdentity& out, bool withSerial) const {
  if (!file.OpenSection(serialSection_, false)) return;
  if (withSerial) GetText(file, "SerialNumber", out.serialNumber);
  GetText(file, "MachineName", out.machineName);
  GetText(file, "ModelName", out.modelName);
  Get(file, "ModelType", out.identityWord);
  if (!withSerial) return;
  // No writer of these blocks writes the two identity longs; they come only from files made
  // elsewhere or by hand, and their keys are named after the record's fields so that such a
  // file reads plainly.
  Get(file, "IdentityLong1", out.identityLong1);
  Get(file, "IdentityLong2", out.identityLong2);
  Get(file, "IsEngineeringModel", out.identityFlag);
}
