// The steps that bring a running daemon to what a configuration says, in their order.
#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "protocol/bess.pb.h"
#include "sfectl/Report.h"

namespace Sfectl {

class Client;

// What the steps of one run share: ids and addresses of ports are known once the ports are there.
class Executor {
 public:
  explicit Executor(Client& client) : client_(client) {}

  Client& client() { return client_; }
  // Errors: RuntimeError when there is no such port.
  bess::pb::PortInfo port(const std::string& name);
  void command(const std::string& module,
               const std::string& name,
               const google::protobuf::Message& arg);

 private:
  Client& client_;
};

enum class Change : char { kAdd = '+', kRemove = '-', kChange = '~' };

struct Step {
  Change change;
  std::string kind;    // "port", "route", ...
  std::string name;    // what is changed
  std::string detail;  // to what; may be empty
  // One of the two.
  std::function<void(Executor&)> run;
  std::optional<bess::pb::ModuleCommandRequest> command;

  std::string text() const;  // "+ port p1: net_null0"
};

struct Plan {
  std::vector<Step> steps;

  void print(std::ostream& out) const;
  Json toJson() const;
  // Errors: RuntimeError that names the step that failed, and how many were done before it.
  void execute(Client& client) const;
};

}  // namespace Sfectl
