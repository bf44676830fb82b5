#include "Base/Orp/SystemException.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace Orp {
namespace {

TEST(SystemException, carriesErrnoAndText) {
  const SystemException e(ENOENT, "open /x");
  EXPECT_EQ(e.errnoValue(), ENOENT);
  EXPECT_STREQ(e.what(), "open /x: No such file or directory");
  EXPECT_EQ(e.code(), std::errc::no_such_file_or_directory);
}

}  // namespace
}  // namespace Orp
