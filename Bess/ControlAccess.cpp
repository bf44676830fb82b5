#include "Bess/ControlAccess.h"

#include <glog/logging.h>
#include <grpc/grpc_security_constants.h>

#include <algorithm>

namespace bess {
namespace {

// What a certificate calls its owner.
std::vector<std::string> namesOf(const grpc::AuthContext& identity) {
  std::vector<std::string> names;
  for (const char* property : {GRPC_X509_SAN_PROPERTY_NAME, GRPC_X509_CN_PROPERTY_NAME}) {
    for (const grpc::string_ref& name : identity.FindPropertyValues(property)) {
      names.emplace_back(name.data(), name.size());
    }
  }
  return names;
}

}  // namespace

ControlAccess::ControlAccess(Scope scope, const std::vector<std::string>& readOnlyNames)
    : scope_(scope), readOnlyNames_(readOnlyNames.begin(), readOnlyNames.end()) {}

bool ControlAccess::isReadCall(std::string_view method) {
  return method.starts_with("Get") || method.starts_with("List");
}

bool ControlAccess::mayChange(const grpc::ServerContext& context) const {
  if (scope_ == Scope::kReads) {
    return false;
  }
  if (readOnlyNames_.empty()) {
    return true;
  }
  const auto identity = context.auth_context();
  if (identity == nullptr) {
    return true;
  }
  const auto names = namesOf(*identity);
  return std::none_of(names.begin(), names.end(),
                      [this](const std::string& name) { return readOnlyNames_.contains(name); });
}

std::string ControlAccess::describe(const grpc::ServerContext& context) const {
  std::string text = scope_ == Scope::kReads ? "a client of the read-only socket" : context.peer();
  if (const auto identity = context.auth_context(); identity != nullptr) {
    for (const std::string& name : namesOf(*identity)) {
      text += " " + name;
    }
  }
  // A name may hold anything.
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return text;
}

grpc::Status ControlAccess::check(const grpc::ServerContext& context, std::string_view method) {
  if (isReadCall(method) || mayChange(context)) {
    return grpc::Status::OK;
  }
  uint64_t dropped = 0;
  if (logLimit_.admit(&dropped)) {
    LOG_IF(WARNING, dropped != 0) << dropped << " refused calls were not logged";
    LOG(WARNING) << "refused " << method << " to " << describe(context) << ", who may only read";
  }
  return {grpc::StatusCode::PERMISSION_DENIED,
          std::string(method) + " changes the daemon, and this client may only read"};
}

}  // namespace bess
