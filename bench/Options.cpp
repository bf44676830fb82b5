#include "bench/Options.h"

#include <map>
#include <sstream>
#include <stdexcept>

namespace bench {

const char* const kUsage =
    "usage: forwarding_bench [--full | --short] [--only matrix|scenarios]\n"
    "                        [--modes ipv4,ipv4-bare,ipv6] [--sizes N,...] [--fan-outs N,...]\n"
    "                        [--routes N,...] [--runs N] [--seconds S] [--huge MB] [--json FILE]\n"
    "--full: every combination; --short: only shows that it works. With any of the four lists the\n"
    "cases are their combinations, where a list that is not given has its usual values.\n"
    "--huge: memory from huge pages, of which that many megabytes are reserved\n";

namespace {

constexpr uint32_t kMillion = 1000000;
constexpr unsigned kMaxBytes = 2000;
constexpr unsigned kMaxFanOut = 64;
constexpr uint32_t kMaxRoutes = 4 * kMillion;

const Block kUsual = {{Mode::kIpv4}, {64, 1500}, {1, 4, 16}, {1, 1000}};
const Block kShortBlock = {{Mode::kIpv4, Mode::kIpv4Bare, Mode::kIpv6}, {64}, {1, 4}, {1, 100}};
const Block kEverything = {{Mode::kIpv4, Mode::kIpv4Bare, Mode::kIpv6},
                           {64, 512, 1500},
                           {1, 4, 16, 64},
                           {1, 1000, 100000, kMillion}};

std::vector<Block> defaultBlocks() {
  return {{{Mode::kIpv4}, {64, 512, 1500}, {1, 4, 16, 64}, {1000}},
          {{Mode::kIpv4}, {64, 1500}, {1, 4, 16}, {1}},
          {{Mode::kIpv4Bare}, {64}, {1, 4, 16}, {1000}},
          {{Mode::kIpv6}, {64, 1500}, {1, 4, 16}, {1000}}};
}

unsigned long number(const std::string& text, unsigned long most) {
  size_t used = 0;
  unsigned long value = 0;
  try {
    value = std::stoul(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used == 0 || used != text.size() || value == 0 || value > most) {
    throw std::invalid_argument("'" + text + "' is no number from 1 to " + std::to_string(most));
  }
  return value;
}

std::vector<std::string> items(const std::string& text) {
  std::vector<std::string> found;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    found.push_back(item);
  }
  return found;
}

template <class T>
std::vector<T> numbers(const std::string& text, unsigned long most) {
  std::vector<T> found;
  for (const std::string& item : items(text)) {
    found.push_back(static_cast<T>(number(item, most)));
  }
  return found;
}

std::vector<Mode> modes(const std::string& text) {
  std::vector<Mode> found;
  for (const std::string& item : items(text)) {
    bool known = false;
    for (const Mode mode : kEverything.modes) {
      if (item == modeName(mode)) {
        found.push_back(mode);
        known = true;
      }
    }
    if (!known) {
      throw std::invalid_argument("'" + item + "' is no mode: ipv4, ipv4-bare, ipv6");
    }
  }
  return found;
}

double seconds(const std::string& text) {
  size_t used = 0;
  double value = 0;
  try {
    value = std::stod(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used != text.size() || !(value > 0) || value > 60) {
    throw std::invalid_argument("'" + text + "' is no time of up to 60 seconds");
  }
  return value;
}

void shortForm(Options& options) {
  options.blocks = {kShortBlock};
  options.runs = 2;
  options.seconds = 0.01;
  options.brief = true;
}

void onlyPart(Options& options, const std::string& part) {
  if (part != "matrix" && part != "scenarios") {
    throw std::invalid_argument("'" + part + "' is no part: matrix, scenarios");
  }
  options.matrix = part == "matrix";
  options.scenarios = part == "scenarios";
}

}  // namespace

Options parseOptions(int argc, char** argv) {
  Options options;
  options.blocks = defaultBlocks();
  std::map<std::string, std::string> values;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--full") {
      options.blocks = {kEverything};
    } else if (name == "--short") {
      shortForm(options);
    } else if (i + 1 < argc) {
      values[name] = argv[++i];
    } else {
      throw std::invalid_argument("unknown option, or one without its value: " + name);
    }
  }
  Block chosen = options.brief ? kShortBlock : kUsual;
  bool anyList = false;
  for (const auto& [name, value] : values) {
    anyList = anyList || name == "--modes" || name == "--sizes" || name == "--fan-outs" ||
              name == "--routes";
    if (name == "--runs") {
      options.runs = static_cast<unsigned>(number(value, 1000));
    } else if (name == "--seconds") {
      options.seconds = seconds(value);
    } else if (name == "--json") {
      options.json = value;
    } else if (name == "--huge") {
      options.hugeMb = static_cast<unsigned>(number(value, 1U << 20U));
    } else if (name == "--only") {
      onlyPart(options, value);
    } else if (name == "--modes") {
      chosen.modes = modes(value);
    } else if (name == "--sizes") {
      chosen.sizes = numbers<unsigned>(value, kMaxBytes);
    } else if (name == "--fan-outs") {
      chosen.fanOuts = numbers<unsigned>(value, kMaxFanOut);
    } else if (name == "--routes") {
      chosen.routes = numbers<uint32_t>(value, kMaxRoutes);
    } else {
      throw std::invalid_argument("unknown option " + name);
    }
  }
  if (anyList) {
    options.blocks = {chosen};
  }
  return options;
}

}  // namespace bench
