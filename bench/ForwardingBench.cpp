// Source -> Mfib -> Sink on one worker, beside the cost of copying alone in the same run.
//
//   forwarding_bench [--runs N] [--seconds S] [--json FILE]

#include <rte_byteorder.h>
#include <rte_ether.h>
#include <rte_ip.h>
#include <unistd.h>
#include <urcu-qsbr.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Bess/Eal.h"
#include "Bess/ModuleGraph.h"
#include "Bess/PacketPool.h"
#include "Bess/Worker.h"
#include "SfeModules/Mfib.h"
#include "bench/CopyFloor.h"
#include "bench/Report.h"
#include "protocol/modules.pb.h"
#include "protocol/sfe.pb.h"

namespace {

constexpr unsigned kPoolPackets = 65536;
constexpr int kWorker = 0;
constexpr gate_idx_t kGate = 1;
constexpr unsigned kFrameSizes[] = {64, 1500};
constexpr unsigned kFanOuts[] = {1, 4, 16};

struct Options {
  unsigned runs = 5;
  double seconds = 0.3;
  std::string json;
};

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--runs") {
      options.runs = static_cast<unsigned>(std::stoul(argv[i + 1]));
    } else if (name == "--seconds") {
      options.seconds = std::stod(argv[i + 1]);
    } else if (name == "--json") {
      options.json = argv[i + 1];
    } else {
      throw std::invalid_argument("unknown option " + name);
    }
  }
  return options;
}

template <class Response>
Response ok(Response response) {
  if (response.has_error()) {
    throw std::runtime_error(response.error().errmsg());
  }
  return response;
}

google::protobuf::Any packed(const google::protobuf::Message& message) {
  google::protobuf::Any any;
  any.PackFrom(message);
  return any;
}

// One UDP packet from 10.0.0.2 to 239.1.1.1; a template carries no metadata, so it arrives on
// interface 0.
std::string frame(unsigned bytes) {
  std::string text(bytes, '\0');
  auto* ether = reinterpret_cast<rte_ether_hdr*>(text.data());
  ether->ether_type = rte_cpu_to_be_16(RTE_ETHER_TYPE_IPV4);
  auto* ip = reinterpret_cast<rte_ipv4_hdr*>(ether + 1);
  ip->version_ihl = RTE_IPV4_VHL_DEF;
  ip->total_length = rte_cpu_to_be_16(static_cast<uint16_t>(bytes - sizeof(*ether)));
  ip->time_to_live = 64;
  ip->next_proto_id = IPPROTO_UDP;
  ip->src_addr = rte_cpu_to_be_32(RTE_IPV4(10, 0, 0, 2));
  ip->dst_addr = rte_cpu_to_be_32(RTE_IPV4(239, 1, 1, 1));
  return text;
}

void addRoute(unsigned fanOut) {
  sfe::pb::MulticastIntfArg intfs;
  intfs.add_intf_ids(0);
  ok(ModuleGraph::runCommand("mfib", "addMulticastIntfs", packed(intfs)));
  sfe::pb::MfibRouteArg route;
  route.set_source(std::string("\x0a\x00\x00\x02", 4));
  route.set_group("\xef\x01\x01\x01");
  for (unsigned i = 0; i < fanOut; ++i) {
    sfe::pb::OifArg* oif = route.add_oifs();
    oif->set_intf_id(Nynet::IntfId::fromName("Ethernet" + std::to_string(i + 1)).value());
    oif->set_gate(kGate);
  }
  ok(ModuleGraph::runCommand("mfib", "addMroute", packed(route)));
}

uint64_t sinkPackets() {
  bess::pb::EmptyModuleArg none;
  bess::pb::ModuleCounters counters;
  ok(ModuleGraph::runCommand("sink", "showCounters", packed(none))).data().UnpackTo(&counters);
  return counters.packets();
}

// Nanoseconds per packet in, from the copies that arrived in `seconds`.
double measure(unsigned fanOut, double seconds) {
  using Clock = std::chrono::steady_clock;
  const uint64_t before = sinkPackets();
  const auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const uint64_t copies = sinkPackets() - before;
  const std::chrono::duration<double> elapsed = Clock::now() - start;
  return elapsed.count() * 1e9 * fanOut / static_cast<double>(copies);
}

bench::Row runCase(unsigned frameBytes, unsigned fanOut, const Options& options) {
  bess::pb::SourceArg source;
  source.set_packet(frame(frameBytes));
  sfe::pb::MfibArg mfib;
  mfib.set_vrfname("default");
  mfib.set_af(1);
  mfib.set_ethernet_mode(true);
  ok(ModuleGraph::createModule("Source", "source", packed(source)));
  ok(ModuleGraph::createModule("Mfib", "mfib", packed(mfib)));
  ok(ModuleGraph::createModule("Sink", "sink", packed(bess::pb::SinkArg())));
  ok(ModuleGraph::connect("source", 0, "mfib", 0));
  ok(ModuleGraph::connect("mfib", kGate, "sink", 0));
  addRoute(fanOut);
  ok(ModuleGraph::attachTask("source", 0, kWorker, 0));

  bench::Row row;
  row.frameBytes = frameBytes;
  row.fanOut = fanOut;
  measure(fanOut, options.seconds);  // warm
  for (unsigned run = 0; run < options.runs; ++run) {
    row.forwardNsPerPacket.add(measure(fanOut, options.seconds));
    pauseWorkers();
    row.floorNsPerPacket.add(bench::copyFloorNsPerPacket(*bess::PacketPool::defaultPool(),
                                                         frameBytes, fanOut, options.seconds));
    resumeWorkers();
  }
  ModuleGraph::destroyAllModules();
  return row;
}

int run(const Options& options) {
  setenv("SYSNAME", ("bench" + std::to_string(getpid())).c_str(), 1);
  bess::initEal({});
  urcu_qsbr_register_thread();
  bess::PacketPool::createDefaultPools(kPoolPackets);
  launchWorker(kWorker, WorkerOptions{.core = -1, .spin = true});
  std::vector<bench::Row> rows;
  for (const unsigned frameBytes : kFrameSizes) {
    for (const unsigned fanOut : kFanOuts) {
      rows.push_back(runCase(frameBytes, fanOut, options));
    }
  }
  destroyAllWorkers();
  bench::printTable(stdout, rows);
  if (!options.json.empty()) {
    std::FILE* file = std::fopen(options.json.c_str(), "w");
    if (file == nullptr) {
      throw std::runtime_error("cannot write " + options.json);
    }
    bench::printJson(file, rows);
    std::fclose(file);
  }
  urcu_qsbr_unregister_thread();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(parseOptions(argc, argv));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
}
