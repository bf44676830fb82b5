#include "sfectl/Rates.h"

#include <cstdio>
#include <iterator>

namespace Sfectl {

std::string rateText(double perSecond) {
  constexpr double kStep = 1000;
  constexpr const char* kUnits[] = {"", "k", "M", "G", "T", "P", "E"};
  // The limits are where the printed number would get one digit more.
  constexpr double kTwoDigits = 99.95;
  constexpr double kOneDigit = 9.95;
  constexpr double kThreeDigits = 999.5;
  if (!(perSecond >= 0.05)) {
    return "0";
  }
  size_t unit = 0;
  while (perSecond >= kThreeDigits && unit + 1 < std::size(kUnits)) {
    perSecond /= kStep;
    ++unit;
  }
  const bool decimals = perSecond < (unit == 0 ? kOneDigit : kTwoDigits);
  char text[32];
  std::snprintf(text, sizeof(text), decimals ? "%.1f%s" : "%.0f%s", perSecond, kUnits[unit]);
  return text;
}

double rateOf(uint64_t before, uint64_t now, double seconds) {
  const uint64_t grown = now >= before ? now - before : now;
  return seconds > 0 ? static_cast<double>(grown) / seconds : 0;
}

}  // namespace Sfectl
