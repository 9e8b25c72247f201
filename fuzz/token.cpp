// Sandbox tokens. The first byte says what is presented: any text, a token that was issued with
// alterations, or content of the attacker's choice under a code that is right, as only the holder
// of the key could make it.

#include <fcntl.h>
#include <sys/stat.h>

#include <vector>

#include "fuzz/Fuzz.h"
#include "fuzz/Tree.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxKey.h"

using namespace qx;
using fuzz::require;
using fuzz::Tree;

namespace {

struct Issued {
  std::string token;
  std::string path;
  int access;
};

const std::vector<Issued>& issuedTokens() {
  static const auto& tokens = *[] {
    fuzz::muteLog();
    const Tree tree;
    auto* made = new std::vector<Issued>;
    for (const std::string& path : {Tree::inside() + "/f", Tree::inside() + "/d/f"}) {
      for (const auto& [name, access] : {std::pair(sandboxExtensionReadWrite, O_RDWR),
                                         std::pair(sandboxExtensionRead, O_RDONLY)}) {
        const auto token = SandboxIssueFileExtension(name, path, 0);
        require(token.has_value(), "a file gets a token");
        made->push_back({*token, path, access});
      }
    }
    return made;
  }();
  return tokens;
}

int accessOf(const FileDescriptor& file) { return fcntl(file.get(), F_GETFL) & O_ACCMODE; }

void present(const std::string& token) {
  const auto file = consumeSandboxExtension(token);
  const auto& all = issuedTokens();
  const auto issued = std::find_if(all.begin(), all.end(),
                                   [&token](const Issued& each) { return each.token == token; });
  require(file.ok() == (issued != all.end()), "what was issued is accepted, and nothing else");
  if (!file) return;
  require(accessOf(*file) == issued->access, "a token gives what its class says");
  require(
      std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file->get())) == issued->path,
      "a token opens its file");
}

/// A few alterations of one character or some, one after the other.
std::string altered(fuzz::Input& input) {
  const auto& all = issuedTokens();
  std::string token = all[input.byte() % all.size()].token;
  while (!input.isAtEnd()) {
    const std::uint8_t kind = input.byte();
    const std::size_t place = token.empty() ? 0 : input.word() % token.size();
    const auto text = fuzz::textOf(input.take(kind >> 4U));
    switch (kind % 5) {
      case 0:
        token.insert(place, text);
        break;
      case 1:
        token.erase(place, 1 + text.size());
        break;
      case 2:
        token.replace(place, text.size(), text);
        break;
      case 3:  // the rest of another one
        token.replace(place, std::string::npos,
                      all[(kind >> 4U) % all.size()].token.substr(
                          std::min(place, all[(kind >> 4U) % all.size()].token.size())));
        break;
      default:
        if (!token.empty()) token[place] = static_cast<char>(token[place] ^ (1 << (kind >> 5U)));
    }
  }
  return token;
}

/// Content that the key vouches for but that is nothing the system would have issued.
void presentAuthentic(std::string_view content) {
  std::string token(content);
  const auto store = SandboxKeyStore::own();
  const auto key = store->readOrMakeKey();
  token += ":" + authenticationCode(*key, content);
  const auto file = consumeSandboxExtension(token);
  if (!file) return;
  struct stat status;
  require(fstat(file->get(), &status) == 0 && S_ISREG(status.st_mode), "a token opens files only");
  const bool mayWrite = content.starts_with("2:" + std::string(sandboxExtensionReadWrite) + ":");
  const bool mayRead = content.starts_with("2:" + std::string(sandboxExtensionRead) + ":");
  require(mayWrite || mayRead, "a token is of a version and class that there is");
  require(accessOf(*file) == (mayWrite ? O_RDWR : O_RDONLY), "a token gives what its class says");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  issuedTokens();
  fuzz::Input input(data, size);
  switch (input.byte() % 4) {
    case 0:
      present(std::string(fuzz::textOf(input.rest())));
      break;
    case 1:
    case 2:
      present(altered(input));
      break;
    default: {
      // "@" stands for the tree, whose path differs from run to run.
      std::string content(fuzz::textOf(input.rest()));
      if (const auto mark = content.find('@'); mark != std::string::npos) {
        content.replace(mark, 1, Tree::inside());
      }
      presentAuthentic(content);
    }
  }
  return 0;
}
