#include "sfectl/TopView.h"

#include <algorithm>
#include <string_view>
#include <tuple>
#include <utility>

#include "sfectl/Rates.h"
#include "sfectl/Report.h"

namespace Sfectl {
namespace {

using Style = TopLine::Style;

// A row before it is a line: what it is sorted by, and its cells.
struct Row {
  double packets = 0;
  double bits = 0;
  double drops = 0;
  std::vector<std::string> cells;
};

double sortValue(const Row& row, TopOrder order) {
  switch (order) {
    case TopOrder::kPackets:
      return row.packets;
    case TopOrder::kBits:
      return row.bits;
    case TopOrder::kDrops:
      return row.drops;
    case TopOrder::kName:
      break;
  }
  return 0;
}

std::string lineOf(const std::vector<std::string>& cells,
                   const std::vector<size_t>& widths,
                   size_t names) {
  std::string line;
  for (size_t c = 0; c < cells.size(); ++c) {
    const std::string padding(widths[c] - cells[c].size(), ' ');
    line += c == 0 ? "" : "  ";
    line += c < names ? cells[c] + padding : padding + cells[c];
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

// `names`: so many columns hold names, the others numbers.
std::vector<TopLine> tableOf(std::vector<std::string> titles,
                             std::vector<Row> rows,
                             size_t names,
                             TopOrder order) {
  // Rows come in the order of their names, which stays where values are equal.
  std::stable_sort(rows.begin(), rows.end(), [order](const Row& a, const Row& b) {
    return sortValue(a, order) > sortValue(b, order);
  });
  std::vector<size_t> widths;
  for (size_t c = 0; c < titles.size(); ++c) {
    size_t width = titles[c].size();
    for (const Row& row : rows) {
      width = std::max(width, row.cells[c].size());
    }
    widths.push_back(width);
  }
  std::vector<TopLine> lines{{lineOf(titles, widths, names), Style::kTitle}};
  for (const Row& row : rows) {
    lines.push_back(
        {lineOf(row.cells, widths, names), row.drops > 0 ? Style::kAlarm : Style::kPlain});
  }
  return lines;
}

// How fast a count of an entry grows; what was not there before has no rate yet.
template <class Entries>
class RatesOf {
 public:
  using Entry = typename Entries::mapped_type;

  RatesOf(const Entries& before, const typename Entries::value_type& now, double seconds)
      : now_(now.second), seconds_(seconds) {
    const auto found = before.find(now.first);
    before_ = found == before.end() ? &now_ : &found->second;
  }
  double operator()(uint64_t Entry::*count) const {
    return rateOf(before_->*count, now_.*count, seconds_);
  }
  double bits(uint64_t Entry::*bytes) const { return (*this)(bytes)*kBitsPerByte; }

 private:
  const Entry& now_;
  const Entry* before_;
  double seconds_;
};

std::vector<TopLine> interfaceTable(const TopSample& before,
                                    const TopSample& now,
                                    double seconds,
                                    TopOrder order) {
  std::vector<Row> rows;
  using Intf = TopSample::Intf;
  for (const auto& entry : now.interfaces) {
    const RatesOf rate(before.interfaces, entry, seconds);
    const double rx = rate(&Intf::rxPackets);
    const double rxBits = rate.bits(&Intf::rxBytes);
    const double tx = rate(&Intf::txPackets);
    const double txBits = rate.bits(&Intf::txBytes);
    const double drops = rate(&Intf::dropped);
    rows.push_back({rx + tx,
                    rxBits + txBits,
                    drops,
                    {printable(entry.first), rateText(rx), rateText(rxBits), rateText(tx),
                     rateText(txBits), rateText(rate(&Intf::queued)), rateText(drops)}});
  }
  return tableOf(
      {"INTERFACE", "RX-PKT/S", "RX-BIT/S", "TX-PKT/S", "TX-BIT/S", "QUEUED/S", "DROPPED/S"},
      std::move(rows), 1, order);
}

std::vector<TopLine> routeTable(const TopSample& before,
                                const TopSample& now,
                                double seconds,
                                TopOrder order) {
  std::vector<Row> rows;
  using Route = TopSample::Route;
  for (const auto& entry : now.routes) {
    const auto& [key, count] = entry;
    const RatesOf rate(before.routes, entry, seconds);
    const double packets = rate(&Route::packets);
    const double bits = rate.bits(&Route::bytes);
    const double wrong = rate(&Route::wrongIf);
    const double drops = rate(&Route::dropped);
    rows.push_back(
        {packets,
         bits,
         drops + wrong,
         {printable(key.source), printable(key.group), printable(key.vrf), printable(count.iif),
          std::to_string(count.oifs), rateText(packets), rateText(bits), rateText(wrong),
          rateText(rate(&Route::queued)), rateText(drops)}});
  }
  return tableOf({"SOURCE", "GROUP", "VRF", "IIF", "OIFS", "PKT/S", "BIT/S", "WRONG-IIF/S",
                  "QUEUED/S", "DROPPED/S"},
                 std::move(rows), 4, order);
}

TopLine headLine(const TopSample& now, TopOrder order) {
  return {printable(now.daemon) + ", sorted by " + nameOf(order), Style::kPlain};
}

// The title and the rows from `skip` on, `lines` in all.
void append(std::vector<TopLine>& screen,
            const std::vector<TopLine>& table,
            size_t skip,
            size_t lines) {
  if (lines == 0) {
    return;
  }
  screen.push_back(table.front());
  for (size_t i = 1 + skip; i < table.size() && --lines > 0; ++i) {
    screen.push_back(table[i]);
  }
}

}  // namespace

bool IntfNameOrder::operator()(const std::string& a, const std::string& b) const {
  const auto kind = [](const std::string& name) {
    return std::string_view(name).substr(0, name.find_first_of("0123456789"));
  };
  return std::make_tuple(kind(a), a.size(), std::string_view(a)) <
         std::make_tuple(kind(b), b.size(), std::string_view(b));
}

const char* nameOf(TopOrder order) {
  switch (order) {
    case TopOrder::kPackets:
      return "packets";
    case TopOrder::kBits:
      return "bits";
    case TopOrder::kDrops:
      return "drops";
    case TopOrder::kName:
      break;
  }
  return "name";
}

TopOrder next(TopOrder order) {
  return order == TopOrder::kName ? TopOrder::kPackets
                                  : static_cast<TopOrder>(static_cast<int>(order) + 1);
}

TopTables topTables(const TopSample& before, const TopSample& now, TopOrder order) {
  const double seconds = std::chrono::duration<double>(now.time - before.time).count();
  return {interfaceTable(before, now, seconds, order), routeTable(before, now, seconds, order)};
}

std::vector<TopLine> topScreen(const TopSample& now,
                               const TopTables& tables,
                               TopOrder order,
                               size_t lines,
                               size_t skip) {
  constexpr size_t kFixed = 4;  // head, two empty lines, keys
  std::vector<TopLine> screen{headLine(now, order)};
  const size_t room = lines > kFixed ? lines - kFixed : 0;
  // The interfaces give way to the routes, down to half of the screen.
  const size_t forRoutes = std::min(room / 2, tables.routes.size());
  const size_t forInterfaces = std::min(room - forRoutes, tables.interfaces.size());
  screen.push_back({});
  append(screen, tables.interfaces, 0, forInterfaces);
  screen.push_back({});
  append(screen, tables.routes, skip, room - forInterfaces);
  screen.resize(lines > 0 ? lines - 1 : 0);
  if (lines > 0) {
    screen.push_back(
        {"q quit  s order  p packets  b bits  d drops  n name  arrows scroll", Style::kTitle});
  }
  return screen;
}

std::string topText(const TopSample& now, const TopTables& tables, TopOrder order) {
  std::string text = headLine(now, order).text + "\n";
  for (const auto* table : {&tables.interfaces, &tables.routes}) {
    text += "\n";
    for (const TopLine& line : *table) {
      text += line.text + "\n";
    }
  }
  return text;
}

}  // namespace Sfectl
