#include "tests/support/Wire.h"

#include "platform/conduit/ServiceSocket.h"

namespace qx::test {

bool Wire::send(const Array& message) {
  conduit::Encoder encoder;
  conduit::encode(encoder, message);
  const auto descriptors = encoder.takeDescriptors();
  std::vector<int> numbers;
  for (const auto& descriptor : descriptors) numbers.push_back(descriptor->get());
  return sendBytes(encoder.takeFrame(), numbers);
}

std::optional<Array> Wire::receive() {
  const auto body = readFrame();
  if (!body || !conduit::isWellFormed(*body, received.size())) return std::nullopt;
  conduit::Decoder decoder(*body, received);
  Array message;
  if (!conduit::decode(decoder, message)) return std::nullopt;
  return message;
}

bool Wire::hasInput() const {
  pollfd entry{socket(), POLLIN, 0};
  return poll(&entry, 1, 0) > 0;
}

std::optional<Error> Wire::Answer::error() const {
  if (failure) return failure;
  for (const Value& value : values) {
    if (const auto* found = value.as<Error>()) return *found;
  }
  return std::nullopt;
}

std::string Wire::Answer::outcome() const {
  if (kind == Kind::lost) return "lost";
  std::string text = kind == Kind::failure ? "failure " : "";
  auto found = error();
  if (!found) return "success";
  std::string end;
  for (;;) {
    text += found->domain() + " " + std::to_string(found->code());
    found = found->underlyingError();
    if (!found) return text + end;
    text += " (";
    end += ")";
  }
}

std::int64_t Wire::begin(std::string_view operation, Array arguments) {
  // One that cannot be sent shows as a lost connection at its answer.
  send({1, ++last_, operation, std::move(arguments)});
  return last_;
}

Wire::Answer Wire::answer(std::int64_t id) {
  for (;;) {
    if (auto known = early_.extract(id)) return std::move(known.mapped());
    auto message = receive();
    if (!message) return {};
    const auto* kind = message->empty() ? nullptr : message->front().as<std::int64_t>();
    const auto* of = message->size() == 3 ? (*message)[1].as<std::int64_t>() : nullptr;
    if (!kind || !of) continue;
    Answer answer;
    if (auto* values = message->back().as<Array>(); *kind == 2 && values) {
      answer.kind = Answer::Kind::reply;
      answer.values = std::move(*values);
    } else if (auto* error = message->back().as<Error>(); *kind == 3 && error) {
      answer.kind = Answer::Kind::failure;
      answer.failure = *error;
    } else {
      continue;
    }
    early_.emplace(*of, std::move(answer));
  }
}

Wire connectTo(const std::string& service) {
  auto socket = connectToServiceSocket(service);
  return Wire(socket ? std::move(*socket) : FileDescriptor());
}

}  // namespace qx::test
