// JSON text to protobuf messages and back, by the descriptors of the message types this program was
// built with.
//
// Field names are those of the .proto files (their lower-camel forms are taken too); a bytes field
// is standard base64. Errors     : UsageError, naming the field that is unknown or of the wrong
// type, or the place where the text is not JSON.
#pragma once

#include <google/protobuf/any.pb.h>
#include <google/protobuf/message.h>

#include <memory>
#include <string>

#include "sfectl/Report.h"

namespace Sfectl {

// Null when this program knows no such message type.
std::unique_ptr<google::protobuf::Message> newMessage(const std::string& fullName);

// Requires: `type` is a full message name ("sfe.pb.SizeArg"). An empty text is an empty message.
google::protobuf::Any packJson(const std::string& type, const std::string& text);

// The message inside, all fields with their values; {"@type": name} alone when the type is unknown
// here.
Json unpackJson(const google::protobuf::Any& any);

}  // namespace Sfectl
