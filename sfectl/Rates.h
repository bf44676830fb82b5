// Rates for people: three digits and a unit.
#pragma once

#include <cstdint>
#include <string>

namespace Sfectl {

inline constexpr double kBitsPerByte = 8;

// "0", "0.3", "42", "1.5k", "12.3M", "2.0G".
std::string rateText(double perSecond);

// A counter that went backwards was started anew: what it shows has come since then.
double rateOf(uint64_t before, uint64_t now, double seconds);

}  // namespace Sfectl
