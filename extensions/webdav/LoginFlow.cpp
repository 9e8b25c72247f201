#include "extensions/webdav/LoginFlow.h"

#include <charconv>

namespace docsource::webdav {

using namespace http;

namespace {

constexpr std::chrono::milliseconds askAgain{2000};
constexpr unsigned mostQuestions = 600;

/// The string that a member of a JSON object has, wherever in it the member is; absent where there
/// is none. (RFC 8259; of escaped characters those that addresses and tokens may have: ASCII.)
std::optional<std::string> stringIn(const std::string& text, const std::string& member) {
  auto at = text.find('"' + member + '"');
  if (at == std::string::npos) return std::nullopt;
  at = text.find_first_not_of(" \t\r\n", at + member.size() + 2);
  if (at == std::string::npos || text[at] != ':') return std::nullopt;
  at = text.find_first_not_of(" \t\r\n", at + 1);
  if (at == std::string::npos || text[at] != '"') return std::nullopt;
  std::string value;
  for (++at; at < text.size() && text[at] != '"'; ++at) {
    if (text[at] != '\\') {
      value += text[at];
      continue;
    }
    if (++at == text.size()) return std::nullopt;
    if (text[at] == 'u') {
      unsigned code = 0;
      if (at + 4 >= text.size() ||
          std::from_chars(&text[at + 1], &text[at + 5], code, 16).ptr != &text[at + 5] ||
          code == 0 || code > 0x7f) {
        return std::nullopt;
      }
      value += static_cast<char>(code);
      at += 4;
    } else if (text[at] == '"' || text[at] == '\\' || text[at] == '/') {
      value += text[at];
    } else {
      return std::nullopt;
    }
  }
  return at < text.size() && !value.empty() ? std::optional(value) : std::nullopt;
}

/// Scheme, host and port.
std::string originOf(const std::string& url) {
  return url.substr(0, url.find('/', url.find("://") + 3));
}

Error strange(const std::string& what) {
  return remoteError(RemoteProblem::unreachable, "Logging in is not possible: " + what + ".");
}

}  // namespace

Result<account::Login> logIn(const std::string& server, ConnectionOptions options,
                             const std::function<void(const std::string& page)>& show) {
  options.secret = {};
  options.user.reset();
  Session session(std::move(options));
  auto top = server.substr(0, server.find("/remote.php"));
  top.resize(top.find_last_not_of('/') + 1);
  const auto post = [&](const std::string& url, const std::string& text) {
    MemoryUpload body(text);
    Request request{"POST", url, {"Content-Type: application/x-www-form-urlencoded"}, &body};
    return session.perform(request);
  };
  const auto begun = post(top + "/index.php/login/v2", "");
  if (!begun) return begun.error();
  const auto token = stringIn(begun->text, "token");
  const auto endpoint = stringIn(begun->text, "endpoint");
  const auto page = stringIn(begun->text, "login");
  if (begun->status != 200 || !token || !endpoint || !page) {
    return strange("there is no server at this address that knows how");
  }
  // The password is for who was asked, and for nobody to whom an answer points.
  if (originOf(*endpoint) != originOf(top)) {
    return strange("the server calls itself " + originOf(*endpoint) + "; use that address");
  }
  show(*page);
  for (unsigned question = 0; question < mostQuestions; ++question) {
    const auto answer = post(*endpoint, "token=" + *token);
    if (!answer && remoteProblemOf(answer.error()) != RemoteProblem::unreachable) {
      return answer.error();
    }
    if (answer && answer->status == 200) {
      const auto called = stringIn(answer->text, "server");
      const auto user = stringIn(answer->text, "loginName");
      const auto password = stringIn(answer->text, "appPassword");
      if (!called || !user || !password || originOf(*called) != originOf(top)) {
        return strange("the server's answer is not complete");
      }
      // As a path, with what an address cannot have escaped.
      const auto path = fileURL("/remote.php/dav/files/" + *user, true);
      return account::Login{called->substr(0, called->find_last_not_of('/') + 1) +
                                path.substr(std::string_view("file://").size()),
                            *user, *password};
    }
    if (!session.pacer().pause(askAgain)) break;
  }
  return strange("nobody has agreed to it on the page");
}

}  // namespace docsource::webdav
