#include "tests/support/Installation.h"

#include "tests/support/BundleMaker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Daemons.h"

namespace qx::test {

namespace fs = std::filesystem;

Installation::Installation(const std::string& below)
    : root_(below.empty() ? directory_.path() : directory_ / below) {
  // For consumers of another user.
  fs::permissions(directory_.path(), fs::perms(0755));
  for (const char* name :
       {"Applications", "Extensions", "Containers/Group", "Home", "run/notify"}) {
    fs::create_directories(root_ + "/" + name);
  }
}

std::string Installation::staging() {
  std::string path = root_ + "/Staging/" + std::to_string(++staged_);
  fs::create_directories(path);
  return path;
}

void Installation::put(const std::string& staged, const std::string& path) {
  if (fs::exists(path)) fs::rename(path, staging() + "/replaced");
  fs::rename(staged, path);
}

std::string Installation::remove(const std::string& path) {
  std::string removed = staging() + "/removed";
  fs::rename(path, removed);
  return removed;
}

Dictionary Installation::extensionInfo(const std::string& identifier,
                                       const std::optional<std::string>& group) {
  auto info = bundleInfo(identifier, "program");
  Dictionary extension{{"QXExtensionPointName", "com.veltro.docsource-nonui"}};
  if (group) extension.emplace("QXExtensionDocSourceDocumentGroup", *group);
  info.emplace("QXExtension", extension);
  return info;
}

ScriptedProvider Installation::installProvider(const std::string& identifier, Dictionary script,
                                               const std::optional<std::string>& group) {
  const std::string name = group.value_or("group." + identifier);
  ScriptedProvider provider(root_, identifier, name);
  const std::string staged = staging();
  fs::copy_file(builtProgram("scripted-provider"), staged + "/program");
  script.emplace("items", Dictionary{{"A.txt", "item/a"}, {"B c.txt", "item b"}});
  writeList(staged + "/Script.plist", script);
  writeList(staged + "/Entitlements.plist",
            Dictionary{{"com.veltro.application-groups", Array{name}}});
  writeList(staged + "/Info.plist", extensionInfo(identifier, name));
  put(staged, provider.bundle());
  return provider;
}

std::string Installation::installExampleProvider(const std::string& origin) {
  const std::string identifier = "com.example.provider", group = "group.com.example.provider";
  const auto staged = staging();
  fs::copy_file(fs::path(builtProgram("docsource")).parent_path().parent_path() /
                    "examples/Provider.docext/example-provider",
                staged + "/program");
  auto info = extensionInfo(identifier, group);
  info.emplace("ExampleOrigin", origin);
  writeList(staged + "/Info.plist", info);
  writeList(staged + "/Entitlements.plist",
            Dictionary{{"com.veltro.application-groups", Array{group}}});
  put(staged, root_ + "/Extensions/" + identifier + ".docext");
  return root_ + "/Containers/Group/" + group + "/Doc Source Storage";
}

Consumer Installation::installConsumer(const std::string& identifier,
                                       const Dictionary& entitlements, bool isPowerless) {
  const std::string bundle = root_ + "/Applications/" + identifier + ".app";
  const std::string staged = staging();
  fs::copy_file(builtProgram("scripted-consumer"), staged + "/program");
  writeList(staged + "/Entitlements.plist", entitlements);
  writeList(staged + "/Info.plist", bundleInfo(identifier, "program"));
  put(staged, bundle);
  return {root_, identifier, bundle + "/program", isPowerless};
}

bool Installation::becomesServed(const std::string& service) const {
  const Consumer anybody(root_, "", builtProgram("scripted-consumer"), false);
  return eventually([&] {
    auto wire = anybody.tryConnect(service);
    // Who has nothing to say to that is not at work yet.
    return wire && wire->call("areYouThere:", {}).kind == Wire::Answer::Kind::failure;
  });
}

bool Installation::becomesUnserved(const std::string& service) const {
  const Consumer anybody(root_, "", builtProgram("scripted-consumer"), false);
  return eventually([&] { return !anybody.tryConnect(service); });
}

void ScriptedProvider::behave(Dictionary script) const {
  const std::string path = bundle() + "/Script.plist";
  if (auto known = PropertyList::readFile(path)) {
    if (const auto* items = find(*known->as<Dictionary>(), "items"))
      script.emplace("items", *items);
  }
  writeList(path, script);
}

std::vector<std::string> ScriptedProvider::callLines() const {
  std::vector<std::string> lines;
  std::ifstream file(root_ + "/Records/" + identifier_ + "/calls");
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

std::size_t ScriptedProvider::calls(const std::string& operation) const {
  const auto lines = callLines();
  return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
    return line.starts_with(operation + " ");
  }));
}

std::map<pid_t, Dictionary> ScriptedProvider::processes() const {
  std::map<pid_t, Dictionary> found;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(root_ + "/Records/" + identifier_, missing)) {
    if (entry.path().extension() != ".plist") continue;
    if (auto list = PropertyList::readFile(entry.path())) {
      found.emplace(std::stoi(entry.path().stem()), *list->as<Dictionary>());
    }
  }
  return found;
}

pid_t ScriptedProvider::running() const {
  for (const auto& [id, record] : processes()) {
    if (kill(id, 0) == 0) return id;
  }
  return -1;
}

Consumer::Consumer(const std::string& root, std::string identifier, const std::string& program,
                   bool isPowerless)
    : identifier_(std::move(identifier)) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) std::abort();
  control_.reset(ends[0]);
  const FileDescriptor theirs(ends[1]);
  id_ = spawn({program, isPowerless ? "powerless" : ""}, {{theirs.get(), STDIN_FILENO}},
              std::vector{"DOCSOURCE_ROOT=" + root});
}

Consumer::Consumer(Consumer&& other) noexcept
    : identifier_(std::move(other.identifier_)),
      id_(std::exchange(other.id_, -1)),
      control_(std::move(other.control_)) {}

Consumer::~Consumer() { end(); }

void Consumer::end() {
  if (id_ <= 0) return;
  kill(id_, SIGKILL);
  waitpid(std::exchange(id_, -1), nullptr, 0);
}

std::optional<Wire> Consumer::tryConnect(const std::string& service) const {
  if (send(control_.get(), service.data(), service.size(), MSG_NOSIGNAL) < 0) return std::nullopt;
  std::array<std::uint8_t, 1> byte{};
  std::vector<FileDescriptor> received;
  if (receiveFrom(control_.get(), byte, received) <= 0 || received.empty()) return std::nullopt;
  return Wire(std::move(received.front()));
}

Wire Consumer::connect(const std::string& service) const {
  auto wire = tryConnect(service);
  return wire ? std::move(*wire) : Wire(FileDescriptor());
}

}  // namespace qx::test
