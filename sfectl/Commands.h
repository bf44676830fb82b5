// The commands of the program, one function for each group of them; each adds its subcommands to
// the application.
//
// Ownership  : the session outlives the application's parse and the action that the parse chose.
#pragma once

#include <CLI/CLI.hpp>

#include "sfectl/Session.h"

namespace Sfectl {

void addSystemCommands(CLI::App& app, Session& session);   // version shutdown pause resume stats
void addWorkerCommands(CLI::App& app, Session& session);   // worker task
void addPortCommands(CLI::App& app, Session& session);     // port
void addModuleCommands(CLI::App& app, Session& session);   // module command
void addGraphCommands(CLI::App& app, Session& session);    // connect disconnect connections hook
void addPluginCommands(CLI::App& app, Session& session);   // plugin
void addIntfCommands(CLI::App& app, Session& session);     // intf
void addRouteCommands(CLI::App& app, Session& session);    // mroute
void addCounterCommands(CLI::App& app, Session& session);  // counters
void addConfigCommands(CLI::App& app, Session& session);   // apply save import
void addMonitorCommands(CLI::App& app, Session& session);  // monitor
void addShowCommands(CLI::App& app, Session& session);     // show
void addGraphShow(CLI::App& app, Session& session);        // graph
void addCaptureCommands(CLI::App& app, Session& session);  // capture
void addTopCommands(CLI::App& app, Session& session);      // top
void addExplainCommands(CLI::App& app, Session& session);  // explain

}  // namespace Sfectl
