// Writes the seeds of the fuzzers into a directory: for each fuzzer a directory of inputs, made by
// the encoders and writers of the system itself.

#include <cstdio>
#include <fstream>
#include <string_view>

#include "fuzz/ConduitScript.h"
#include "platform/base/Errors.h"
#include "platform/plist/PropertyList.h"
#include "platform/sandbox/Sandbox.h"
#include "tests/support/TemporaryRoot.h"

using namespace qx;

namespace {

/// Adds an input to those of a fuzzer.
void add(const std::string& fuzzer, std::string_view input) {
  static int count = 0;
  std::filesystem::create_directories(fuzzer);
  std::ofstream file;
  file.exceptions(std::ofstream::failbit | std::ofstream::badbit);
  file.open(fuzzer + "/" + std::to_string(++count), std::ofstream::binary);
  file << input << std::flush;
}
void add(const std::string& fuzzer, const std::string& begin, const std::vector<const char*>& all) {
  for (const char* each : all) add(fuzzer, begin + each);
}

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
  const Error inner("Inner", 260, Error::Info{{"URL", URL("file:///a%20b")}});
  return Error("ErrorDomain", -3, Error::Info{{"underlyingError", inner}});
}

template <class T>
std::vector<std::uint8_t> bodyOf(const T& value) {
  conduit::Encoder encoder;
  encode(encoder, value);
  auto frame = encoder.takeFrame();
  frame.erase(frame.begin(), frame.begin() + conduit::frameHeaderSize);
  return frame;
}

void addValues() {
  Dictionary travelling = plainValues();
  travelling.erase("date");
  const auto descriptor = std::make_shared<const FileDescriptor>(1'000'000);
  Value nested = Array{};
  for (int depth = 0; depth < 28; ++depth) nested = Array{std::move(nested)};
  for (const auto& value :
       {Value(travelling), Value(Array{deepError(), UUID::random(), URL("file:///x"), Value()}),
        Value(Array{true, std::int64_t{1} << 40, 0.25}), Value(Array{travelling, deepError()}),
        Value(Array{URL("file:///x"), "text", Bytes{1, 2, 3}}), nested}) {
    add("cbor", '\0' + textOf(bodyOf(value)));
  }
  add("cbor", '\2' + textOf(bodyOf(Value(Array{descriptor, UUID::random()}))));
}

void addPropertyLists() {
  for (char way : {'\0', '\3', '\xff'}) {
    add("propertylist", way + listText(plainValues()));
    add("propertylist", way + listText(Array{plainValues(), 1, 2.5, "text"}));
  }
  add("propertylist",
      "\xff<!DOCTYPE plist SYSTEM \"list.dtd\" [<!ATTLIST key a CDATA \"b\">]>"
      "<plist version=\"1.0\"><dict><key>b</key><![CDATA[]]><true/>"
      "<key encoding=\"base64\">YQ==</key><real>inf</real></dict></plist>");
}

void addURLs() {
  add("url", std::string(1, '\0'),
      {"file:///etc/hosts", "file://localhost/a%20b/c", "FILE:/x", "file:///a?q=/b#f/g",
       "http://example.com/a", "file:///proc/self/root/", "file:///a/../b/./c//", "a:"});
  for (const char* form : {"\1", "\2"}) {
    add("url", form,
        {"f", "d/f", "d/e/../f", "in/f", "out/f", "../link/d", "up", "new/x", ".%2Ff", "d%2Ff",
         "d/f?x", "d/.f#y", "./f", "d//f", "%E2%80%9C"});
  }
}

void addTokens() {
  // Made for a file of this program's own: its form is right, its code is of no other root.
  const auto directory = test::temporaryRoot();
  std::ofstream(directory + "/document") << "x";
  const auto token = SandboxIssueFileExtension(sandboxExtensionRead, directory + "/document", 0);
  add("token", '\0' + token.value_or(""));
  for (const std::string& alteration :
       {std::string("\0\x11\0\0:", 5), std::string("\0\1\0\7", 4), std::string("\1\x12\0 A", 5),
        std::string("\2\x13\0\x30", 4), std::string("\3\x24\0\x60", 4)}) {
    add("token", "\1" + alteration);
  }
  for (const std::string_view name : {sandboxExtensionRead, sandboxExtensionReadWrite}) {
    add("token",
        "\3"
        "2:" +
            std::string(name) + ":00112233445566778899aabbccddeeff:999999999999999999:",
        {"@/f", "@/out/f", "@/up", "@/d", "@/%66", "@/f%", "@", "/dev/null"});
  }
}

/// The lists of an extension: the good ones of a provider, and some that are not good.
void addBundles() {
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
  add("bundle", info("com.example.provider", "program", "group.example"));
  add("bundle", info("P", "./p", "g") + groups({"g", "group.example", 7, Value("a b")}));
  add("bundle", info("P", "/bin/true", "..") + groups({"..", ".", "", "a/b"}));
  add("bundle", info("P", "../fuzz.docext/program", "%2e%2e") + groups({"%2e%2e"}));
  add("bundle", info("", "program", "g"));
  add("bundle", info("P", "missing", "g") + std::string(1, '\0'));
}

template <class... Ts>
std::vector<std::uint8_t> messageBody(std::int64_t kind, const Ts&... rest) {
  return bodyOf(Value(Array{Value(kind), Value(rest)...}));
}
std::string call(std::int64_t id, const char* operation, Array arguments,
                 std::uint8_t descriptors = 0) {
  return fuzz::scriptPart(descriptors, messageBody(1, id, operation, std::move(arguments)));
}

void addConduits() {
  const UUID uuid = UUID::random();
  const URL url("file:///tmp/document");
  const auto descriptor = std::make_shared<const FileDescriptor>(1'000'000);
  Dictionary travelling = plainValues();
  travelling.erase("date");
  const std::string good = call(1, "a:b:c:", {travelling, Array{url}, deepError()}) +
                           call(2, "g:h:i:", {true, 7, 0.5}) + call(3, "j:k:", {url, Value()});
  add("conduit", good);
  add("conduit", call(1, "unknown:", {Value()}) + call(2, "j:k:", {1}) + good);
  for (std::uint8_t count : {0, 1, 2, 16, 17}) {
    add("conduit", call(1, "d:e:f:", {descriptor, uuid, Bytes{1}}, count) + good);
  }
  add("conduit", fuzz::scriptPart(0, messageBody(1, 1, "j:k:", Array{url, "text"}, uuid)));

  // Answers to the calls that the connection makes, right and wrong ones; requests, and what is no
  // message.
  std::string answers;
  for (const auto& body :
       {messageBody(2, 1, Array{Value(), Value()}), messageBody(2, 2, Array{travelling, url}),
        messageBody(2, 3, Array{true, 7, 0.5}), messageBody(2, 4, Array{}),
        messageBody(3, 4, deepError()), messageBody(2, 99, Array{}), messageBody(4, uuid),
        messageBody(5, uuid), messageBody(6, uuid)}) {
    add("conduit", fuzz::scriptPart(0, body));
    answers += fuzz::scriptPart(0, body);
  }
  add("conduit", answers);
  add("conduit", fuzz::scriptPart(1, messageBody(2, 1, Array{Value(), descriptor})));
  add("conduit", fuzz::scriptPart(fuzz::rawPart, Bytes{0, 0, 0, 6, 0x84, 1}) +
                     fuzz::scriptPart(fuzz::rawPart | 3, Bytes{2, 0x60, 0x80, 0xf6}));
  add("conduit", fuzz::scriptPart(fuzz::rawPart, Bytes{0xff, 0xff, 0xff, 0xff}));
}

void addGuarding() {
  add("guarding", std::string(1, '\0'),
      {"tree 1000 - /home/somebody/Documents", "tree 0 0102030405060708:1:0a0b /a%20b%25",
       "moved 1000 0102030405060708:-1:0a0b /home/somebody", "moved 1000 - /x"});
  add("guarding", "\1",
      {"# mine\nwhole-file tar\nnever-provide  indexer # it looks into everything\n\nsenseless",
       "whole-file a/b\nnever-provide"});
  add("guarding", '\2' + std::string(24, '\0'));
  add("guarding", "\3",
      {"tree 1000 - /a\nsenseless\nmoved 7 0102030405060708:1:0a0b /b\n", "tree 1000 - /a\n\n"});
}

void addSandboxes() {
  using namespace std::string_literals;
  // The right key and one that is too short; what was taken back by path and by file.
  for (const char* list : {"0\n", "5\n7 0 0 /document\n9 2 3 /a%20b\n", "5\n7 0 0\n"}) {
    add("sandbox", "\0\4\4\1\1"s + list);
    add("sandbox", "\0\4\4\0\6secret\1"s + list);
    add("sandbox", "\1\2\3\0\x08\0\1a\1"s + list);
  }
  add("sandbox", "\2", {"com.example.app\n", "a", "\n", "a\nb\n"});
}

void addServers() {
  add("servers", std::string(1, '\0'),
      {"0-1048576", "1-2,4-9,18446744073709551614-18446744073709551615"});
  add("servers", std::string("\1\7"),
      {"<?xml version=\"1.0\"?><multistatus xmlns=\"DAV:\" "
       "xmlns:o=\"http://owncloud.org/ns\"><response>"
       "<href>/a%20b/</href><propstat><prop><resourcetype><collection/></resourcetype>"
       "<getetag>W/\"x\"</getetag><o:id>1</o:id></prop><status>HTTP/1.1 200 OK</status></propstat>"
       "<propstat><prop><getcontentlength>12</getcontentlength></prop><status>HTTP/1.1 404 "
       "No</status>"
       "</propstat></response><response><href>/b</href><status>HTTP/1.1 403 No</status></response>"
       "</multistatus>"});
  add("servers", "\2",
      {"<ListBucketResult><EncodingType>url</EncodingType><IsTruncated>true</IsTruncated>"
       "<NextContinuationToken>t</NextContinuationToken><Contents><Key>a%2Bb</Key><Size>1</Size>"
       "<ETag>&quot;x&quot;</ETag></Contents><CommonPrefixes><Prefix>d/</Prefix></CommonPrefixes>"
       "</ListBucketResult>",
       "  <Error><Code>NoSuchKey</Code></Error>"});
}

}  // namespace

int main(int count, char** arguments) try {
  if (count != 2) {
    std::fprintf(stderr, "usage: fuzz-seeds DIRECTORY\n");
    return 2;
  }
  std::filesystem::create_directories(arguments[1]);
  std::filesystem::current_path(arguments[1]);
  addConduits();
  addValues();
  addPropertyLists();
  addURLs();
  addTokens();
  addBundles();
  addGuarding();
  addSandboxes();
  addServers();
  return 0;
} catch (const std::exception& failure) {
  std::fprintf(stderr, "fuzz-seeds: %s\n", failure.what());
  return 1;
}
