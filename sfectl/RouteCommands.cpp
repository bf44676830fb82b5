#include <memory>

#include "protocol/sfe.pb.h"
#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/Instances.h"
#include "sfectl/RouteArgs.h"

namespace Sfectl {
namespace {

constexpr uint32_t kAfIpv4 = 1;

struct Target {
  std::string vrf = "default";
  std::string module;  // empty: found by VRF and family
};

bool hasFamily(const sfe::pb::MfibArg& arg, bool ipv4) {
  return (arg.af() == kAfIpv4) == ipv4;
}

const char* familyName(bool ipv4) {
  return ipv4 ? "IPv4" : "IPv6";
}

// An instance's VRF and family are what it was created with.
bool serves(const bess::pb::ModuleInfo& module, const std::string& vrf, bool ipv4) {
  sfe::pb::MfibArg arg;
  return module.arg().UnpackTo(&arg) && arg.vrfname() == vrf && hasFamily(arg, ipv4);
}

// The named module, which must be of the route's family.
std::string checkedModule(Client& client, const std::string& name, bool ipv4) {
  bess::pb::NameRequest request;
  request.set_name(name);
  const auto module = client.call(&Client::Stub::GetModule, request).module();
  sfe::pb::MfibArg arg;
  if (!module.arg().UnpackTo(&arg)) {
    throw RuntimeError(printable(name) + " is of class " + printable(module.class_name()) +
                       "; routes go to a module of class Mfib");
  }
  if (!hasFamily(arg, ipv4)) {
    throw RuntimeError(printable(name) + " serves " + familyName(!ipv4) + "; the route is " +
                       familyName(ipv4));
  }
  return name;
}

std::string findModule(Client& client, const Target& target, bool ipv4) {
  if (!target.module.empty()) {
    return checkedModule(client, target.module, ipv4);
  }
  std::string found;
  for (const auto& module : client.modulesOf(kMulticastClass)) {
    if (serves(module, target.vrf, ipv4)) {
      if (!found.empty()) {
        throw RuntimeError("modules " + printable(found) + " and " + printable(module.name()) +
                           " both serve VRF " + printable(target.vrf) + "; name one with --module");
      }
      found = module.name();
    }
  }
  if (found.empty()) {
    throw RuntimeError(std::string("no module of class Mfib serves ") + familyName(ipv4) +
                       " in VRF " + printable(target.vrf));
  }
  return found;
}

void send(Session& session,
          const std::string& command,
          const Target& target,
          const sfe::pb::MfibRouteArg& route) {
  Client& client = session.client();
  client.command(findModule(client, target, isIpv4(route)), command, route);
}

std::shared_ptr<Target> addTarget(CLI::App* command) {
  auto target = std::make_shared<Target>();
  auto* vrf = command->add_option("--vrf", target->vrf, "VRF of the route")->capture_default_str();
  command->add_option("--module", target->module, "The Mfib module by name")->excludes(vrf);
  return target;
}

}  // namespace

void addRouteCommands(CLI::App& app, Session& session) {
  auto* mroute = app.add_subcommand("mroute", "Multicast routes");
  mroute->require_subcommand(1);

  auto words = std::make_shared<RouteWords>();
  auto* add = mroute->add_subcommand("add", "Install or replace a route");
  add->add_option("SOURCE", words->source, "Address, or '*'")->required();
  add->add_option("GROUP", words->group)->required();
  add->add_option("--iif", words->iif, "Incoming interface")->required();
  add->add_option("--oif", words->oifs, "Outgoing INTF[:GATE], gate 1 when left out; repeated");
  add->add_option("--iif-frr", words->iifFrr, "Incoming interface of the backup path");
  add->add_option("--notify", words->notify, "Interface that is notified of");
  add->add_option("--fastdrop", words->fastdrop, "Interface whose packets are dropped silently");
  add->add_flag("--to-cpu", words->toCpu, "Give the host a copy");
  add->add_flag("--register-in", words->registerIn, "Packets arrive in register messages");
  add->add_flag("--register-out", words->registerOut, "Packets are reported whole");
  auto target = addTarget(add);
  session.bind(add,
               [words, target](Session& s) { send(s, "addMroute", *target, routeArg(*words)); });

  auto key = std::make_shared<RouteWords>();
  auto* del = mroute->add_subcommand("del", "Remove a route");
  del->add_option("SOURCE", key->source, "Address, or '*'")->required();
  del->add_option("GROUP", key->group)->required();
  auto from = addTarget(del);
  session.bind(del, [key, from](Session& s) {
    send(s, "deleteMroute", *from, routeKey(key->source, key->group));
  });
}

}  // namespace Sfectl
