#include "SfeModules/AddressText.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>
#include <cstring>

namespace SfeModules {

namespace {

constexpr int kWords = 8;
using Words = std::array<unsigned, kWords>;

char* putIpv4(char* at, const uint8_t* bytes) {
  for (int i = 0; i < 4; ++i) {
    if (i > 0) {
      *at++ = '.';
    }
    at = std::to_chars(at, at + 3, unsigned{bytes[i]}).ptr;
  }
  return at;
}

struct Run {
  int begin = -1;
  int length = 1;  // a single zero is written out
};

// The first of the longest runs of zero words.
Run longestZeroRun(const Words& words) {
  Run best;
  for (int i = 0; i < kWords;) {
    int end = i;
    while (end < kWords && words[end] == 0) {
      ++end;
    }
    if (end - i > best.length) {
      best = {i, end - i};
    }
    i = end + 1;
  }
  return best;
}

char* putIpv6(char* at, const Words& words) {
  const Run run = longestZeroRun(words);
  for (int i = 0; i < kWords; ++i) {
    if (i == run.begin) {
      *at++ = ':';
      *at++ = ':';
      i += run.length - 1;
      continue;
    }
    if (i > 0 && i != run.begin + run.length) {
      *at++ = ':';
    }
    at = std::to_chars(at, at + 4, words[i], 16).ptr;
  }
  return at;
}

// These carry an IPv4 address, which is written as one.
bool embedsIpv4(const Words& words) {
  for (int i = 0; i < 5; ++i) {
    if (words[i] != 0) {
      return false;
    }
  }
  return words[5] == 0xffff || (words[5] == 0 && words[6] != 0);
}

}  // namespace

void appendNumericAddr(std::string& text, const uint8_t* bytes, bool ipv4) {
  std::array<char, INET6_ADDRSTRLEN> out;  // NOLINT(cppcoreguidelines-pro-type-member-init)
  if (ipv4) {
    text.append(out.data(), putIpv4(out.data(), bytes));
    return;
  }
  Words words{};
  for (int i = 0; i < kWords; ++i) {
    words[i] = static_cast<unsigned>(bytes[2 * i] << 8 | bytes[2 * i + 1]);
  }
  if (embedsIpv4(words)) {
    inet_ntop(AF_INET6, bytes, out.data(), out.size());
    text.append(out.data());
    return;
  }
  text.append(out.data(), putIpv6(out.data(), words));
}

std::string numericAddr(const uint8_t* bytes, bool ipv4) {
  std::string text;
  appendNumericAddr(text, bytes, ipv4);
  return text;
}

}  // namespace SfeModules
