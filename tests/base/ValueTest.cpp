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
  EXPECT_EQ(Value(std::optional<std::string>("x")), Value("x"));

  EXPECT_EQ(Value(2).numberAsBool(), true);
  EXPECT_EQ(Value(0.0).numberAsBool(), false);
  EXPECT_EQ(Value(false).numberAsBool(), false);
  EXPECT_EQ(Value("1").numberAsBool(), std::nullopt);

  const Dictionary dictionary{{"a", 1}};
  EXPECT_EQ(*find<std::int64_t>(dictionary, "a"), 1);
  EXPECT_EQ(find<std::string>(dictionary, "a"), nullptr);
  EXPECT_EQ(find(dictionary, "b"), nullptr);
}

TEST(ErrorTest, TextNamesTheErrorsUnderneath) {
  const Error inner = posixError(EACCES, "Opening failed");
  EXPECT_EQ(inner.text(), "QXPOSIXErrorDomain 13: Opening failed: Permission denied.");
  const Error outer("Domain", -1, {{"description", "Outer."}, {"underlyingError", inner}});
  EXPECT_EQ(outer.text(), "Domain -1: Outer. (" + inner.text() + ")");
  EXPECT_EQ(outer.underlyingError(), inner);
  EXPECT_TRUE(outer.is("Domain", -1));
  EXPECT_FALSE(outer.is("Domain", 1));
}

TEST(ErrorTest, AlwaysHoldsADescriptionAndNothingAbsent) {
  const Error bare("Domain", 1, Error::Info{{"absent", Value()}});
  ASSERT_EQ(bare.info().size(), 1u);
  EXPECT_EQ(*find<std::string>(bare.info(), "description"), bare.description());
  EXPECT_FALSE(bare.description().empty());
  const Error odd("Domain", 1, Error::Info{{"description", Value(7)}});
  EXPECT_EQ(odd, bare);
  EXPECT_EQ(odd.underlyingError(), std::nullopt);
}

TEST(ErrorTest, TheDaemonsErrorsHaveTheirCodesAndKeys) {
  struct Case {
    Error error;
    std::string_view domain;
    std::int64_t code;
    Error::Info info;
  };
  const URL url("file:///a");
  const Error inner("Inner", 1, "Inner.");
  const std::vector<Case> cases{
      {DSNotFoundError("id"), "DSErrorDomain", 1, {{"identifier", "id"}}},
      {DSNotFoundError(std::nullopt), "DSErrorDomain", 1, {}},
      {DSNotFoundErrorURL(url), "DSErrorDomain", 2, {{"URL", url}}},
      {DSNotFoundErrorURL(std::nullopt), "DSErrorDomain", 2, {}},
      {DSNotPermittedError(), "DSErrorDomain", 3, {}},
      {DSInvalidParameterError("URL", "x"),
       "DSErrorDomain",
       4,
       {{"parameter", "URL"}, {"value", "x"}}},
      {DSInvalidParameterError("URL", std::nullopt), "DSErrorDomain", 4, {{"parameter", "URL"}}},
      {DSInvalidBookmarkableStringError(), "DSErrorDomain", 5, {}},
      {DSClientLacksEntitlement("e"), "DSErrorDomain", 6, {{"entitlement", "e"}}},
      {DSProxyNotFoundError("id", inner),
       "DSErrorDomain",
       7,
       {{"identifier", "id"}, {"underlyingError", inner}}},
      {DSProxyNotFoundError("id", std::nullopt), "DSErrorDomain", 7, {{"identifier", "id"}}},
      {*DSPluginOperationFailedError(inner), "DSErrorDomain", 8, {{"underlyingError", inner}}},
      {DSPluginOperationFailedError(), "DSErrorDomain", 8, {}},
      {DSSandboxExtensionFailedError(url), "DSErrorDomain", 9, {{"URL", url}}},
      {fileError(ENOENT, url), "QXStandardErrorDomain", 260, {{"QXURLErrorKey", url}}},
      {fileError(EACCES, url),
       "QXStandardErrorDomain",
       256,
       {{"QXURLErrorKey", url},
        {"underlyingError", posixError(EACCES, "The file system refused")}}},
  };
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.error.text());
    EXPECT_TRUE(expected.error.is(expected.domain, expected.code));
    Error::Info info = expected.error.info();
    EXPECT_EQ(info.erase("description"), 1u);
    EXPECT_EQ(info, expected.info);
  }
  EXPECT_EQ(DSPluginOperationFailedError(std::nullopt), std::nullopt);
}

TEST(FileDescriptorTest, IsClosedOnceAndDuplicatesCloseOnExec) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  FileDescriptor reader(ends[0]);
  FileDescriptor writer(ends[1]);
  FileDescriptor second = writer.duplicate();
  EXPECT_EQ(::fcntl(second.get(), F_GETFD), FD_CLOEXEC);

  writer = std::move(second);
  EXPECT_FALSE(second);  // NOLINT(bugprone-use-after-move): moved-from is empty
  EXPECT_EQ(::fcntl(ends[1], F_GETFD), -1);
  EXPECT_EQ(::write(writer.get(), "x", 1), 1);
  errno = EXDEV;
  writer.reset();
  EXPECT_EQ(errno, EXDEV);
  char byte;
  EXPECT_EQ(::read(reader.get(), &byte, 1), 1);
  EXPECT_EQ(::read(reader.get(), &byte, 1), 0);
  EXPECT_FALSE(FileDescriptor().duplicate());
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
