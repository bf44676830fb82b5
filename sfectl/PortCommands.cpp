#include <memory>
#include <ostream>

#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/Results.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;
using CreateRequest = bess::pb::CreatePortRequest;

constexpr uint32_t kMaxMtu = 65535;

void addNumber(CLI::App* command,
               const std::string& name,
               const std::string& help,
               std::function<void(uint32_t)> set) {
  command->add_option_function<uint32_t>(name, std::move(set), help)
      ->check(CLI::Range(1u, kMaxMtu));
}

void addSwitch(CLI::App* command,
               const std::string& name,
               const std::string& help,
               std::function<void(bool)> set) {
  command
      ->add_option_function<std::string>(
          name, [set = std::move(set)](const std::string& word) { set(word == "on"); }, help)
      ->check(CLI::IsMember({"on", "off"}));
}

void addPortAdd(CLI::App& port, Session& session) {
  auto request = std::make_shared<CreateRequest>();
  auto* command = port.add_subcommand("add", "Open a port");
  command
      ->add_option_function<std::string>(
          "NAME", [request](const std::string& name) { request->set_name(name); })
      ->required();
  command
      ->add_option_function<std::string>(
          "DEVARGS", [request](const std::string& args) { request->set_devargs(args); },
          "Device and its arguments, such as net_af_packet0,iface=eth0")
      ->required();
  addNumber(command, "--rxq", "Receive queues", [request](uint32_t n) { request->set_rxq(n); });
  addNumber(command, "--txq", "Transmit queues", [request](uint32_t n) { request->set_txq(n); });
  addNumber(command, "--mtu", "Largest packet", [request](uint32_t n) { request->set_mtu(n); });
  addNumber(command, "--queue-size", "Descriptors of a queue",
            [request](uint32_t n) { request->set_queue_size(n); });
  addSwitch(command, "--promisc", "Take every frame",
            [request](bool on) { request->set_promiscuous(on); });
  addSwitch(command, "--allmulti", "Take every multicast frame",
            [request](bool on) { request->set_allmulticast(on); });
  session.bind(command, [request](Session& s) {
    const auto answer = s.client().call(&Stub::CreatePort, *request);
    if (s.json) {
      s.print(Json{{"name", request->name()}, {"id", answer.id()}});
    } else {
      s.out() << "port " << printable(request->name()) << " has id " << answer.id() << "\n";
    }
  });
}

void addPortShow(CLI::App& port, Session& session) {
  auto name = std::make_shared<std::string>();
  auto* command = port.add_subcommand("show", "List the ports, or one port with its counters");
  command->add_option("NAME", *name);
  session.bind(command, [name](Session& s) {
    if (name->empty()) {
      s.print(portReport(s.client().call(&Stub::ListPorts).ports()));
      return;
    }
    bess::pb::NameRequest request;
    request.set_name(*name);
    google::protobuf::RepeatedPtrField<bess::pb::PortInfo> one;
    *one.Add() = s.client().call(&Stub::GetPortStats, request).port();
    if (s.json) {
      Json object = portReport(one).toJson()[0];
      object.update(portCounterReport(one).toJson()[0]);
      s.print(object);
    } else {
      s.print(portReport(one));
      s.print(portCounterReport(one));
    }
  });
}

}  // namespace

void addPortCommands(CLI::App& app, Session& session) {
  auto* port = app.add_subcommand("port", "Network devices that the daemon uses");
  port->require_subcommand(1);
  addPortAdd(*port, session);
  addPortShow(*port, session);

  auto request = std::make_shared<bess::pb::NameRequest>();
  auto* del = port->add_subcommand("del", "Close a port");
  del->add_option_function<std::string>(
         "NAME", [request](const std::string& name) { request->set_name(name); })
      ->required();
  session.bind(del, [request](Session& s) { s.client().call(&Stub::DestroyPort, *request); });
}

}  // namespace Sfectl
