#include "platform/conduit/Codec.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/base/Errors.h"
#include "platform/base/Text.h"
#include "tests/conduit/Trial.h"

namespace {

using namespace qx::conduit;
using qx::Dictionary;
using qx::Value;

bool wellFormed(const std::string& hex, std::size_t descriptors = 0) {
  return isWellFormed(*qx::hexDecode(hex), descriptors);
}

/// What an encoder wrote, without the length in front.
std::vector<std::uint8_t> bodyOf(Encoder& encoder) {
  auto frame = encoder.takeFrame();
  frame.erase(frame.begin(), frame.begin() + frameHeaderSize);
  return frame;
}

template <class T>
T decoded(const std::string& hex, T value) {
  auto bytes = *qx::hexDecode(hex);
  Decoder decoder(bytes, {});
  EXPECT_TRUE(decode(decoder, value)) << hex;
  return value;
}

Value nested(std::size_t depth) {
  Value value = qx::Array();
  for (std::size_t i = 1; i < depth; ++i) {
    value = i % 2 == 0 ? Value(qx::Array{value}) : Value(Dictionary{{"k", value}});
  }
  return value;
}

TEST(Codec, ReadsWhatOthersWrite) {
  EXPECT_EQ(decoded("1b7fffffffffffffff", std::int64_t{}),
            std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(decoded("3b7fffffffffffffff", std::int64_t{}),
            std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(decoded("1800", std::int64_t{1}), 0);
  EXPECT_EQ(decoded("f93c00", 0.0), 1.0);
  EXPECT_EQ(decoded("fa3fc00000", 0.0), 1.5);
  EXPECT_TRUE(std::isnan(decoded("fb7ff8000000000000", 0.0)));
  EXPECT_EQ(decoded("d8206966696c653a2f2f2f61", std::optional<qx::URL>()), qx::URL("file:///a"));
  EXPECT_EQ(decoded("d82550000102030405060708090a0b0c0d0e0f", qx::UUID()).text(),
            "00010203-0405-0607-0809-0A0B0C0D0E0F");
  auto error =
      decoded("d94552836144382aa16b6465736372697074696f6e6179", std::optional<qx::Error>());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->text(), "D -43: y");
}

TEST(Codec, MalformedItemsAreRefused) {
  for (const std::string hex :
       {// Not whole, or more than one.
        "", "19", "1901", "6261", "8201", "a1", "a16161", "d820", "f6f6", "80f6",
        // Indefinite lengths.
        "9fff", "9f01ff", "bfff", "7f6161ff", "5f4161ff", "ff", "81ff",
        // No values of ours: undefined, simple values, reserved heads.
        "f7", "e0", "f3", "f820", "f8ff", "1c", "1d", "1e", "3c", "5c", "7d", "9e", "dc", "fc",
        // Integers out of 64 bits with a sign.
        "1b8000000000000000", "1bffffffffffffffff", "3b8000000000000000", "3bffffffffffffffff",
        // Text that is not UTF-8, keys too: stray byte, overlong, surrogate, past U+10FFFF.
        "61ff", "62c328", "62c080", "63eda080", "64f4908080", "a161ff01", "d82061ff",
        // Keys: twice, apart too and in every depth, or no strings.
        "a2616101616102", "a3616101616202616103", "81a2616101616102", "a10101", "a1416101",
        "a1d820616101", "a1f601",
        // Tags that there are not, or on something else.
        "c06161", "c101", "d9d9f701", "d82001", "d8204161", "d820d8206161", "d8254101", "d8255000",
        "d825506161", "d8254f000102030405060708090a0b0c0d0e",
        "d82551000102030405060708090a0b0c0d0e0f10", "d82570303132333435363738393a3b3c3d3e3f",
        "d945528261440c", "d94552a0", "d9455284614401a0f6", "d94552830101a0", "d945528361446131a0",
        "d9455283614401f6", "d945528361440180", "d945528341440100",
        // Descriptors that did not come.
        "d9464400", "d946446130", "d9464420",
        // Counts that promise more than there is.
        "9bffffffffffffffff", "bbffffffffffffffff", "bb8000000000000000", "bb7fffffffffffffff",
        "5bffffffffffffffff", "7bffffffffffffffff", "9a00ffffff", "ba00ffffff", "7affffffff"}) {
    EXPECT_FALSE(wellFormed(hex)) << hex;
  }
  EXPECT_TRUE(wellFormed("d9464400", 1));
  EXPECT_TRUE(wellFormed("d946440f", 16));
  EXPECT_FALSE(wellFormed("d9464410", 16));
}

// The smallest values of a frame grow the most when they are built.
TEST(Codec, AFrameIsNotBuiltBeyondAMeasure) {
  Encoder encoder;
  encoder.array(15U << 20U);
  for (std::size_t i = 0; i < 15U << 20U; ++i) encoder.null();
  const auto large = bodyOf(encoder);
  ASSERT_TRUE(isWellFormed(large, 0));
  const long before = qx::test::peakMemory();
  Decoder decoder(large, {});
  Value value;
  EXPECT_FALSE(decode(decoder, value));
  EXPECT_LT(qx::test::peakMemory() - before, 100);

  // What is large and not made of crumbs comes whole.
  Dictionary dictionary;
  for (int i = 0; i < 200'000; ++i) {
    dictionary.emplace("com.example.provider." + std::to_string(i), "file:///some/where/else");
  }
  Encoder ordinary;
  encode(ordinary, dictionary);
  const auto body = bodyOf(ordinary);
  Decoder second(body, {});
  Dictionary again;
  EXPECT_TRUE(decode(second, again));
  EXPECT_EQ(again, dictionary);
}

// What would cost us the connection at the other end is not sent: it may come from a third party.
TEST(Codec, WhatAPeerWouldRefuseIsNotSent) {
  const auto message = [](const Value& value) {
    Encoder encoder;
    encoder.array(3);
    encoder.integer(2);
    encoder.integer(0);
    encodeList(encoder, std::optional(value));
    return encoder;
  };
  Encoder deep = message(nested(maximumNesting - 2));
  ASSERT_TRUE(deep.possible());
  EXPECT_TRUE(isWellFormed(bodyOf(deep), 0));
  Encoder tooDeep = message(nested(maximumNesting - 1));
  EXPECT_FALSE(tooDeep.possible());
  EXPECT_FALSE(isWellFormed(bodyOf(tooDeep), 0));

  qx::Error error("D", 1, Dictionary{{"description", "d"}, {"deep", nested(maximumNesting - 4)}});
  EXPECT_TRUE(message(error).possible());
  EXPECT_FALSE(message(*DSPluginOperationFailedError(error)).possible());

  EXPECT_FALSE(message(qx::Date()).possible());
  EXPECT_FALSE(message(Dictionary{{"\xFF", 1}, {"\xFE", 1}}).possible());

  Encoder repaired = message(std::string("a\xFF\xC3(\xF0\x9F\x98\x80\xED\xA0\x80"));
  auto body = bodyOf(repaired);
  ASSERT_TRUE(repaired.possible());
  EXPECT_TRUE(isWellFormed(body, 0));
  EXPECT_NE(std::string(body.begin(), body.end())
                .find("a\xEF\xBF\xBD\xEF\xBF\xBD(\xF0\x9F\x98\x80\xEF\xBF\xBD"),
            std::string::npos);

  Encoder limit;
  limit.bytes(qx::Bytes(maximumFrameSize - 5));
  EXPECT_TRUE(limit.fits());
  limit.null();
  EXPECT_FALSE(limit.fits());

  Encoder descriptors;
  auto some = std::make_shared<const qx::FileDescriptor>(dup(0));
  for (std::size_t i = 0; i < maximumDescriptors; ++i) descriptors.descriptor(some);
  EXPECT_TRUE(descriptors.fits());
  descriptors.descriptor(some);
  EXPECT_FALSE(descriptors.fits());
}

}  // namespace
