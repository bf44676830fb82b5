#include "sfectl/Report.h"

#include <gtest/gtest.h>

#include <sstream>

#include "sfectl/Arguments.h"
#include "sfectl/Results.h"

namespace Sfectl {
namespace {

std::string textOf(const Report& report) {
  std::ostringstream out;
  report.printText(out);
  return out.str();
}

Report sample() {
  Report report({{"NAME", "name"}, {"PACKETS", "packets"}, {"UP", "up"}, {"NOTE", "note"}});
  report.add({"a", 7u, true, "first"});
  report.add({"longer", 123456789u, false, nullptr});
  return report;
}

TEST(Report, alignsNumbersToTheRight) {
  EXPECT_EQ(textOf(sample()),
            "NAME      PACKETS  UP   NOTE\n"
            "a               7  yes  first\n"
            "longer  123456789  no   -\n");
}

TEST(Report, printsObjectsWithoutAbsentValues) {
  EXPECT_EQ(dumpJson(sample().toJson()), R"([{"name":"a","packets":7,"up":true,"note":"first"},)"
                                         R"({"name":"longer","packets":123456789,"up":false}])");
}

TEST(Report, printsNothingForNoRowsButAnEmptyArray) {
  const Report empty({{"NAME", "name"}});
  EXPECT_EQ(textOf(empty), "");
  EXPECT_EQ(dumpJson(empty.toJson()), "[]");
}

TEST(Report, letsNoControlCharacterThrough) {
  Report report({{"NAME", "name"}});
  report.add({"evil\x1b[31m\n\x7f"});
  EXPECT_EQ(textOf(report), "NAME\nevil?[31m??\n");
}

TEST(Report, replacesInvalidUtf8InJson) {
  Report report({{"NAME", "name"}});
  report.add({"\xff"});
  EXPECT_EQ(dumpJson(report.toJson()), "[{\"name\":\"\xEF\xBF\xBD\"}]");
}

TEST(Results, showPorts) {
  google::protobuf::RepeatedPtrField<bess::pb::PortInfo> ports;
  auto* port = ports.Add();
  port->set_name("port1");
  port->set_id(3);
  port->set_driver("net_null");
  port->set_mac(parseMac("02:00:00:00:00:01"));
  port->set_mtu(1500);
  port->set_rxq(1);
  port->set_txq(2);
  port->set_queue_size(512);
  port->set_link_up(true);
  port->set_devargs("net_null0");
  EXPECT_EQ(
      textOf(portReport(ports)),
      "NAME   ID  DRIVER    MAC                 MTU  RXQ  TXQ  QUEUE-SIZE  LINK  MBPS  PROMISC  "
      "ALLMULTI  DEVARGS\n"
      "port1   3  net_null  02:00:00:00:00:01  1500    1    2         512  yes      0  no       "
      "no        net_null0\n");
  port->set_queue_size(0);
  EXPECT_FALSE(portReport(ports).toJson()[0].contains("queue_size"));
}

TEST(Results, showUnattachedTasksWithoutAWorker) {
  google::protobuf::RepeatedPtrField<bess::pb::TaskInfo> tasks;
  auto* task = tasks.Add();
  task->set_module("rx");
  task->set_wid(-1);
  task = tasks.Add();
  task->set_module("mfib4");
  task->set_task_id(1);
  task->set_rate(2);
  task->set_runs(10);
  EXPECT_EQ(textOf(taskReport(tasks)),
            "MODULE  TASK  WORKER  RATE  RUNS\n"
            "rx         0       -     -     0\n"
            "mfib4      1       0     2    10\n");
  EXPECT_EQ(dumpJson(taskReport(tasks).toJson()[0]), R"({"module":"rx","task_id":0,"runs":0})");
}

TEST(Results, showOneRowForEachCounterAndWorker) {
  google::protobuf::RepeatedPtrField<bess::pb::CounterValues> counters;
  auto* counter = counters.Add();
  counter->set_name("mfib4.noCacheMessagesCounter_");
  counter->set_id(9);
  for (unsigned wid : {0u, 2u}) {
    auto* value = counter->add_values();
    value->set_wid(wid);
    value->set_value(100 + wid);
  }
  EXPECT_EQ(dumpJson(counterReport(counters).toJson()),
            R"([{"name":"mfib4.noCacheMessagesCounter_","id":9,"wid":0,"value":100},)"
            R"({"name":"mfib4.noCacheMessagesCounter_","id":9,"wid":2,"value":102}])");
}

}  // namespace
}  // namespace Sfectl
