// Orp::SystemException: a system call failed; carries its errno.
#pragma once

#include <string>
#include <system_error>

namespace Orp {

class SystemException : public std::system_error {
 public:
  // what() is "<what>: <the system's text for errnoValue>".
  SystemException(int errnoValue, const std::string& what)
      : std::system_error(errnoValue, std::generic_category(), what) {}

  int errnoValue() const noexcept { return code().value(); }
};

}  // namespace Orp
