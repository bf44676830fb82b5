#include <memory>
#include <ostream>

#include "protocol/sfe.pb.h"
#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/Instances.h"
#include "sfectl/MessageJson.h"
#include "sfectl/Results.h"

namespace Sfectl {
namespace {

using Stub = Client::Stub;
using bess::pb::ModuleClassResponse;

struct ModuleWords {
  std::string className;
  std::string name;
  std::string arg;
};

struct CommandWords {
  std::string module;
  std::string command;
  std::string arg;
};

bess::pb::NameRequest named(const std::string& name) {
  bess::pb::NameRequest request;
  request.set_name(name);
  return request;
}

// The message that creates an instance; a class that does not say has it named after itself.
std::string initType(const ModuleClassResponse& info) {
  if (!info.init_type().empty()) {
    return info.init_type();
  }
  for (const char* package : {"sfe.pb.", "bess.pb."}) {
    std::string type = package + info.name() + "Arg";
    if (newMessage(type) != nullptr) {
      return type;
    }
  }
  return "google.protobuf.Empty";
}

google::protobuf::Any initArg(const ModuleClassResponse& info, const std::string& json) {
  google::protobuf::Any any = packJson(initType(info), json);
  sfe::pb::MfibArg multicast;
  if (info.name() == kMulticastClass && any.UnpackTo(&multicast) && multicast.vrfname().empty()) {
    multicast.set_vrfname(kDefaultVrf);
    any.PackFrom(multicast);
  }
  return any;
}

// Text that is not JSON is found before anything is sent.
void requireJson(const std::string& text) {
  if (!text.empty() && !Json::accept(text)) {
    throw UsageError("argument is not JSON: " + printable(text));
  }
}

// A multicast module counts events under ids that the daemon gives out; each instance has its own.
void setCounterIds(Client& client, const std::string& module) {
  const auto id = [&](const char* counter) {
    return client.call(&Stub::CounterId, named(module + "." + counter)).id();
  };
  sfe::pb::MfibCounterIdArg ids;
  ids.set_non_mcast_iif(id("nonMcastIIFMessagesCounter_"));
  ids.set_wrong_vif(id("wrongVifMessagesCounter_"));
  ids.set_whole_pkt(id("wholePktMessagesCounter_"));
  ids.set_no_cache(id("noCacheMessagesCounter_"));
  ids.set_no_cache_resolved(id("noCacheMessagesResolvedCounter_"));
  ids.set_no_cache_expired(id("noCacheMessagesExpiredCounter_"));
  client.command(module, "setCounterIds", ids);
}

void createModule(Session& session, const ModuleWords& words) {
  requireJson(words.arg);
  Client& client = session.client();
  const auto info = client.call(&Stub::GetModuleClass, named(words.className));
  bess::pb::CreateModuleRequest request;
  request.set_class_name(words.className);
  request.set_name(words.name);
  *request.mutable_arg() = initArg(info, words.arg);
  const auto created = client.call(&Stub::CreateModule, request);
  if (words.className == kMulticastClass) {
    try {
      setCounterIds(client, created.name());
    } catch (const RuntimeError&) {
      client.call(&Stub::DestroyModule, named(created.name()));
      throw;
    }
  }
  if (session.json) {
    session.print(Json{{"name", created.name()}});
  } else {
    session.out() << printable(created.name()) << "\n";
  }
}

void showModules(Session& session, const std::string& name) {
  Client& client = session.client();
  if (name.empty()) {
    session.print(moduleReport(client.call(&Stub::ListModules).modules()));
    return;
  }
  google::protobuf::RepeatedPtrField<bess::pb::ModuleInfo> one;
  *one.Add() = client.call(&Stub::GetModule, named(name)).module();
  const auto info = client.call(&Stub::GetModuleClass, named(one[0].class_name()));
  Report commands({{"COMMAND", "name"}, {"ARGUMENT", "arg_type"}, {"THREAD-SAFE", "thread_safe"}});
  for (const auto& command : info.commands()) {
    commands.add({command.name(), command.arg_type(), command.thread_safe()});
  }
  if (session.json) {
    Json object = moduleReport(one).toJson()[0];
    object["commands"] = commands.toJson();
    session.print(object);
  } else {
    session.print(moduleReport(one));
    session.print(commands);
  }
}

// The argument's type, as the module's class declares it.
std::string commandType(Client& client, const CommandWords& words) {
  const auto module = client.call(&Stub::GetModule, named(words.module)).module();
  const auto info = client.call(&Stub::GetModuleClass, named(module.class_name()));
  std::string known;
  for (const auto& command : info.commands()) {
    if (command.name() == words.command) {
      // A class may leave the package out.
      const std::string& type = command.arg_type();
      return type.find('.') == std::string::npos && newMessage("sfe.pb." + type) != nullptr
                 ? "sfe.pb." + type
                 : type;
    }
    known += (known.empty() ? "" : ", ") + command.name();
  }
  throw RuntimeError("class " + printable(module.class_name()) + " has no command '" +
                     printable(words.command) +
                     "'; it has: " + (known.empty() ? "none" : printable(known)));
}

void runCommand(Session& session, const CommandWords& words) {
  requireJson(words.arg);
  Client& client = session.client();
  const auto arg = packJson(commandType(client, words), words.arg);
  const auto answer = client.command(words.module, words.command, arg);
  if (answer.has_data()) {
    session.print(unpackJson(answer.data()));
  } else if (session.json) {
    session.print(Json::object());
  }
}

}  // namespace

void addModuleCommands(CLI::App& app, Session& session) {
  auto* module = app.add_subcommand("module", "Modules of the packet graph");
  module->require_subcommand(1);

  auto words = std::make_shared<ModuleWords>();
  auto* add = module->add_subcommand("add", "Create a module");
  add->add_option("CLASS", words->className)->required();
  add->add_option("NAME", words->name, "The daemon gives one when it is left out");
  add->add_option("--arg", words->arg, "What it is created with, as JSON");
  session.bind(add, [words](Session& s) { createModule(s, *words); });

  auto deleted = std::make_shared<std::string>();
  auto* del = module->add_subcommand("del", "Destroy a module");
  del->add_option("NAME", *deleted)->required();
  session.bind(del,
               [deleted](Session& s) { s.client().call(&Stub::DestroyModule, named(*deleted)); });

  auto shown = std::make_shared<std::string>();
  auto* show = module->add_subcommand("show", "List the modules, or one with its commands");
  show->add_option("NAME", *shown);
  session.bind(show, [shown](Session& s) { showModules(s, *shown); });

  auto command = std::make_shared<CommandWords>();
  auto* run = app.add_subcommand("command", "Send a command to a module");
  run->add_option("MODULE", command->module)->required();
  run->add_option("NAME", command->command)->required();
  run->add_option("JSON", command->arg, "The argument; bytes are base64");
  session.bind(run, [command](Session& s) { runCommand(s, *command); });
}

}  // namespace Sfectl
