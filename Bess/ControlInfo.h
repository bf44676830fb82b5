// What the control service says of workers, ports and modules.
//
// Threads    : control.
#pragma once

#include "Bess/GenericCommand.h"
#include "Bess/Module.h"
#include "Bess/Port.h"
#include "Bess/Worker.h"
#include "protocol/bess.pb.h"

namespace bess {

void fillInfo(const WorkerStatus& status, pb::WorkerInfo* info);
void fillInfo(const Port& port, pb::PortInfo* info);
// Requires: the module is of the graph.
void fillInfo(const Module& module, pb::ModuleInfo* info);

// The error of `done`, if it has one.
void passError(CommandResponse done, pb::EmptyResponse* response);

}  // namespace bess
