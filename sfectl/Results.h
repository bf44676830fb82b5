// What the daemon answers as tables.
#pragma once

#include "protocol/bess.pb.h"
#include "sfectl/Report.h"

namespace Sfectl {

Report workerReport(const google::protobuf::RepeatedPtrField<bess::pb::WorkerInfo>& workers);
Report portReport(const google::protobuf::RepeatedPtrField<bess::pb::PortInfo>& ports);
Report portCounterReport(const google::protobuf::RepeatedPtrField<bess::pb::PortInfo>& ports);
Report moduleReport(const google::protobuf::RepeatedPtrField<bess::pb::ModuleInfo>& modules);
Report taskReport(const google::protobuf::RepeatedPtrField<bess::pb::TaskInfo>& tasks);
Report connectionReport(
    const google::protobuf::RepeatedPtrField<bess::pb::ConnectRequest>& connections);
Report hookReport(const google::protobuf::RepeatedPtrField<bess::pb::HookInfo>& hooks);
Report pluginReport(const bess::pb::ListPluginsResponse& plugins);
// One row for each counter and worker.
Report counterReport(const google::protobuf::RepeatedPtrField<bess::pb::CounterValues>& counters);

}  // namespace Sfectl
