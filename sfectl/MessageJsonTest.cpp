#include "sfectl/MessageJson.h"

#include <gtest/gtest.h>

#include <string>

#include "protocol/sfe.pb.h"
#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

std::string complaint(const std::string& type, const std::string& json) {
  try {
    packJson(type, json);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "";
}

TEST(MessageJson, packsFieldsByTheirNames) {
  sfe::pb::MfibRouteArg route;
  ASSERT_TRUE(packJson("sfe.pb.MfibRouteArg",
                       R"({"source": "CgAAAg==", "iif_frr": 7, "to_cpu": true,
                           "oifs": [{"intf_id": "3", "gate": 2}]})")
                  .UnpackTo(&route));
  EXPECT_EQ(route.source(), std::string("\x0a\0\0\x02", 4));
  EXPECT_EQ(route.iif_frr(), 7u);
  EXPECT_TRUE(route.to_cpu());
  ASSERT_EQ(route.oifs_size(), 1);
  EXPECT_EQ(route.oifs(0).intf_id(), 3u);
  EXPECT_EQ(route.oifs(0).gate(), 2u);
}

TEST(MessageJson, packsAnEmptyTextAsAnEmptyMessage) {
  EXPECT_TRUE(packJson("sfe.pb.SizeArg", "").Is<sfe::pb::SizeArg>());
  EXPECT_TRUE(packJson("sfe.pb.SizeArg", "{}").Is<sfe::pb::SizeArg>());
}

TEST(MessageJson, namesAnUnknownField) {
  const std::string said = complaint("sfe.pb.SizeArg", R"({"size": 3})");
  EXPECT_NE(said.find("size"), std::string::npos) << said;
  EXPECT_NE(said.find("fields: value"), std::string::npos) << said;
}

TEST(MessageJson, namesAFieldOfTheWrongType) {
  const std::string number = complaint("sfe.pb.SizeArg", R"({"value": "many"})");
  EXPECT_NE(number.find("value"), std::string::npos) << number;
  const std::string nested =
      complaint("sfe.pb.MfibRouteArg", R"({"oifs": [{"gate": 1}, {"gate": -1}]})");
  EXPECT_NE(nested.find("oifs[1].gate"), std::string::npos) << nested;
  const std::string bytes =
      complaint("sfe.pb.EthernetConfigArg", R"({"mac": "02:00:00:00:00:01"})");
  EXPECT_NE(bytes.find("mac"), std::string::npos) << bytes;
}

TEST(MessageJson, refusesWhatIsNoObject) {
  EXPECT_NE(complaint("sfe.pb.SizeArg", "{\"value\": 3").find("not JSON"), std::string::npos);
  EXPECT_NE(complaint("sfe.pb.SizeArg", "[3]").find("not a JSON object"), std::string::npos);
  EXPECT_NE(complaint("sfe.pb.SizeArg", "3").find("not a JSON object"), std::string::npos);
}

TEST(MessageJson, survivesDeepNesting) {
  constexpr int kDepth = 100'000;
  const std::string deep =
      "{\"value\":" + std::string(kDepth, '[') + std::string(kDepth, ']') + "}";
  EXPECT_NE(complaint("sfe.pb.SizeArg", deep), "");
}

TEST(MessageJson, sendsOnlyAnEmptyArgumentOfATypeThatItDoesNotKnow) {
  EXPECT_NE(complaint("other.Arg", R"({"a": 1})").find("other.Arg"), std::string::npos);
  EXPECT_EQ(packJson("other.Arg", "").type_url(), "type.googleapis.com/other.Arg");
}

TEST(MessageJson, unpacksEveryField) {
  google::protobuf::Any any;
  sfe::pb::MfibTaskIdArg answer;
  answer.set_worker_id(-1);
  answer.set_module_name("mfib4");
  any.PackFrom(answer);
  EXPECT_EQ(dumpJson(unpackJson(any)),
            R"({"task_id":0,"worker_id":-1,"vrf_name":"","module_name":"mfib4"})");
}

TEST(MessageJson, unpacksNoMoreThanTheTypeOfWhatItCannotRead) {
  google::protobuf::Any any;
  EXPECT_TRUE(unpackJson(any).is_null());
  any.set_type_url("type.googleapis.com/other.Arg");
  EXPECT_EQ(dumpJson(unpackJson(any)), R"({"@type":"other.Arg"})");
  any.set_type_url("type.googleapis.com/sfe.pb.SizeArg");
  any.set_value("\xff\xff\xff");
  EXPECT_EQ(dumpJson(unpackJson(any)), R"({"@type":"sfe.pb.SizeArg"})");
}

}  // namespace
}  // namespace Sfectl
