#include "sfectl/config/Plan.h"

#include <ostream>

#include "sfectl/Client.h"
#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

const char* word(Change change) {
  return change == Change::kAdd ? "add" : change == Change::kRemove ? "remove" : "change";
}

[[noreturn]] void fail(const std::vector<Step>& steps, size_t done, const std::string& why) {
  const std::string count = std::to_string(done) + " of " + std::to_string(steps.size());
  throw RuntimeError("step " + std::to_string(done + 1) + " (" + steps[done].text() +
                     ") failed: " + why + "\n" + count +
                     " steps are done and stay; the same command continues from here");
}

// The commands of the steps from `at` on, up to the next step that is none.
std::vector<const bess::pb::ModuleCommandRequest*> commandsFrom(const std::vector<Step>& steps,
                                                                size_t at) {
  std::vector<const bess::pb::ModuleCommandRequest*> commands;
  for (; at < steps.size() && steps[at].command.has_value(); ++at) {
    commands.push_back(&*steps[at].command);
  }
  return commands;
}

}  // namespace

bess::pb::PortInfo Executor::port(const std::string& name) {
  bess::pb::NameRequest request;
  request.set_name(name);
  return client_.call(&Client::Stub::GetPortStats, request).port();
}

void Executor::command(const std::string& module,
                       const std::string& name,
                       const google::protobuf::Message& arg) {
  client_.command(module, name, arg);
}

std::string Step::text() const {
  std::string result(1, static_cast<char>(change));
  result += " " + kind + " " + printable(name);
  return detail.empty() ? result : result + ": " + printable(detail);
}

void Plan::print(std::ostream& out) const {
  for (const Step& step : steps) {
    out << step.text() << "\n";
  }
}

Json Plan::toJson() const {
  Json list = Json::array();
  for (const Step& step : steps) {
    list.push_back(Json{{"action", word(step.change)},
                        {"kind", step.kind},
                        {"name", step.name},
                        {"detail", step.detail}});
  }
  return list;
}

void Plan::execute(Client& client) const {
  Executor executor(client);
  for (size_t at = 0; at < steps.size();) {
    const auto commands = commandsFrom(steps, at);
    try {
      if (commands.empty()) {
        steps[at].run(executor);
        ++at;
      } else {
        client.commands(commands, at);
      }
    } catch (const RuntimeError& error) {
      fail(steps, at, error.what());
    }
  }
}

}  // namespace Sfectl
