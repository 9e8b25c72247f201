#pragma once

#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/base/Completion.h"
#include "platform/conduit/ConduitChannel.h"
#include "platform/conduit/QXConduitInterface.h"

/* An interface that crosses a conduit is declared once, as a table of its operations:

       #define DS_EXAMPLE(OPERATION)                                                  \
         OPERATION(wakeUpCompletion, (), ())                                          \
         OPERATION(findFor_completion, (qx::URL, std::string), (std::string, qx::Error))
       QX_PROTOCOL(DSExample, DS_EXAMPLE)

   that is: the operation, its arguments before the completion callback, the completion's
   arguments. From that one declaration come
    - the abstract class DSExample, with a member function per operation, each argument a
      `const std::optional<T>&` and the completion a `qx::Completion<...>` last (up to three
      arguments);
    - the proxy that sends each call over a connection (QXConduitConnection);
    - the stub that checks the arguments of a call that arrives and runs it;
    - the operation's full name, as it goes over the wire and into the log: the member function
      `first_second` is the operation `first:second:`. */

namespace qx {

/// Returns "first:second:" for "first_second"; underscores in front belong to the name.
constexpr std::string operationName(std::string_view member) {
  std::string name;
  std::size_t start = member.find_first_not_of('_');
  name.append(member.substr(0, start));
  for (char c : member.substr(start)) name.push_back(c == '_' ? ':' : c);
  name.push_back(':');
  return name;
}

/// Returns "-[Class first:second:]" for the member function first_second, as the log names methods.
inline std::string methodName(std::string_view type, std::string_view member) {
  return "-[" + std::string(type) + " " + operationName(member) + "]";
}

/// Specialised by QX_PROTOCOL: Proxy, and operations().
template <class Protocol>
struct ProtocolTraits;

template <class... Ts>
struct Types {};

/// The base of every generated proxy.
class RemoteProxy {
 public:
  using ErrorHandler = std::function<void(const Error&)>;

  RemoteProxy(std::shared_ptr<conduit::ConduitChannel> channel,
              std::shared_ptr<const QXConduitInterface> interface, std::optional<UUID> request,
              ErrorHandler onError)
      : channel_(std::move(channel)),
        interface_(std::move(interface)),
        request_(request),
        onError_(std::move(onError)) {}

 protected:
  template <class... Rs, class... As>
  void call(Types<Rs...> /*reply*/, std::size_t operation, const Completion<Rs...>& completion,
            const std::optional<As>&... arguments) {
    const std::uint64_t id = channel_->nextCallID();
    conduit::Encoder message = conduit::ConduitChannel::beginCall(
        id, interface_->operation(operation).name, request_.has_value());
    conduit::encodeList(message, arguments...);
    channel_->sendCall(
        id, std::move(message), request_,
        [completion, interface = interface_,
         operation](conduit::Decoder& reply) mutable -> conduit::ConduitChannel::Delivery {
          std::tuple<std::optional<Rs>...> values;
          if (!conduit::decodeList(reply, values)) return {};
          if (!interface->allowsReply(operation, values)) return {};
          return [completion = std::move(completion), values = std::move(values)]() mutable {
            if (completion) std::apply(completion, std::move(values));
          };
        },
        onError_);
  }

 private:
  std::shared_ptr<conduit::ConduitChannel> channel_;
  std::shared_ptr<const QXConduitInterface> interface_;
  std::optional<UUID> request_;
  ErrorHandler onError_;
};

/// The stub of one operation.
template <class Protocol, auto Member, class... As, class... Rs>
OperationDescription describeOperation(std::string_view member, Types<As...> /*arguments*/,
                                       Types<Rs...> /*reply*/) {
  return {operationName(member),
          [](void* object, conduit::Decoder& from, std::shared_ptr<conduit::IncomingCall> call) {
            std::tuple<std::optional<As>...> arguments;
            if (!conduit::decodeList(from, arguments)) return false;
            // A client is answered once. What an implementation answers after that is dropped.
            auto completion = once(
                Completion<Rs...>([call = std::move(call)](const std::optional<Rs>&... values) {
                  conduit::Encoder message = call->beginReply();
                  conduit::encodeList(message, values...);
                  call->sendReply(std::move(message));
                }));
            std::apply(
                [&](const auto&... each) {
                  (static_cast<Protocol*>(object)->*Member)(each..., std::move(completion));
                },
                arguments);
            return true;
          }};
}

}  // namespace qx

#define QX_DETAIL_UNPACK(...) __VA_ARGS__
#define QX_DETAIL_PICK(a, b, c, d, n, ...) n
#define QX_DETAIL_COUNT(...) QX_DETAIL_PICK(__VA_ARGS__ __VA_OPT__(, ) 4, 3, 2, 1, 0)
#define QX_DETAIL_JOIN(a, b) QX_DETAIL_JOIN_(a, b)
#define QX_DETAIL_JOIN_(a, b) a##b

#define QX_DETAIL_PARAMETERS(...) \
  QX_DETAIL_JOIN(QX_DETAIL_PARAMETERS_, QX_DETAIL_COUNT(__VA_ARGS__))(__VA_ARGS__)
#define QX_DETAIL_PARAMETERS_0()
#define QX_DETAIL_PARAMETERS_1(A) const std::optional<A>&argument1,
#define QX_DETAIL_PARAMETERS_2(A, B) QX_DETAIL_PARAMETERS_1(A) const std::optional<B>&argument2,
#define QX_DETAIL_PARAMETERS_3(A, B, C) \
  QX_DETAIL_PARAMETERS_2(A, B) const std::optional<C>&argument3,

#define QX_DETAIL_FORWARDED(...) QX_DETAIL_JOIN(QX_DETAIL_FORWARDED_, QX_DETAIL_COUNT(__VA_ARGS__))
#define QX_DETAIL_FORWARDED_0
#define QX_DETAIL_FORWARDED_1 , argument1
#define QX_DETAIL_FORWARDED_2 , argument1, argument2
#define QX_DETAIL_FORWARDED_3 , argument1, argument2, argument3

#define QX_DETAIL_DECLARE(operation, arguments, reply) \
  virtual void operation(                              \
      QX_DETAIL_PARAMETERS arguments qx::Completion<QX_DETAIL_UNPACK reply> completion) = 0;
#define QX_DETAIL_NUMBER(operation, arguments, reply) operation,
#define QX_DETAIL_FORWARD(operation, arguments, reply)                                             \
  void operation(QX_DETAIL_PARAMETERS arguments qx::Completion<QX_DETAIL_UNPACK reply> completion) \
      override {                                                                                   \
    this->call(qx::Types<QX_DETAIL_UNPACK reply>(), static_cast<std::size_t>(Number::operation),   \
               completion QX_DETAIL_FORWARDED arguments);                                          \
  }
#define QX_DETAIL_DESCRIBE(operation, arguments, reply)    \
  qx::describeOperation<Described, &Described::operation>( \
      #operation, qx::Types<QX_DETAIL_UNPACK arguments>(), qx::Types<QX_DETAIL_UNPACK reply>()),

#define QX_PROTOCOL(Protocol, OPERATIONS)                                             \
  class Protocol {                                                                    \
   public:                                                                            \
    virtual ~Protocol() = default;                                                    \
    OPERATIONS(QX_DETAIL_DECLARE)                                                     \
  };                                                                                  \
  class Protocol##Proxy final : public Protocol, private qx::RemoteProxy {            \
   public:                                                                            \
    using RemoteProxy::RemoteProxy;                                                   \
    OPERATIONS(QX_DETAIL_FORWARD)                                                     \
                                                                                      \
   private:                                                                           \
    enum class Number : std::size_t { OPERATIONS(QX_DETAIL_NUMBER) };                 \
  };                                                                                  \
  template <>                                                                         \
  struct qx::ProtocolTraits<Protocol> {                                               \
    using Proxy = Protocol##Proxy;                                                    \
    using Described = Protocol;                                                       \
    static const std::vector<qx::OperationDescription>& operations() {                \
      /* Leaked: connections may still carry calls while the process ends. */         \
      static const auto& table =                                                      \
          *new std::vector<qx::OperationDescription>{OPERATIONS(QX_DETAIL_DESCRIBE)}; \
      return table;                                                                   \
    }                                                                                 \
  };
