#include "platform/base/Value.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/base/Errors.h"

namespace {

using namespace qx;  // NOLINT: the whole vocabulary is under test

TEST(ValueTest, IsDescribedForAPerson) {
  const Value value = Dictionary{
      {"array", Array{Value(1), Value("x\n"), Value(), Value(true), Value(-0.5), Value(Array{})}},
      {"bytes", Bytes{0x0a, 0xff}},
      {"date", Date(std::chrono::seconds(951782400))},
      {"error", Error("Domain", 3, "Sentence.")},
      {"url", URL("file:///a%20b")}};
  EXPECT_EQ(describe(value),
            "{array: (1, x\n, (null), true, -0.5, ()), bytes: <0aff>, date: 2000-02-29T00:00:00Z, "
            "error: Domain 3: Sentence., url: file:///a%20b}");
  EXPECT_EQ(describe(Value(SharedDescriptor())), "(null)");
}

TEST(ValueTest, KeepsClassesApart) {
  EXPECT_NE(Value(1), Value(1.0));
  EXPECT_NE(Value(1), Value(true));
  EXPECT_NE(Value("file:///a"), Value(URL("file:///a")));
  EXPECT_EQ(Value(std::optional<std::string>()), Value());
}

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

TEST(ErrorTest, TheDaemonsErrorsHaveTheirCodesAndKeys) {
  struct Case {
    Error error;
    std::int64_t code;
    Error::Info info;
  };
  const URL url("file:///a");
  const Error inner("Inner", 1, "Inner.");
  const std::vector<Case> cases{
      {DSNotFoundError("id"), 1, {{"identifier", "id"}}},
      {DSNotFoundError(std::nullopt), 1, {}},
      {DSNotFoundErrorURL(url), 2, {{"URL", url}}},
      {DSNotPermittedError(), 3, {}},
      {DSInvalidParameterError("URL", "x"), 4, {{"parameter", "URL"}, {"value", "x"}}},
      {DSInvalidParameterError("URL", std::nullopt), 4, {{"parameter", "URL"}}},
      {DSInvalidBookmarkableStringError(), 5, {}},
      {DSClientLacksEntitlement("e"), 6, {{"entitlement", "e"}}},
      {DSProxyNotFoundError("id", inner), 7, {{"identifier", "id"}, {"underlyingError", inner}}},
      {*DSPluginOperationFailedError(inner), 8, {{"underlyingError", inner}}},
      {DSPluginOperationFailedError(), 8, {}},
      {DSSandboxExtensionFailedError(url), 9, {{"URL", url}}},
      {fileError(ENOENT, url), 260, {{"QXURLErrorKey", url}}},
      {fileError(EACCES, url),
       256,
       {{"QXURLErrorKey", url},
        {"underlyingError", posixError(EACCES, "The file system refused")}}},
  };
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.error.text());
    const auto domain = expected.code < 256 ? "DSErrorDomain" : "QXStandardErrorDomain";
    EXPECT_TRUE(expected.error.is(domain, expected.code));
    Error::Info info = expected.error.info();
    EXPECT_EQ(info.erase("description"), 1u);
    EXPECT_EQ(info, expected.info);
  }
  EXPECT_EQ(DSPluginOperationFailedError(std::nullopt), std::nullopt);
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
