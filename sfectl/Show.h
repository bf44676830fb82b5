// The group `sfectl show`: what is going on, in the words of those who run multicast.
#pragma once

#include <CLI/CLI.hpp>

#include "sfectl/Counters.h"
#include "sfectl/Session.h"

namespace Sfectl {

// The group itself, made on first use: each file of commands adds its own to it.
CLI::App& showGroup(CLI::App& app);

void addShowIntf(CLI::App& show, Session& session);
void addShowCache(CLI::App& show, Session& session);
void addShowSummary(CLI::App& show, Session& session);
void addShowTrace(CLI::App& show, Session& session);

// The options --vrf, -4 and -6; the filter is complete when the command runs.
std::shared_ptr<CounterFilter> addInstanceFilter(CLI::App* command);

}  // namespace Sfectl
