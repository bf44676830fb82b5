#include <memory>
#include <optional>
#include <string>

#include "sfectl/Arguments.h"
#include "sfectl/Commands.h"
#include "sfectl/Errors.h"
#include "sfectl/Instances.h"
#include "sfectl/StateText.h"

namespace Sfectl {
namespace {

constexpr unsigned kMaxTtl = 255;
constexpr unsigned kMaxLength = 65535;

struct ExplainWords {
  std::string source;
  std::string group;
  std::string intf;
  std::string vrf = "default";
  std::optional<unsigned> ttl;
  std::optional<unsigned> length;
};

Nynet::AddressFamily familyOf(const ExplainWords& words) {
  const Address source = parseAddress(words.source, "SOURCE");
  const Address group = parseAddress(words.group, "GROUP");
  if (source.isIpv4() != group.isIpv4()) {
    throw UsageError("SOURCE " + words.source + " and GROUP " + words.group +
                     " are of different families");
  }
  return group.isIpv4() ? Nynet::AddressFamily::kIpv4 : Nynet::AddressFamily::kIpv6;
}

std::string instanceFor(Client& client, const ExplainWords& words, Nynet::AddressFamily af) {
  CounterFilter filter;
  filter.vrf = words.vrf;
  filter.af = af;
  const auto instances = multicastInstances(client, filter);
  if (instances.empty()) {
    throw RuntimeError("no module of class Mfib serves " + std::string(familyText(af)) +
                       " in VRF " + printable(words.vrf));
  }
  return instances.front().module;
}

void explain(Session& session, const ExplainWords& words) {
  const Nynet::AddressFamily af = familyOf(words);
  parseIntf(words.intf, "INTF");
  std::string arg = words.source + " " + words.group + " " + words.intf;
  if (words.ttl) {
    arg += " ttl=" + std::to_string(*words.ttl);
  }
  if (words.length) {
    arg += " len=" + std::to_string(*words.length);
  }
  Client& client = session.client();
  const StateText text = StateText::fetch(client, instanceFor(client, words, af), "explain", arg);
  const size_t step = text.column("step");
  const size_t result = text.column("result");
  const size_t detail = text.column("detail");
  Report report({{"STEP", "step"}, {"RESULT", "result"}, {"DETAIL", "detail"}});
  for (size_t i = 0; i < text.size(); ++i) {
    const StateText::Row row = text.row(i);
    report.add({std::string(row[step]), std::string(row[result]), std::string(row[detail])});
  }
  session.print(report);
}

}  // namespace

void addExplainCommands(CLI::App& app, Session& session) {
  auto words = std::make_shared<ExplainWords>();
  auto* command = app.add_subcommand(
      "explain", "What would become of a packet now, step by step, and what would count it");
  command->add_option("SOURCE", words->source, "Its source address")->required();
  command->add_option("GROUP", words->group, "Its destination address")->required();
  command->add_option("INTF", words->intf, "The interface that it arrives on")->required();
  command->add_option("--ttl", words->ttl, "Its TTL or hop limit, 64 when left out")
      ->check(CLI::Range(0U, kMaxTtl));
  command->add_option("--length", words->length, "Its bytes, 128 when left out")
      ->check(CLI::Range(0U, kMaxLength));
  command->add_option("--vrf", words->vrf, "The VRF that it arrives in")->capture_default_str();
  session.bind(command, [words](Session& s) { explain(s, *words); });
}

}  // namespace Sfectl
