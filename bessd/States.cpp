#include "bessd/States.h"

#include <algorithm>
#include <limits>

#include "Base/Flit/Flit.h"
#include "Base/NyToggles/NyToggles.h"
#include "Bess/StateTable.h"

namespace Bessd {
namespace {

constexpr int kMostDetailed = 9;
// How one of the compilers writes an unnamed namespace.
constexpr std::string_view kUnnamed = "(anonymous namespace)";
constexpr unsigned long kMaxCount = std::numeric_limits<uint32_t>::max();

// Records in time order; the newest `count` of those that are asked for.
std::string traceText(const std::string& arg) {
  const bess::StateArgs args(arg, 0, {"level", "function", "count"},
                             "[level=N] [function=TEXT] [count=N]");
  const auto level = static_cast<int>(args.number("level", kMostDetailed, kMostDetailed));
  const std::string* function = args.option("function");
  const unsigned long count = args.number("count", kMaxCount, kMaxCount);

  std::vector<Flit::Record> records = Flit::read(level);
  if (function != nullptr) {
    std::erase_if(records, [function](const Flit::Record& record) {
      return functionName(record.signature).find(*function) == std::string_view::npos;
    });
  }
  bess::StateTable table({"time_ns", "thread", "level", "function", "text"});
  for (size_t i = records.size() - std::min<size_t>(count, records.size()); i < records.size();
       ++i) {
    const Flit::Record& record = records[i];
    const bool named = record.threadSlot != Flit::kNoSlot;
    table.row(record.timeNs, named ? std::to_string(record.threadSlot) : std::string(),
              record.level, functionName(record.signature), record.message());
  }
  return table.take();
}

std::string togglesText(const std::string& arg) {
  static_cast<void>(bess::StateArgs(arg, 0, {}, "no words"));
  bess::StateTable table({"owner", "name", "value"});
  for (const AskedToggle& toggle : askedToggles()) {
    table.row(toggle.owner, toggle.name, toggle.value);
  }
  return table.take();
}

}  // namespace

std::string_view functionName(std::string_view signature) {
  // Blanks and parentheses inside of template arguments are not the ones that are looked for.
  int depth = 0;
  size_t begin = 0;
  for (size_t i = 0; i < signature.size(); ++i) {
    const char c = signature[i];
    depth += c == '<' ? 1 : c == '>' ? -1 : 0;
    if (depth == 0 && c == ' ') {
      begin = i + 1;
    }
    if (depth == 0 && c == '(') {
      if (signature.substr(i).starts_with(kUnnamed)) {
        i += kUnnamed.size() - 1;
        continue;
      }
      return signature.substr(begin, i - begin);
    }
  }
  return signature;
}

std::vector<bess::State> ownStates() {
  return {{"trace", "The ring trace; takes [level=N] [function=TEXT] [count=N]", traceText},
          {"toggles", "Feature toggles that were asked for", togglesText}};
}

}  // namespace Bessd
