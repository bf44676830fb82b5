// SFE_ASSERT(expression): an assertion that stays on in every build type.
//
// For programming errors after which going on would corrupt memory. Failing, it writes the usual
// line of an assertion (program, file, line, full signature of the function, expression) to the
// standard error stream and aborts. Cost: one predictable branch.
#pragma once

#include <errno.h>

#include <cstdio>
#include <cstdlib>

namespace SfeModules {

[[noreturn, gnu::cold]] inline void assertionFailed(const char* expression,
                                                    const char* file,
                                                    unsigned line,
                                                    const char* function) {
  std::fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name,
               file, line, function, expression);
  std::abort();
}

}  // namespace SfeModules

#define SFE_ASSERT(expression) \
  ((expression)                \
       ? static_cast<void>(0)  \
       : ::SfeModules::assertionFailed(#expression, __FILE__, __LINE__, __PRETTY_FUNCTION__))
