// One run of the program: its global options, where it prints, its connection, and what it was
// asked to do.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "sfectl/Client.h"
#include "sfectl/Report.h"

namespace Sfectl {

class Session {
 public:
  Session(std::ostream& out, std::ostream& err);

  std::string socket;
  ClientTls tls;
  bool json = false;

  std::ostream& out() { return out_; }
  std::ostream& err() { return err_; }
  // Made on first use, so that a wrong command line never connects.
  Client& client();

  void print(const Report& report);
  void print(const Json& value);

  // Lets `action` run after the whole command line was understood, if `command` is the one chosen.
  void bind(CLI::App* command, std::function<void(Session&)> action);
  // Requires: a parse that succeeded. Errors: whatever the action throws.
  void runChosen();

 private:
  std::ostream& out_;
  std::ostream& err_;
  std::unique_ptr<Client> client_;
  std::function<void(Session&)> chosen_;
};

}  // namespace Sfectl
