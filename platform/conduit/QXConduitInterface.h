#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/base/Value.h"
#include "platform/conduit/Codec.h"

namespace qx {

namespace conduit {
class IncomingCall;
}

template <class Protocol>
struct ProtocolTraits;

/// One operation as a connection sees it.
struct OperationDescription {
  /// Its full name, with its colons.
  std::string name;
  /// Takes the arguments off the decoder and runs the operation on the object, which implements the
  /// protocol. Returns false, without running it, when they are not of the declared number and
  /// types.
  bool (*run)(void* object, conduit::Decoder& arguments,
              std::shared_ptr<conduit::IncomingCall> call);
};

}  // namespace qx

/// The description of an interface: the operations of a protocol, and which classes may occur
/// inside the collections that cross it. By default a declared collection may hold nothing; each
/// reply argument that may hold something is widened explicitly. (The info dictionary of an error
/// is not restricted.)
///
/// Immutable once it is set on a connection; any thread may read it.
class QXConduitInterface {
 public:
  template <class Protocol>
  static std::shared_ptr<QXConduitInterface> interfaceWithProtocol() {
    return std::make_shared<QXConduitInterface>(qx::ProtocolTraits<Protocol>::operations());
  }

  /// `operations` lives as long as the process.
  explicit QXConduitInterface(const std::vector<qx::OperationDescription>& operations)
      : operations_(operations) {}

  /// Lets the argument `index` (from 0) of the reply of `operation` (its full name) hold these
  /// classes, at any depth.
  void setClassesForReply(qx::conduit::ClassSet classes, std::string_view operation,
                          std::size_t index);

  const qx::OperationDescription& operation(std::size_t number) const {
    return operations_[number];
  }
  /// Returns null when the interface does not have it.
  const qx::OperationDescription* find(std::string_view name) const;

  /// Whether the collections of a reply hold only what is allowed there.
  template <class... Ts>
  bool allowsReply(std::size_t operation, const std::tuple<std::optional<Ts>...>& values) const {
    return allowsEach(operation, values, std::index_sequence_for<Ts...>());
  }

 private:
  template <class Tuple, std::size_t... Indexes>
  bool allowsEach([[maybe_unused]] std::size_t operation, [[maybe_unused]] const Tuple& values,
                  std::index_sequence<Indexes...> /*indexes*/) const {
    return (allows(operation, Indexes, std::get<Indexes>(values)) && ...);
  }
  template <class T>
  bool allows([[maybe_unused]] std::size_t operation, [[maybe_unused]] std::size_t index,
              [[maybe_unused]] const std::optional<T>& value) const {
    if constexpr (std::is_same_v<T, qx::Dictionary> || std::is_same_v<T, qx::Array>) {
      return !value || qx::conduit::holdsOnly(*value, classesForReply(operation, index));
    }
    return true;
  }
  qx::conduit::ClassSet classesForReply(std::size_t operation, std::size_t index) const;

  const std::vector<qx::OperationDescription>& operations_;
  std::map<std::pair<std::size_t, std::size_t>, qx::conduit::ClassSet> widened_;
};
