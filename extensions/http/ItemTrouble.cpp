#include "extensions/http/ItemTrouble.h"

#include <utility>

namespace docsource::http {
namespace {

class RemoteWithItemTroubles final : public Remote {
 public:
  explicit RemoteWithItemTroubles(std::unique_ptr<Remote> remote) : remote_(std::move(remote)) {}

  RemoteCapabilities capabilities() const override { return remote_->capabilities(); }
  Result<std::string> identity(bool create) override {
    auto identity = remote_->identity(create);
    if (identity) return identity;
    switch (remoteProblemOf(identity.error())) {
      case RemoteProblem::unreachable:
      case RemoteProblem::notNow:
      case RemoteProblem::notAuthorised:
      case RemoteProblem::cancelled:
      case RemoteProblem::notTheSame:
        return identity;
      default:
        return remoteError(RemoteProblem::unreachable, identity.error().description());
    }
  }
  Result<void> list(const std::string& path, const Visitor& visit) override {
    return judged(path, remote_->list(path, visit));
  }
  Result<RemoteItem> look(const std::string& path) override {
    return judged(path, remote_->look(path));
  }
  Result<Changes> changes(const std::string& cursor) override { return remote_->changes(cursor); }
  bool notifyOfChanges(std::function<void()> callback) override {
    return remote_->notifyOfChanges(std::move(callback));
  }
  Result<void> read(const std::string& path, const std::string& version, std::uint64_t offset,
                    std::uint64_t length, const Sink& sink) override {
    return judged(path, remote_->read(path, version, offset, length, sink));
  }
  Result<RemoteItem> write(const std::string& path, const std::optional<std::string>& ifVersion,
                           const RemoteAttributes& attributes, RemoteSource& source) override {
    return judged(path, remote_->write(path, ifVersion, attributes, source));
  }
  Result<RemoteItem> makeDirectory(const std::string& path,
                                   const RemoteAttributes& attributes) override {
    return judged(path, remote_->makeDirectory(path, attributes));
  }
  Result<RemoteItem> move(const std::string& from, const std::string& to,
                          const std::optional<std::string>& ifVersion) override {
    return judged(from, remote_->move(from, to, ifVersion));
  }
  Result<void> remove(const std::string& path,
                      const std::optional<std::string>& ifVersion) override {
    return judged(path, remote_->remove(path, ifVersion));
  }
  Result<RemoteItem> setAttributes(const std::string& path,
                                   const std::optional<std::string>& ifVersion,
                                   const RemoteAttributes& attributes) override {
    return judged(path, remote_->setAttributes(path, ifVersion, attributes));
  }

 private:
  template <class Value>
  Result<Value> judged(const std::string& path, Result<Value> answer) {
    if (answer || path.empty() || remoteProblemOf(answer.error()) != RemoteProblem::unreachable) {
      return answer;
    }
    if (!remote_->identity(false)) return answer;
    return remoteError(RemoteProblem::failed, answer.error().description());
  }

  const std::unique_ptr<Remote> remote_;
};

}  // namespace

std::unique_ptr<Remote> withItemTroubles(std::unique_ptr<Remote> remote) {
  return std::make_unique<RemoteWithItemTroubles>(std::move(remote));
}

}  // namespace docsource::http
