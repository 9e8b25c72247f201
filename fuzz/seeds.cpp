// Writes the seeds of the fuzzers into a directory: for each fuzzer a directory of inputs, made by
// the encoders and writers of the system itself.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/ConduitScript.h"
#include "platform/base/Errors.h"
#include "platform/conduit/Codec.h"
#include "platform/plist/PropertyList.h"
#include "platform/sandbox/Sandbox.h"
#include "tests/support/TemporaryRoot.h"

using namespace qx;

namespace {

class Seeds {
 public:
  explicit Seeds(std::filesystem::path directory) : directory_(std::move(directory)) {}

  void add(const std::string& fuzzer, std::string_view input) {
    const auto place = directory_ / fuzzer;
    std::filesystem::create_directories(place);
    std::ofstream file(place / std::to_string(++count_), std::ofstream::binary);
    file << input;
    file.close();
    if (!file) failed_ = true;
  }
  bool failed() const { return failed_; }

 private:
  std::filesystem::path directory_;
  int count_ = 0;
  bool failed_ = false;
};

std::string textOf(const std::vector<std::uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }

std::string listText(const Value& value) {
  const auto text = PropertyList::write(value);
  return text ? *text : std::string();
}

/// One value of each class that a property list carries.
Dictionary plainValues() {
  return {{"string", "text & <more>\r\n\t“é”"},
          {"control", std::string("a\0b\x01", 4)},
          {"integer", std::int64_t{-9223372036854775807} - 1},
          {"real", 1.5e-300},
          {"yes", true},
          {"no", false},
          {"data", Bytes{0, 1, 2, 0xff}},
          {"date", Date(std::chrono::seconds(1'700'000'000))},
          {"array", Array{Value(Array{}), Value(Dictionary{}), Value("")}},
          {"", Dictionary{{"key", "value"}, {"kez", 7}}}};
}

Error deepError() {
  Error::Info inner{{"description", "inner"}, {"URL", URL("file:///a%20b")}};
  return Error("ErrorDomain", -3,
               Error::Info{{"description", "outer"},
                           {"underlyingError", Error("Inner", 260, std::move(inner))}});
}

template <class T>
std::vector<std::uint8_t> bodyOf(const T& value) {
  conduit::Encoder encoder;
  encode(encoder, value);
  auto frame = encoder.takeFrame();
  frame.erase(frame.begin(), frame.begin() + conduit::frameHeaderSize);
  return frame;
}

void addValues(Seeds& seeds) {
  const auto add = [&seeds](const auto& value, char descriptors) {
    seeds.add("cbor", descriptors + textOf(bodyOf(value)));
  };
  const UUID uuid = UUID::random();
  Dictionary travelling = plainValues();
  travelling.erase("date");
  add(Value(travelling), 0);
  add(Value(Array{deepError(), uuid, URL("file:///tmp/document"), Value()}), 0);
  add(Value(Array{Value(true), std::int64_t{1} << 40, 0.25}), 0);
  add(Value(Array{Value(Dictionary{{"a", 1}, {"b", 2}})}), 0);
  add(Value(Array{travelling, deepError()}), 0);
  add(Value(Array{URL("file:///x"), "text", Bytes{1, 2, 3}}), 0);
  const auto descriptor = std::make_shared<const FileDescriptor>(1'000'000);
  add(Value(Array{descriptor, uuid}), 2);
  Value nested = Array{};
  for (int depth = 0; depth < 28; ++depth) nested = Array{std::move(nested)};
  add(nested, 0);
}

void addPropertyLists(Seeds& seeds) {
  for (char way : {'\0', '\3', '\xff'}) {
    seeds.add("propertylist", way + listText(plainValues()));
    seeds.add("propertylist", way + listText(Array{plainValues(), 1, 2.5, "text"}));
    seeds.add("propertylist", way + listText("text"));
  }
  seeds.add("propertylist",
            std::string("\xff<!DOCTYPE plist SYSTEM \"list.dtd\" [<!ATTLIST key a CDATA \"b\">]>"
                        "<plist version=\"1.0\"><dict><key>b</key><![CDATA[]]><true/>"
                        "<key encoding=\"base64\">YQ==</key><real>inf</real></dict></plist>"));
}

void addURLs(Seeds& seeds) {
  for (const char* text :
       {"file:///etc/hosts", "file://localhost/a%20b/c", "FILE:/x", "file:///a?q=/b#f/g",
        "http://example.com/a", "file:///proc/self/root/", "file:///a/../b/./c//", "a:"}) {
    seeds.add("url", std::string(1, '\0') + text);
  }
  for (const char* text : {"f", "d/f", "d/e/../f", "in/f", "out/f", "../link/d", "up", "new/x",
                           ".%2Ff", "d%2Ff", "d/f?x", "d/.f#y", "./f", "d//f", "%E2%80%9C"}) {
    seeds.add("url", std::string(1, '\1') + text);
    seeds.add("url", std::string(1, '\2') + text);
  }
}

void addTokens(Seeds& seeds) {
  // Made for a file of this program's own: its form is right, its code is of no other root.
  const auto directory = test::temporaryRoot();
  std::ofstream(directory + "/document") << "x";
  const auto token = SandboxIssueFileExtension(sandboxExtensionRead, directory + "/document", 0);
  seeds.add("token", std::string(1, '\0') + token.value_or(""));
  for (const std::string& alteration :
       {std::string("\0", 1), std::string("\0\x11\0\0:", 5), std::string("\0\1\0\7", 4),
        std::string("\1\x12\0\x20"
                    "A",
                    5),
        std::string("\2\x13\0\x30", 4), std::string("\3\x24\0\x60", 4)}) {
    seeds.add("token", "\1" + alteration);
  }
  for (const std::string_view name : {sandboxExtensionRead, sandboxExtensionReadWrite}) {
    for (const char* path : {"@/f", "@/out/f", "@/up", "@/d", "@/%66", "@/f%", "@", "/dev/null"}) {
      seeds.add("token",
                "\3"
                "1:" +
                    std::string(name) + ":00112233445566778899aabbccddeeff:" + path);
    }
  }
}

void addBookmarks(Seeds& seeds) {
  for (const char* text : {"docsource:P/i", "docsource:com.example.provider/a/b//c",
                           "docsource:docsource:/docsource:", "docsource:“P”/ ", "docsource:P/",
                           "docsource:/i", "docsource:P//i", "Docsource:P/i", ""}) {
    seeds.add("bookmark", text);
  }
}

/// The lists of an extension: the good ones of a provider, and some that are not good.
void addBundles(Seeds& seeds) {
  const auto info = [](const char* identifier, const char* executable, const char* group) {
    return listText(Dictionary{
        {"QXBundleIdentifier", identifier},
        {"QXBundleExecutable", executable},
        {"QXExtension", Dictionary{{"QXExtensionPointName", "com.veltro.docsource-nonui"},
                                   {"QXExtensionDocSourceDocumentGroup", group}}}});
  };
  const auto groups = [](const Array& names) {
    return std::string(1, '\0') + listText(Dictionary{{"com.veltro.application-groups", names}});
  };
  seeds.add("bundle", info("com.example.provider", "program", "group.example"));
  seeds.add("bundle", info("P", "./p", "g") + groups({"g", "group.example", 7, Value("a b")}));
  seeds.add("bundle", info("P", "/bin/true", "..") + groups({"..", ".", "", "a/b"}));
  seeds.add("bundle", info("P", "../fuzz.docext/program", "%2e%2e") + groups({"%2e%2e"}));
  seeds.add("bundle", info("", "program", "g"));
  seeds.add("bundle", info("P", "missing", "g") + std::string(1, '\0'));
}

void addGrants(Seeds& seeds) {
  const auto entry = [](const Array& items) {
    return Value(Dictionary{{"AllowedItemIDs", items}});
  };
  seeds.add("grants",
            listText(Dictionary{
                {"P", Dictionary{{"C", entry({"i", "j", "i"})}, {"D", entry({})}}},
                {"com.example.provider", Dictionary{{"com.example.app", entry({"a"})}}}}));
  // Other shapes at each level.
  seeds.add(
      "grants",
      listText(Dictionary{
          {"P", Dictionary{{"C", entry({1, "i", Value(Array{}), 2.5})}}},
          {"Q", "text"},
          {"R", Dictionary{
                    {"C", Array{}},
                    {"D", Dictionary{{"AllowedItemIDs", "i"}, {"A", 1}, {"Z", Dictionary{}}}}}}}));
  seeds.add("grants", listText(Array{"text"}));
  seeds.add("grants", listText(plainValues()));
}

template <class... Ts>
std::vector<std::uint8_t> messageBody(std::int64_t kind, const Ts&... rest) {
  return bodyOf(Value(Array{Value(kind), Value(rest)...}));
}
std::vector<std::uint8_t> callBody(std::int64_t id, const char* operation, Array arguments) {
  return messageBody(1, id, operation, std::move(arguments));
}

void addConduits(Seeds& seeds) {
  using fuzz::scriptPart;
  const URL url("file:///tmp/document");
  const std::string daemon(1, '\0');
  const std::string echo(1, '\1');
  std::string all = daemon;
  std::int64_t id = 0;
  const auto add = [&](const char* operation, Array arguments) {
    const auto part = scriptPart(0, callBody(++id, operation, std::move(arguments)));
    seeds.add("conduit", daemon + part);
    all += part;
  };
  add("wakeUpCompletion:", {});
  add("providersCompletionHandler:", {});
  add("extendSandboxForFileURL:fromProviderID:toConsumerID:completionHandler:", {url, "P", "C"});
  add("startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:",
      {url, Value(), "C"});
  add("extendBookmarkForFileURL:toConsumerID:completionHandler:", {url, "C"});
  add("documentURLFromBookmarkableString:completion:", {"docsource:P/i"});
  add("unknown:", {Value()});
  add("wakeUpCompletion:", {1});
  seeds.add("conduit", all);

  const UUID uuid = UUID::random();
  Dictionary travelling = plainValues();
  travelling.erase("date");
  seeds.add("conduit",
            echo + scriptPart(0, callBody(1, "a:b:c:", {travelling, Array{url}, deepError()})) +
                scriptPart(0, callBody(2, "g:h:i:", {true, 7, 0.5})));
  const auto descriptor = std::make_shared<const FileDescriptor>(1'000'000);
  for (std::uint8_t count : {0, 1, 2, 16, 17}) {
    seeds.add("conduit",
              echo + scriptPart(count, callBody(1, "d:e:f:", {descriptor, uuid, Bytes{1}})) +
                  scriptPart(0, callBody(2, "g:h:i:", {Value(), Value(), Value()})));
  }

  // Answers to the calls that the connection makes, right and wrong ones.
  const Array none{Value(), Value()};
  const Dictionary listing{{"P", Dictionary{{"name", "text"}, {"URL", url}}}};
  std::string answers = daemon;
  for (const auto& body :
       {messageBody(2, 1, none), messageBody(2, 2, Array{Value(), listing}),
        messageBody(2, 3, Array{url, Bytes{1}, url, Value(), Value()}), messageBody(2, 4, Array{}),
        messageBody(2, 5, Array{Value(), "identifier"}), messageBody(3, 6, deepError()),
        messageBody(2, 99, none), messageBody(2, 2, Array{Value(), travelling})}) {
    seeds.add("conduit", daemon + scriptPart(0, body));
    answers += scriptPart(0, body);
  }
  seeds.add("conduit", answers);
  seeds.add("conduit", daemon + scriptPart(1, messageBody(2, 1, Array{Value(), descriptor})));

  // With a request, of requests, and what is no message.
  seeds.add("conduit",
            daemon + scriptPart(0, messageBody(1, 1, "wakeUpCompletion:", Array{}, uuid)));
  for (std::int64_t kind : {4, 5, 6})
    seeds.add("conduit", daemon + scriptPart(0, messageBody(kind, uuid)));
  const Bytes pieces{0, 0, 0, 6, 0x84, 1};
  seeds.add("conduit", daemon + scriptPart(fuzz::rawPart, pieces) +
                           scriptPart(fuzz::rawPart | 3, Bytes{2, 0x60, 0x80, 0xf6}));
  seeds.add("conduit", daemon + scriptPart(fuzz::rawPart, Bytes{0xff, 0xff, 0xff, 0xff}));
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: fuzz-seeds DIRECTORY\n");
    return 2;
  }
  Seeds seeds(arguments[1]);
  addConduits(seeds);
  addValues(seeds);
  addPropertyLists(seeds);
  addURLs(seeds);
  addTokens(seeds);
  addBookmarks(seeds);
  addBundles(seeds);
  addGrants(seeds);
  return seeds.failed() ? 1 : 0;
}
