#include "sfectl/Session.h"

#include <ostream>
#include <utility>

namespace Sfectl {

Session::Session(std::ostream& out, std::ostream& err)
    : socket(kDefaultSocket), out_(out), err_(err) {}

Client& Session::client() {
  if (client_ == nullptr) {
    client_ = std::make_unique<Client>(socket, tls);
  }
  return *client_;
}

void Session::print(const Report& report) {
  if (json) {
    print(report.toJson());
  } else {
    report.printText(out_);
  }
}

void Session::print(const Json& value) {
  out_ << dumpJson(value) << std::endl;
}

void Session::bind(CLI::App* command, std::function<void(Session&)> action) {
  command->callback([this, action = std::move(action)] { chosen_ = action; });
}

void Session::runChosen() {
  if (chosen_) {
    chosen_(*this);
  }
}

}  // namespace Sfectl
