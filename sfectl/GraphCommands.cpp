#include <memory>

#include "sfectl/Arguments.h"
#include "sfectl/Commands.h"
#include "sfectl/Results.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;

struct ConnectWords {
  std::string from;
  std::string to;
};

void addConnections(CLI::App& app, Session& session) {
  auto words = std::make_shared<ConnectWords>();
  auto* command = app.add_subcommand("connect", "Connect an output gate with an input gate");
  command->add_option("FROM", words->from, "MODULE or MODULE:OGATE, gate 0 when left out")
      ->required();
  command->add_option("TO", words->to, "MODULE or MODULE:IGATE, gate 0 when left out")->required();
  session.bind(command, [words](Session& s) {
    const Endpoint from = parseEndpoint(words->from, 0);
    const Endpoint to = parseEndpoint(words->to, 0);
    bess::pb::ConnectRequest request;
    request.set_m1(from.name);
    request.set_ogate(from.gate);
    request.set_m2(to.name);
    request.set_igate(to.gate);
    s.client().call(&Stub::ConnectModules, request);
  });

  auto from = std::make_shared<std::string>();
  command = app.add_subcommand("disconnect", "Take away the connection of an output gate");
  command->add_option("FROM", *from, "MODULE or MODULE:OGATE, gate 0 when left out")->required();
  session.bind(command, [from](Session& s) {
    const Endpoint endpoint = parseEndpoint(*from, 0);
    bess::pb::DisconnectRequest request;
    request.set_module(endpoint.name);
    request.set_ogate(endpoint.gate);
    s.client().call(&Stub::DisconnectModules, request);
  });

  session.bind(app.add_subcommand("connections", "List the connections"), [](Session& s) {
    s.print(connectionReport(s.client().call(&Stub::ListConnections).connections()));
  });
}

// The words that name a hook on a gate.
std::shared_ptr<bess::pb::HookRequest> addHookWords(CLI::App* command) {
  auto request = std::make_shared<bess::pb::HookRequest>();
  command
      ->add_option_function<std::string>(
          "HOOK", [request](const std::string& word) { request->set_hook(word); })
      ->required()
      ->check(CLI::IsMember({"track", "pcap"}));
  command
      ->add_option_function<std::string>(
          "MODULE", [request](const std::string& word) { request->set_module(word); })
      ->required();
  command
      ->add_option_function<std::string>(
          "DIRECTION",
          [request](const std::string& word) {
            request->set_direction(word == "out" ? bess::pb::GATE_OUT : bess::pb::GATE_IN);
          })
      ->required()
      ->check(CLI::IsMember({"in", "out"}));
  command
      ->add_option_function<uint32_t>("GATE", [request](uint32_t gate) { request->set_gate(gate); })
      ->required()
      ->check(CLI::Range(0u, kMaxGate));
  return request;
}

void addHooks(CLI::App& app, Session& session) {
  auto* hook = app.add_subcommand("hook", "Watch the packets of a gate");
  hook->require_subcommand(1);

  auto* add = hook->add_subcommand("add", "Put a hook on a gate");
  auto request = addHookWords(add);
  add->add_option_function<std::string>(
      "--file", [request](const std::string& path) { request->set_file(path); },
      "Where pcap writes, on the daemon's side");
  session.bind(add, [request](Session& s) { s.client().call(&Stub::AddHook, *request); });

  auto* del = hook->add_subcommand("del", "Take a hook from a gate");
  auto deleted = addHookWords(del);
  session.bind(del, [deleted](Session& s) { s.client().call(&Stub::RemoveHook, *deleted); });

  session.bind(hook->add_subcommand("show", "List the hooks"),
               [](Session& s) { s.print(hookReport(s.client().call(&Stub::ListHooks).hooks())); });
}

}  // namespace

void addGraphCommands(CLI::App& app, Session& session) {
  addConnections(app, session);
  addHooks(app, session);
}

void addPluginCommands(CLI::App& app, Session& session) {
  auto* plugin = app.add_subcommand("plugin", "Libraries with module classes");
  plugin->require_subcommand(1);
  auto path = std::make_shared<bess::pb::PluginRequest>();
  const auto setPath = [path](const std::string& word) { path->set_path(word); };

  auto* load = plugin->add_subcommand("load", "Load a library");
  load->add_option_function<std::string>("PATH", setPath)->required();
  session.bind(load, [path](Session& s) { s.client().call(&Stub::LoadPlugin, *path); });

  auto* unload = plugin->add_subcommand("unload", "Unload a library");
  unload->add_option_function<std::string>("PATH", setPath)->required();
  session.bind(unload, [path](Session& s) { s.client().call(&Stub::UnloadPlugin, *path); });

  session.bind(plugin->add_subcommand("show", "List the loaded libraries"),
               [](Session& s) { s.print(pluginReport(s.client().call(&Stub::ListPlugins))); });
}

}  // namespace Sfectl
