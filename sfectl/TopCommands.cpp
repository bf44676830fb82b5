// `sfectl top`: rates of interfaces and routes, again and again; on a terminal as a screen, else as
// plain text.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/Interfaces.h"
#include "sfectl/RouteTable.h"
#include "sfectl/Show.h"
#include "sfectl/StopSignals.h"
#include "sfectl/TopScreen.h"
#include "sfectl/TopView.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;
using SteadyClock = std::chrono::steady_clock;
using Key = TopScreen::Key;

constexpr double kMinDelay = 0.1;
constexpr double kMaxDelay = 3600;

struct TopWords {
  bool batch = false;
  uint64_t count = 0;  // 0: no end
  double delay = 1;
  std::string order = "packets";
};

std::string daemonLine(const bess::pb::StatsResponse& stats) {
  constexpr uint64_t kNsPerSecond = 1'000'000'000;
  const auto running = std::count_if(stats.workers().begin(), stats.workers().end(),
                                     [](const auto& worker) { return worker.running(); });
  return "up " + std::to_string(stats.uptime_ns() / kNsPerSecond) + " s, " +
         std::to_string(running) + " of " + std::to_string(stats.workers_size()) +
         " workers running, " + std::to_string(stats.packets_in_use()) + " of " +
         std::to_string(stats.packets_total()) + " packet buffers in use";
}

void addRoutes(TopSample& sample, const RouteTable& table) {
  for (const Route& route : table.routes()) {
    const RouteCount count = route.count.value_or(RouteCount());
    const size_t oifs =
        route.oifs.empty() ? 0 : 1 + std::count(route.oifs.begin(), route.oifs.end(), ',');
    sample.routes[{table.instance().vrf, std::string(route.group), std::string(route.source)}] = {
        route.resolved ? std::string(route.iif) : "unresolved",
        oifs,
        count.packets,
        count.bytes,
        count.wrongIf,
        count.queued,
        count.dropped};
  }
}

TopSample readSample(Client& client, const CounterFilter& filter) {
  TopSample sample;
  sample.daemon = daemonLine(client.call(&Stub::GetStats));
  const auto instances = multicastInstances(client, filter);
  const Interfaces interfaces = loadInterfaces(client, instances);
  std::string fault = interfaces.faults.empty() ? "" : interfaces.faults.front();
  for (const Interface& intf : interfaces.list) {
    const IntfCount count = intf.total();
    sample.interfaces[intf.name] = {count.rxPackets, count.rxBytes, count.txPackets,
                                    count.txBytes,   count.queued,  count.dropped};
  }
  for (const Instance& instance : instances) {
    const RouteTable table = RouteTable::load(client, instance, true);
    fault = fault.empty() ? table.fault() : fault;
    addRoutes(sample, table);
  }
  if (!fault.empty()) {
    throw RuntimeError(fault);
  }
  sample.time = SteadyClock::now();
  return sample;
}

TopOrder orderOf(const std::string& word) {
  TopOrder order = TopOrder::kPackets;
  while (nameOf(order) != word) {
    order = next(order);
  }
  return order;
}

class Top {
 public:
  Top(Session& session, const TopWords& words, const CounterFilter& filter)
      : session_(session),
        words_(words),
        filter_(filter),
        signals_({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH}),
        order_(orderOf(words.order)) {}

  void runBatch() {
    before_ = readSample(session_.client(), filter_);
    for (uint64_t shown = 0; words_.count == 0 || shown < words_.count; ++shown) {
      if (!waitUntil(SteadyClock::now() + delay(), nullptr)) {
        return;
      }
      TopSample now = readSample(session_.client(), filter_);
      session_.out() << (shown == 0 ? "" : "\n")
                     << topText(now, topTables(before_, now, order_), order_) << std::flush;
      if (!session_.out()) {
        throw RuntimeError("nobody reads the output");
      }
      before_ = std::move(now);
    }
  }

  void runScreen() {
    // What is wrong with the daemon is said before the terminal is taken.
    now_ = before_ = readSample(session_.client(), filter_);
    const char* noColour = std::getenv("NO_COLOR");
    TopScreen screen(noColour == nullptr || *noColour == '\0');
    for (uint64_t shown = 0; words_.count == 0 || shown < words_.count; ++shown) {
      draw(screen);
      if (!waitUntil(SteadyClock::now() + delay(), &screen)) {
        return;
      }
      before_ = std::move(now_);
      now_ = readSample(session_.client(), filter_);
    }
  }

 private:
  SteadyClock::duration delay() const {
    return std::chrono::duration_cast<SteadyClock::duration>(
        std::chrono::duration<double>(words_.delay));
  }

  void draw(TopScreen& screen) {
    const TopTables tables = topTables(before_, now_, order_);
    skip_ = std::min(skip_, tables.routes.size() - 1);
    screen.draw(topScreen(now_, tables, order_, screen.lines(), skip_));
  }

  // Returns: false when it is time to end.
  bool waitUntil(SteadyClock::time_point deadline, TopScreen* screen) {
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
      if (left.count() <= 0) {
        return true;
      }
      pollfd fds[] = {{signals_.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
      const nfds_t count = screen == nullptr ? 1 : 2;
      if (poll(fds, count, static_cast<int>(left.count())) < 0 && errno != EINTR) {
        throw RuntimeError(std::string("cannot wait: ") + std::strerror(errno));
      }
      if (!obeySignals(screen) || (screen != nullptr && !obeyKeys(*screen))) {
        return false;
      }
      if (screen != nullptr && (fds[1].revents & (POLLHUP | POLLERR)) != 0) {
        return false;  // the terminal is gone
      }
    }
  }

  bool obeySignals(TopScreen* screen) {
    while (const int signal = signals_.take()) {
      if (signal != SIGWINCH) {
        return false;
      }
      if (screen != nullptr) {
        screen->resized();
        draw(*screen);
      }
    }
    return true;
  }

  bool obeyKeys(TopScreen& screen) {
    bool any = false;
    for (Key key = screen.key(); key != Key::kNone; key = screen.key(), any = true) {
      if (key == Key::kQuit) {
        return false;
      }
      obey(key, screen.lines());
    }
    if (any) {
      draw(screen);
    }
    return true;
  }

  void obey(Key key, size_t page) {
    switch (key) {
      case Key::kNextOrder:
        order_ = next(order_);
        break;
      case Key::kPackets:
        order_ = TopOrder::kPackets;
        break;
      case Key::kBits:
        order_ = TopOrder::kBits;
        break;
      case Key::kDrops:
        order_ = TopOrder::kDrops;
        break;
      case Key::kName:
        order_ = TopOrder::kName;
        break;
      case Key::kUp:
        skip_ -= std::min<size_t>(skip_, 1);
        break;
      case Key::kDown:
        ++skip_;
        break;
      case Key::kPageUp:
        skip_ -= std::min(skip_, page / 2);
        break;
      case Key::kPageDown:
        skip_ += page / 2;
        break;
      default:
        break;
    }
  }

  Session& session_;
  const TopWords& words_;
  const CounterFilter& filter_;
  StopSignals signals_;
  TopOrder order_;
  size_t skip_ = 0;
  TopSample before_;
  TopSample now_;
};

bool onTerminal(Session& session) {
  return &session.out() == &std::cout && isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
}

}  // namespace

void addTopCommands(CLI::App& app, Session& session) {
  auto words = std::make_shared<TopWords>();
  auto* top = app.add_subcommand("top", "Rates of interfaces and routes, live");
  top->add_flag("-b,--batch", words->batch, "Print plain text, as without a terminal");
  top->add_option("-n,--count", words->count, "End after so many times")
      ->check(CLI::PositiveNumber);
  top->add_option("-d,--delay", words->delay, "Seconds between two times")
      ->check(CLI::Range(kMinDelay, kMaxDelay))
      ->capture_default_str();
  top->add_option("--sort", words->order, "What comes first")
      ->check(CLI::IsMember({"packets", "bits", "drops", "name"}))
      ->capture_default_str();
  auto filter = addInstanceFilter(top);
  session.bind(top, [words, filter](Session& s) {
    if (s.json) {
      throw UsageError("top is for people; counters --json has the numbers");
    }
    Top live(s, *words, *filter);
    words->batch || !onTerminal(s) ? live.runBatch() : live.runScreen();
  });
}

}  // namespace Sfectl
