// Named constants shared by all subsystems, as 32-bit floats.
#pragma once

#include <bit>
#include <cstdint>

inline constexpr float kPi = std::bit_cast<float>(0x40490FDBu);
inline constexpr float kHalfPi = kPi / 2.0f;
inline constexpr float kQuarterPi = kPi / 4.0f;
inline constexpr float kTwoPi = kPi * 2.0f;
inline constexpr float kFourPi = kPi * 4.0f;
inline constexpr float kInvPi = 1.0f / kPi;
inline constexpr float kInvTwoPi = 1.0f / kTwoPi;
inline constexpr float kInvFourPi = 1.0f / kFourPi;
inline constexpr float kInvEightPi = 1.0f / (kPi * 8.0f);
inline constexpr float kDegree = std::bit_cast<float>(0x3C8EFA35u);  // pi / 180

// Below this a colour channel counts as black and a path, lobe or shadow ray ends.
inline constexpr float kCutoff = 0.0009765625f;
// Turns an unsigned 32-bit random integer into a float in [0, 1].
inline constexpr float kUnitScale = 2.3283064e-10f;
// The infinity of the geometry code.
inline constexpr float kInfinity = std::bit_cast<float>(0x7F7FC99Eu);

// Bytes to the "M bytes" of the report.
inline constexpr float kMegabytes = 9.536743e-7f;

// Per-thread arrays have this many entries; the thread number travels in 8 bits.
inline constexpr int kMaxThreads = 256;
