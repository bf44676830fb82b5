#include "sfectl/MessageJson.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/util/json_util.h>

#include "sfectl/Errors.h"

namespace Sfectl {
namespace {

namespace pb = google::protobuf;

std::string fieldNames(const pb::Descriptor& type) {
  std::string result;
  for (int i = 0; i < type.field_count(); ++i) {
    result += (i == 0 ? "" : ", ") + type.field(i)->name();
  }
  return result.empty() ? "none" : result;
}

}  // namespace

std::unique_ptr<pb::Message> newMessage(const std::string& fullName) {
  const pb::Descriptor* type =
      pb::DescriptorPool::generated_pool()->FindMessageTypeByName(fullName);
  if (type == nullptr) {
    return nullptr;
  }
  return std::unique_ptr<pb::Message>(
      pb::MessageFactory::generated_factory()->GetPrototype(type)->New());
}

pb::Any packJson(const std::string& type, const std::string& text) {
  const auto message = newMessage(type);
  pb::Any any;
  if (message == nullptr) {
    if (!text.empty() && text != "{}") {
      throw UsageError("no description of message " + printable(type) +
                       " in this program; only an empty argument can be sent");
    }
    any.set_type_url("type.googleapis.com/" + type);
    return any;
  }
  if (!text.empty()) {
    const Json parsed = Json::parse(text, nullptr, false);
    if (parsed.is_discarded()) {
      throw UsageError("argument is not JSON: " + printable(text));
    }
    if (!parsed.is_object()) {
      throw UsageError("argument is not a JSON object: " + printable(text));
    }
    const auto status = pb::util::JsonStringToMessage(text, message.get());
    if (!status.ok()) {
      throw UsageError(
          "argument does not fit " + type + ": " +
          printable(std::string_view(status.message().data(), status.message().size())) +
          " (fields: " + fieldNames(*message->GetDescriptor()) + ")");
    }
  }
  any.PackFrom(*message);
  return any;
}

Json unpackJson(const pb::Any& any) {
  std::string type;
  if (any.type_url().empty() || !pb::Any::ParseAnyTypeUrl(any.type_url(), &type)) {
    return nullptr;
  }
  const auto message = newMessage(type);
  if (message == nullptr || !any.UnpackTo(message.get())) {
    return Json{{"@type", type}};
  }
  pb::util::JsonPrintOptions options;
  options.always_print_primitive_fields = true;
  options.preserve_proto_field_names = true;
  std::string text;
  if (!pb::util::MessageToJsonString(*message, &text, options).ok()) {
    return Json{{"@type", type}};
  }
  return Json::parse(text, nullptr, false);
}

}  // namespace Sfectl
