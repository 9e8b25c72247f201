// The calls of a client to the services, and what their answers mean.

#include "sdk/src/ClientImplementation.h"

#include <fcntl.h>

#include <cerrno>

#include "sdk/src/PlaceholderMark.h"

namespace docsource {
namespace {

Error emptyAnswer() {
  return {LibraryError::emptyAnswer, "The service answered with neither a value nor an error."};
}

/// A reply that is an error or nothing.
qx::Completion<qx::Error> errorOnly(Sink<void> sink) {
  return [sink = std::move(sink)](const std::optional<qx::Error>& error) {
    sink(error ? Result<void>(bridge::fromPlatform(*error)) : Result<void>());
  };
}

std::optional<Token> tokenFrom(const std::optional<qx::Bytes>& bytes) {
  return bytes ? std::optional(Token(bytes->begin(), bytes->end())) : std::nullopt;
}
std::optional<std::string> textOf(const std::optional<qx::URL>& url) {
  return url ? std::optional(url->absoluteString()) : std::nullopt;
}

Result<Descriptor> openDocument(const std::string& path) {
  int fd = -1;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  Descriptor file(fd);
  if (!file) return Error::file(errno, path);
  // Whoever was to bring the content in said that it is there; nobody gets zeros for it.
  if (mark::read(file.get()).state != PlaceholderState::present) return Error::file(EAGAIN, path);
  return file;
}

Result<std::vector<ProviderInfo>> providersFrom(const qx::Dictionary& listing) {
  std::vector<ProviderInfo> providers;
  for (const auto& [key, value] : listing) {
    const auto* entry = value.as<qx::Dictionary>();
    if (!entry) continue;
    const auto* identifier = qx::find<std::string>(*entry, "providerIdentifier");
    const auto* storage = qx::find<qx::URL>(*entry, "documentStorageURL");
    providers.push_back({identifier ? *identifier : key,
                         storage ? std::optional(storage->absoluteString()) : std::nullopt});
  }
  return providers;
}

Result<std::vector<Grant>> grantsFrom(const qx::Array& listing) {
  std::vector<Grant> grants;
  for (const auto& value : listing) {
    const auto* entry = value.as<qx::Dictionary>();
    if (!entry) continue;
    const auto* provider = qx::find<std::string>(*entry, "providerIdentifier");
    const auto* item = qx::find<std::string>(*entry, "itemIdentifier");
    const auto* consumer = qx::find<std::string>(*entry, "consumerIdentifier");
    const auto* url = qx::find<qx::URL>(*entry, "URL");
    if (!provider || !item || !consumer) continue;
    grants.push_back(
        {*provider, *item, *consumer, url ? std::optional(url->absoluteString()) : std::nullopt});
  }
  return grants;
}

}  // namespace

Result<std::shared_ptr<QXConduitConnection>> ServiceConnection::get() {
  const std::lock_guard lock(mutex_);
  // A service that was started anew between two calls is no error.
  if (connection_ && !connection_->isGone()) return connection_;
  auto made = QXConduitConnection::connectToService(name_);
  if (!made) {
    return Error(LibraryError::serviceUnavailable, "The service " + name_ + " cannot be reached.",
                 {}, Error::posix(static_cast<int>(made.error().code()), "Its socket"));
  }
  connection_ = std::move(*made);
  connection_->setRemoteObjectInterface(interface_);
  connection_->resume();
  return connection_;
}

Start<void> Client::Implementation::wakeUp() {
  return [this](const Sink<void>& sink) {
    daemon_.call(sink, [&](DSDaemon& daemon) { daemon.wakeUpCompletion([sink] { sink({}); }); });
  };
}

Start<SandboxExtension> Client::Implementation::extendSandbox(const std::string& url,
                                                              const std::string& provider,
                                                              const std::string& consumer) {
  return [=, this](const Sink<SandboxExtension>& sink) {
    daemon_.call(sink, [&](DSDaemon& daemon) {
      daemon.extendSandboxForFileURL_fromProviderID_toConsumerID_completionHandler(
          qx::URL(url), provider, consumer,
          [sink](const std::optional<qx::Error>& error, const std::optional<qx::Bytes>& token,
                 const std::optional<qx::URL>& sibling,
                 const std::optional<qx::Bytes>& siblingToken) {
            if (error) {
              sink(bridge::fromPlatform(*error));
            } else {
              sink(SandboxExtension{tokenFrom(token), textOf(sibling), tokenFrom(siblingToken)});
            }
          });
    });
  };
}

Start<void> Client::Implementation::requestItem(ItemOperation operation, const std::string& url,
                                                const std::string& provider,
                                                const std::string& consumer) {
  return [=, this](const Sink<void>& sink) {
    daemon_.call(sink, [&](DSDaemon& daemon) {
      (daemon.*operation)(qx::URL(url), provider, consumer, errorOnly(sink));
    });
  };
}

Start<std::vector<ProviderInfo>> Client::Implementation::providers() {
  return [this](const Sink<std::vector<ProviderInfo>>& sink) {
    daemon_.call(sink, [&](DSDaemon& daemon) {
      daemon.providersCompletionHandler([sink](const std::optional<qx::Error>& error,
                                               const std::optional<qx::Dictionary>& listing) {
        if (error) {
          sink(bridge::fromPlatform(*error));
        } else if (!listing) {
          sink(emptyAnswer());
        } else {
          sink(providersFrom(*listing));
        }
      });
    });
  };
}

Start<std::string> Client::Implementation::extendBookmark(const std::string& url,
                                                          const std::string& consumer) {
  return [=, this](const Sink<std::string>& sink) {
    daemon_.call(sink, [&](DSDaemon& daemon) {
      daemon.extendBookmarkForFileURL_toConsumerID_completionHandler(
          qx::URL(url), consumer,
          [sink](std::optional<std::string> bookmark, const std::optional<qx::Error>& error) {
            if (error) {
              sink(bridge::fromPlatform(*error));
            } else if (!bookmark) {
              sink(emptyAnswer());
            } else {
              sink(*std::move(bookmark));
            }
          });
    });
  };
}

Start<std::optional<std::string>> Client::Implementation::bookmarkableString(
    const std::string& url) {
  return [=, this](const Sink<std::optional<std::string>>& sink) {
    daemon_.call(sink, [&](DSDaemon& daemon) {
      daemon.bookmarkableStringFromDocumentURL_completion(
          qx::URL(url),
          [sink](std::optional<std::string> bookmark, const std::optional<qx::Error>& error) {
            if (error) {
              sink(bridge::fromPlatform(*error));
            } else {
              sink(std::move(bookmark));
            }
          });
    });
  };
}

Start<ResolvedBookmark> Client::Implementation::resolveBookmark(const std::string& bookmark) {
  return [=, this](const Sink<ResolvedBookmark>& sink) {
    daemon_.call(sink, [&](DSDaemon& daemon) {
      daemon.documentURLFromBookmarkableString_completion(
          bookmark, [sink](const std::optional<qx::URL>& url, const std::optional<qx::Bytes>& token,
                           const std::optional<qx::URL>& sibling,
                           const std::optional<qx::Bytes>& siblingToken,
                           const std::optional<qx::Error>& error) {
            if (error) {
              sink(bridge::fromPlatform(*error));
            } else if (!url) {
              sink(emptyAnswer());
            } else {
              sink(ResolvedBookmark{url->absoluteString(),
                                    {tokenFrom(token), textOf(sibling), tokenFrom(siblingToken)}});
            }
          });
    });
  };
}

Start<std::vector<Grant>> Client::Implementation::grants() {
  return [this](const Sink<std::vector<Grant>>& sink) {
    grants_.call(sink, [&](DSGrants& service) {
      service.grantsCompletion(
          [sink](const std::optional<qx::Error>& error, const std::optional<qx::Array>& listing) {
            if (error) {
              sink(bridge::fromPlatform(*error));
            } else if (!listing) {
              sink(emptyAnswer());
            } else {
              sink(grantsFrom(*listing));
            }
          });
    });
  };
}

Start<void> Client::Implementation::revoke(const std::optional<std::string>& item,
                                           const std::string& provider,
                                           const std::string& consumer) {
  return [=, this](const Sink<void>& sink) {
    grants_.call(sink, [&](DSGrants& service) {
      service.revokeItemWithID_ofProviderID_forConsumerID_completion(item, provider, consumer,
                                                                     errorOnly(sink));
    });
  };
}

Start<Descriptor> Client::Implementation::redeem(const Token& token) {
  return [=, this](const Sink<Descriptor>& sink) {
    sandbox_.call(sink, [&](QXSandbox& sandbox) {
      sandbox.consumeExtension_completion(
          qx::Bytes(token.begin(), token.end()),
          [sink](const std::optional<qx::Error>& error,
                 const std::optional<qx::SharedDescriptor>& descriptor) {
            if (error) {
              sink(bridge::fromPlatform(*error));
            } else if (!descriptor || !*descriptor) {
              sink(emptyAnswer());
            } else if (auto own = (*descriptor)->duplicate()) {
              sink(Descriptor(own.release()));
            } else {
              sink(Error::posix(errno, "The document's descriptor cannot be kept"));
            }
          });
    });
  };
}

Start<void> Client::Implementation::coordinate(CoordinationOperation operation,
                                               const std::string& url) {
  return [=, this](const Sink<void>& sink) {
    coordination_.call(sink, [&](QXFileCoordination& coordination) {
      (coordination.*operation)(qx::URL(url), errorOnly(sink));
    });
  };
}

Start<Descriptor> Client::Implementation::openForReading(const std::string& url) {
  return [=, this](const Sink<Descriptor>& sink) {
    const auto path = pathOfURL(url);
    if (!path) {
      sink(Error(LibraryError::notAFileURL, "\"" + url + "\" is not the URL of a file.",
                 {{"URL", url}}));
      return;
    }
    coordinate(&QXFileCoordination::coordinateReadingItemAtURL_completion,
               url)([sink, path = *path](const Result<void>& ready) {
      sink(ready ? openDocument(path) : Result<Descriptor>(ready.error()));
    });
  };
}

}  // namespace docsource
