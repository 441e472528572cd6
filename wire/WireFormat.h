// Number and text formats of the board's command packets. Every multi-byte number on the wire is
// big-endian; wide text is UTF-16 little-endian in 32-byte fields and is copied, not swapped.
//
// Every accessor is bounds-checked against the buffer it is given: a field that would reach past
// the end reads as zero (or empty text) and is not written. Replies are untrusted, and a wrong
// offset must never turn into an out-of-bounds access. These helpers are the only code that the
// host and the simulated board share: a library of their own (tavro_wire), so that the simulator
// needs nothing of the host to speak the board's formats.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

namespace wire {

using Bytes = std::span<const std::uint8_t>;
using MutableBytes = std::span<std::uint8_t>;

inline constexpr std::size_t kWideTextBytes = 32;
inline constexpr std::size_t kWideTextUnits = kWideTextBytes / 2;

inline bool Fits(std::size_t size, std::size_t at, std::size_t width) {
  return at <= size && width <= size - at;
}

inline std::uint8_t GetByte(Bytes b, std::size_t at) {
  return Fits(b.size(), at, 1) ? b[at] : 0;
}
inline bool GetFlag(Bytes b, std::size_t at) {
  return GetByte(b, at) != 0;
}
inline std::int8_t GetSignedByte(Bytes b, std::size_t at) {
  return static_cast<std::int8_t>(GetByte(b, at));
}

inline std::uint16_t GetWord(Bytes b, std::size_t at) {
  if (!Fits(b.size(), at, 2)) return 0;
  return static_cast<std::uint16_t>((b[at] << 8) | b[at + 1]);
}

inline std::int16_t GetSignedWord(Bytes b, std::size_t at) {
  return static_cast<std::int16_t>(GetWord(b, at));
}

inline std::uint32_t GetLong(Bytes b, std::size_t at) {
  if (!Fits(b.size(), at, 4)) return 0;
  return (std::uint32_t{b[at]} << 24) | (std::uint32_t{b[at + 1]} << 16) |
         (std::uint32_t{b[at + 2]} << 8) | std::uint32_t{b[at + 3]};
}

inline std::int32_t GetSignedLong(Bytes b, std::size_t at) {
  return static_cast<std::int32_t>(GetLong(b, at));
}

inline float GetReal(Bytes b, std::size_t at) {
  const std::uint32_t bits = GetLong(b, at);
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

// 16.16 fixed point: the bits as an unsigned integer divided by 65536.
inline double GetFixed(Bytes b, std::size_t at) {
  return GetLong(b, at) / 65536.0;
}

inline void PutByte(MutableBytes b, std::size_t at, std::uint8_t v) {
  if (Fits(b.size(), at, 1)) b[at] = v;
}
inline void PutFlag(MutableBytes b, std::size_t at, bool v) {
  PutByte(b, at, v ? 1 : 0);
}

inline void PutWord(MutableBytes b, std::size_t at, std::uint16_t v) {
  if (!Fits(b.size(), at, 2)) return;
  b[at] = static_cast<std::uint8_t>(v >> 8);
  b[at + 1] = static_cast<std::uint8_t>(v);
}

inline void PutLong(MutableBytes b, std::size_t at, std::uint32_t v) {
  if (!Fits(b.size(), at, 4)) return;
  b[at] = static_cast<std::uint8_t>(v >> 24);
  b[at + 1] = static_cast<std::uint8_t>(v >> 16);
  b[at + 2] = static_cast<std::uint8_t>(v >> 8);
  b[at + 3] = static_cast<std::uint8_t>(v);
}

inline void PutSignedLong(MutableBytes b, std::size_t at, std::int32_t v) {
  PutLong(b, at, static_cast<std::uint32_t>(v));
}

inline void PutReal(MutableBytes b, std::size_t at, float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  PutLong(b, at, bits);
}

// To the wire: value times 65536 plus 0.499, truncated. The 0.499 (not 0.5) is what the boards'
// own tools use, and a value must reach the board with the same bits they would send.
inline std::uint32_t ToFixed(double v) {
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(v * 65536.0 + 0.499));
}
inline void PutFixed(MutableBytes b, std::size_t at, double v) {
  PutLong(b, at, ToFixed(v));
}

// Up to 16 UTF-16 units ended by a zero unit within the 32-byte field. A field without a zero
// unit gives all 16 units.
inline std::u16string GetWideText(Bytes b, std::size_t at) {
  std::u16string text;
  if (!Fits(b.size(), at, kWideTextBytes)) return text;
  for (std::size_t i = 0; i < kWideTextUnits; ++i) {
    const auto unit = static_cast<char16_t>(b[at + 2 * i] | (b[at + 2 * i + 1] << 8));
    if (unit == 0) break;
    text.push_back(unit);
  }
  return text;
}

// Writes at most 15 units and zero-fills the rest of the field, so the text always ends within it.
inline void PutWideText(MutableBytes b, std::size_t at, const std::u16string& text) {
  if (!Fits(b.size(), at, kWideTextBytes)) return;
  std::memset(&b[at], 0, kWideTextBytes);
  const std::size_t n = text.size() < kWideTextUnits - 1 ? text.size() : kWideTextUnits - 1;
  for (std::size_t i = 0; i < n; ++i) {
    b[at + 2 * i] = static_cast<std::uint8_t>(text[i] & 0xFF);
    b[at + 2 * i + 1] = static_cast<std::uint8_t>(text[i] >> 8);
  }
}

}  // namespace wire
