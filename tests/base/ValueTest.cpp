#include "platform/base/Value.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/base/Errors.h"

namespace {

using namespace qx;  // NOLINT: the whole vocabulary is under test

TEST(ErrorTest, AlwaysHoldsADescriptionAndNamesTheErrorsUnderneath) {
  const Error inner = posixError(EACCES, "Opening failed");
  const Error outer("Domain", -1, {{"description", "Outer."}, {"underlyingError", inner}});
  EXPECT_EQ(outer.text(),
            "Domain -1: Outer. (QXPOSIXErrorDomain 13: Opening failed: Permission denied.)");
  EXPECT_EQ(outer.underlyingError(), inner);

  const Error bare("Domain", 1, Error::Info{{"absent", Value()}});
  EXPECT_EQ(bare.info(), (Error::Info{{"description", bare.description()}}));
  EXPECT_FALSE(bare.description().empty());
  EXPECT_EQ(Error("Domain", 1, Error::Info{{"description", Value(7)}}), bare);
}

TEST(FileDescriptorTest, TakesThePlaceOfClosedStandardDescriptors) {
  FileDescriptor(STDIN_FILENO).reset();
  fillStandardDescriptors();
  struct stat input, null;
  ASSERT_EQ(::fstat(STDIN_FILENO, &input), 0);
  ASSERT_EQ(::stat("/dev/null", &null), 0);
  EXPECT_EQ(input.st_rdev, null.st_rdev);
  const FileDescriptor next(::open("/", O_PATH));
  EXPECT_GT(next.get(), STDERR_FILENO);
  fillStandardDescriptors();
  EXPECT_EQ(FileDescriptor(::open("/", O_PATH)).get(), next.get() + 1);
}

}  // namespace
