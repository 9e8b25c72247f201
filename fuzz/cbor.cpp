// Values as they cross a conduit. The first byte says how many descriptors came with the frame,
// the rest is what the frame holds.

#include <memory>
#include <vector>

#include "fuzz/Fuzz.h"
#include "platform/conduit/Codec.h"

using namespace qx;
using conduit::Decoder;
using conduit::Encoder;
using fuzz::require;

namespace {

/// Numbers that are never used: nothing is opened.
std::vector<SharedDescriptor> descriptorsOf(std::size_t count) {
  std::vector<SharedDescriptor> made;
  for (std::size_t i = 0; i < count; ++i) {
    made.push_back(std::make_shared<const FileDescriptor>(1'000'000 + static_cast<int>(i)));
  }
  return made;
}

/// Whether the value, encoded, is decoded to itself. What is nested too deep to stand in a message,
/// or speaks of too many descriptors, cannot be sent.
void checkRoundTrip(const Value& value) {
  Encoder encoder;
  encode(encoder, value);
  if (!encoder.possible() || !encoder.fits()) return;
  const auto descriptors = encoder.takeDescriptors();
  const auto frame = encoder.takeFrame();
  const auto body = std::span(frame).subspan(conduit::frameHeaderSize);
  require(conduit::isWellFormed(body, descriptors.size()), "what is encoded is well-formed");

  Decoder decoder(body, descriptors);
  Value again;
  require(decode(decoder, again) && decoder.atEnd(), "what is encoded can be decoded");
  require(again == value || fuzz::holdsNaN(value), "what is decoded is what was encoded");

  Encoder second;
  encode(second, again);
  require(second.takeFrame() == frame, "equal values have one encoding");
}

template <class... Ts>
void takeAs(std::span<const std::uint8_t> body, std::span<const SharedDescriptor> descriptors) {
  Decoder decoder(body, descriptors);
  std::tuple<std::optional<Ts>...> values;
  if (!conduit::decodeList(decoder, values)) return;
  require(decoder.atEnd(), "a list of the declared types is taken whole");
  std::apply([](const auto&... each) { (checkRoundTrip(Value(each)), ...); }, values);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto descriptors = descriptorsOf(input.byte() % (conduit::maximumDescriptors + 1));
  const auto body = input.rest();
  if (!conduit::isWellFormed(body, descriptors.size())) return 0;

  require(!conduit::isWellFormed(body.first(body.size() - 1), descriptors.size()),
          "a frame that lacks its last byte is malformed");
  Decoder passing(body, descriptors);
  require(passing.skip() && passing.atEnd(), "an item is passed over whole");
  Decoder decoder(body, descriptors);
  Value value;
  require(decode(decoder, value) && decoder.atEnd(), "what is well-formed can be decoded");
  checkRoundTrip(value);

  takeAs<Dictionary>(body, descriptors);
  takeAs<Array, Error>(body, descriptors);
  takeAs<URL, std::string, Bytes>(body, descriptors);
  takeAs<SharedDescriptor, UUID>(body, descriptors);
  takeAs<bool, std::int64_t, double>(body, descriptors);
  return 0;
}
