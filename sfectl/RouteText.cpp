#include "sfectl/RouteText.h"

#include <algorithm>
#include <charconv>

#include "sfectl/Report.h"

namespace Sfectl {
namespace {

constexpr size_t kKeyWidth = 32;
constexpr size_t kIifWidth = 10;

bool isPlain(char c) {
  return c >= 0x20 && c < 0x7f;
}

void appendPrintable(std::string& out, std::string_view text) {
  if (std::all_of(text.begin(), text.end(), isPlain)) {
    out += text;
  } else {
    out += printable(text);
  }
}

void appendPadded(std::string& out, std::string_view text, size_t width) {
  const size_t before = out.size();
  appendPrintable(out, text);
  out.append(width - std::min(width, out.size() - before), ' ');
}

void appendNumber(std::string& out, uint64_t value) {
  char digits[20];
  const auto [end, error] = std::to_chars(digits, digits + sizeof(digits), value);
  out.append(digits, end);
}

// Calls take(part) for each part between commas.
template <class F>
void forEachPart(std::string_view list, F take) {
  while (!list.empty()) {
    const size_t comma = list.find(',');
    take(list.substr(0, comma));
    list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
  }
}

std::string_view nameOf(std::string_view oif) {
  return oif.substr(0, oif.rfind(':'));
}

void appendStats(std::string& out, const RouteCount& count) {
  out += "\n  ";
  appendNumber(out, count.packets);
  out += " packets, ";
  appendNumber(out, count.bytes);
  out += " bytes";
  if (count.wrongIf > 0) {
    out += ", ";
    appendNumber(out, count.wrongIf);
    out += " arrived on wrong iif.";
  }
}

void appendJsonText(std::string& out, std::string_view text) {
  const auto isSafe = [](char c) { return isPlain(c) && c != '"' && c != '\\'; };
  if (std::all_of(text.begin(), text.end(), isSafe)) {
    out += '"';
    out += text;
    out += '"';
  } else {
    out += dumpJson(Json(std::string(text)));
  }
}

void appendMember(std::string& out, std::string_view key, std::string_view value) {
  out += ",\"";
  out += key;
  out += "\":";
  appendJsonText(out, value);
}

void appendMember(std::string& out, std::string_view key, uint64_t value) {
  out += ",\"";
  out += key;
  out += "\":";
  appendNumber(out, value);
}

void appendGiven(std::string& out, std::string_view key, std::string_view value) {
  if (!value.empty()) {
    appendMember(out, key, value);
  }
}

void appendMultipath(std::string& out, std::string_view oifs) {
  out += ",\"multipath\":[";
  const char* separator = "";
  forEachPart(oifs, [&](std::string_view oif) {
    out += separator;
    out += "{\"oif\":";
    const std::string_view name = nameOf(oif);
    appendJsonText(out, name);
    uint64_t gate = 0;
    const std::string_view digits = oif.substr(std::min(oif.size(), name.size() + 1));
    std::from_chars(digits.begin(), digits.end(), gate);
    appendMember(out, "gate", gate);
    out += '}';
    separator = ",";
  });
  out += ']';
}

void appendFlags(std::string& out, std::string_view flags) {
  out += ",\"flags\":[";
  const char* separator = "";
  forEachPart(flags, [&](std::string_view flag) {
    out += separator;
    appendJsonText(out, flag);
    separator = ",";
  });
  out += ']';
}

}  // namespace

void appendRouteText(std::string& out,
                     const Instance& instance,
                     const Route& route,
                     const RouteStyle& style) {
  const size_t start = out.size();
  out += '(';
  appendPrintable(out, route.source);
  out += ',';
  appendPrintable(out, route.group);
  out += ')';
  out.append(kKeyWidth - std::min(kKeyWidth, out.size() - start), ' ');
  out += " Iif: ";
  if (!route.resolved) {
    out += "unresolved  State: unresolved";
  } else {
    appendPadded(out, route.iif, kIifWidth);
    out += ' ';
    if (!route.oifs.empty()) {
      out += "Oifs: ";
      forEachPart(route.oifs, [&](std::string_view oif) {
        appendPrintable(out, nameOf(oif));
        out += ' ';
      });
    }
    out += " State: resolved";
  }
  if (style.stats && route.count) {
    appendStats(out, *route.count);
  }
  if (style.table) {
    out += " Table: ";
    appendPrintable(out, instance.vrf);
  }
  out += '\n';
}

void appendRouteJson(std::string& out, const Instance& instance, const Route& route) {
  out += "{\"src\":";
  appendJsonText(out, route.source);
  appendMember(out, "dst", route.group);
  appendMember(out, "iif", route.resolved ? route.iif : "unresolved");
  if (route.resolved) {
    appendMultipath(out, route.oifs);
  }
  appendMember(out, "state", route.resolved ? "resolved" : "unresolved");
  if (route.count) {
    appendMember(out, "packets", route.count->packets);
    appendMember(out, "bytes", route.count->bytes);
    appendMember(out, "wrong_if", route.count->wrongIf);
    appendMember(out, "queued", route.count->queued);
    appendMember(out, "dropped", route.count->dropped);
  }
  if (route.resolved) {
    appendGiven(out, "iif_frr", route.iifFrr);
    appendGiven(out, "notify", route.notify);
    appendGiven(out, "fastdrop", route.fastdrop);
    appendFlags(out, route.flags);
  } else {
    appendMember(out, "held_packets", route.heldPackets);
    appendMember(out, "held_ms", route.heldMs);
  }
  appendMember(out, "vrf", instance.vrf);
  appendMember(out, "family", familyText(instance.af));
  appendMember(out, "module", instance.module);
  out += '}';
}

}  // namespace Sfectl
