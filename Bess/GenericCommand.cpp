#include "Bess/GenericCommand.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <system_error>

CommandResponse CommandSuccess() {
  return {};
}

CommandResponse CommandSuccess(const google::protobuf::Message& data) {
  CommandResponse response;
  response.mutable_data()->PackFrom(data);
  return response;
}

CommandResponse CommandFailure(int errnoValue, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  const int length = vsnprintf(nullptr, 0, fmt, args);
  std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  vsnprintf(text.data(), text.size() + 1, fmt, again);
  va_end(again);
  va_end(args);
  CommandResponse response;
  response.mutable_error()->set_code(errnoValue);
  response.mutable_error()->set_errmsg(text);
  return response;
}

bess::pb::Error errorFromException(std::exception_ptr exception) {
  bess::pb::Error error;
  error.set_code(EINVAL);
  try {
    std::rethrow_exception(std::move(exception));
  } catch (const std::system_error& e) {
    const bool isErrno = e.code().category() == std::generic_category() ||
                         e.code().category() == std::system_category();
    if (isErrno && e.code().value() != 0) {
      error.set_code(e.code().value());
    }
    error.set_errmsg(e.what());
  } catch (const std::bad_alloc& e) {
    error.set_code(ENOMEM);
    error.set_errmsg(e.what());
  } catch (const std::exception& e) {
    error.set_errmsg(e.what());
  } catch (...) {
    error.set_errmsg("unknown exception");
  }
  return error;
}

CommandResponse failureFromException(std::exception_ptr exception) {
  CommandResponse response;
  *response.mutable_error() = errorFromException(std::move(exception));
  return response;
}
