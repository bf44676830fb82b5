#include <memory>
#include <ostream>
#include <vector>

#include "protocol/sfe.pb.h"
#include "sfectl/Arguments.h"
#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/Instances.h"
#include "sfectl/Report.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;

constexpr uint32_t kMaxVlan = 4094;
constexpr const char* kEdgeClasses[] = {"IntfIn", "IntfOut"};

struct IntfWords {
  std::string name;
  std::string port;
  uint32_t vlan = 0;
  std::string mac;
  bool multicast = false;
};

std::vector<std::string> edgeModules(Client& client) {
  std::vector<std::string> names;
  for (const char* className : kEdgeClasses) {
    for (const auto& module : client.modulesOf(className)) {
      names.push_back(module.name());
    }
  }
  if (names.empty()) {
    throw RuntimeError("no module of class IntfIn or IntfOut; an interface needs one");
  }
  return names;
}

bess::pb::PortInfo findPort(Client& client, const std::string& name) {
  bess::pb::NameRequest request;
  request.set_name(name);
  return client.call(&Stub::GetPortStats, request).port();
}

sfe::pb::MulticastIntfArg multicastArg(uint64_t id) {
  sfe::pb::MulticastIntfArg arg;
  arg.add_intf_ids(id);
  return arg;
}

// Adds to every edge module, or to none: what was added before a refusal is taken away again.
void addToEdges(Client& client, const sfe::pb::IntfArg& arg) {
  std::vector<std::string> done;
  for (const std::string& module : edgeModules(client)) {
    try {
      client.command(module, "addIntf", arg);
      done.push_back(module);
    } catch (const RuntimeError& error) {
      sfe::pb::IntfNameArg name;
      name.set_name(arg.name());
      for (const std::string& other : done) {
        client.command(other, "delIntf", name);
      }
      throw RuntimeError(printable(module) + ": " + error.what());
    }
  }
}

void addIntf(Session& session, const IntfWords& words) {
  sfe::pb::IntfArg arg;
  const uint64_t id = parseIntf(words.name, "NAME");
  arg.set_name(words.name);
  arg.set_vlan(words.vlan);
  if (!words.mac.empty()) {
    arg.set_mac(parseMac(words.mac));
  }
  Client& client = session.client();
  const auto port = findPort(client, words.port);
  arg.set_port(port.id());
  if (words.mac.empty()) {
    arg.set_mac(port.mac());
  }
  const auto multicast =
      words.multicast ? client.modulesOf(kMulticastClass) : std::vector<bess::pb::ModuleInfo>();
  if (words.multicast && multicast.empty()) {
    throw RuntimeError("no module of class Mfib; --mcast needs one");
  }
  addToEdges(client, arg);
  for (const auto& module : multicast) {
    client.command(module.name(), "addMulticastIntfs", multicastArg(id));
  }
}

void deleteIntf(Session& session, const std::string& name) {
  const uint64_t id = parseIntf(name, "NAME");
  Client& client = session.client();
  sfe::pb::IntfNameArg arg;
  arg.set_name(name);
  for (const auto& module : client.modulesOf(kMulticastClass)) {
    client.command(module.name(), "deleteMulticastIntfs", multicastArg(id));
  }
  // Every edge module is asked, also after one refused: the interface must not stay in half of
  // them.
  std::string refusals;
  for (const std::string& module : edgeModules(client)) {
    try {
      client.command(module, "delIntf", arg);
    } catch (const RuntimeError& error) {
      refusals += (refusals.empty() ? "" : "; ") + printable(module) + ": " + error.what();
    }
  }
  if (!refusals.empty()) {
    throw RuntimeError(refusals);
  }
}

void showIntfs(Session& session) {
  Report intfs({{"INTF", "intf"},
                {"MODULE", "module"},
                {"PORT-ID", "port"},
                {"VLAN", "vlan"},
                {"MAC", "mac"},
                {"ID", "id"}});
  Report drops({{"MODULE", "module"}, {"REASON", "reason"}, {"PACKETS", "packets"}});
  Client& client = session.client();
  for (const std::string& module : edgeModules(client)) {
    const auto answer = client.command(module, "showIntfs", sfe::pb::EmptyIntfArg());
    sfe::pb::IntfTable table;
    if (!answer.data().UnpackTo(&table)) {
      throw RuntimeError(printable(module) + ": the answer is not a table of interfaces");
    }
    for (const auto& intf : table.intfs()) {
      intfs.add({intf.name(), module, intf.port(),
                 intf.vlan() == 0 ? Json(nullptr) : Json(intf.vlan()), macText(intf.mac()),
                 intf.id()});
    }
    for (const auto& drop : table.drops()) {
      drops.add({module, drop.reason(), drop.packets()});
    }
  }
  if (session.json) {
    session.print(Json{{"interfaces", intfs.toJson()}, {"drops", drops.toJson()}});
    return;
  }
  session.print(intfs);
  if (!drops.empty()) {
    session.out() << "\n";
    session.print(drops);
  }
}

}  // namespace

void addIntfCommands(CLI::App& app, Session& session) {
  auto* intf = app.add_subcommand("intf", "Interfaces: ports, or VLANs of ports");
  intf->require_subcommand(1);

  auto words = std::make_shared<IntfWords>();
  auto* add = intf->add_subcommand("add", "Add an interface to every IntfIn and IntfOut");
  add->add_option("NAME", words->name, "Ethernet3, Ethernet3/1, Vlan100, ...")->required();
  add->add_option("--port", words->port, "Name of its port")->required();
  add->add_option("--vlan", words->vlan, "VLAN of the port")->check(CLI::Range(1u, kMaxVlan));
  add->add_option("--mac", words->mac, "Its own address; the port's when left out");
  add->add_flag("--mcast", words->multicast, "Forward multicast that arrives on it");
  session.bind(add, [words](Session& s) { addIntf(s, *words); });

  auto name = std::make_shared<std::string>();
  auto* del = intf->add_subcommand("del", "Take an interface away");
  del->add_option("NAME", *name)->required();
  session.bind(del, [name](Session& s) { deleteIntf(s, *name); });

  session.bind(intf->add_subcommand("show", "List the interfaces and what was dropped"), showIntfs);
}

}  // namespace Sfectl
