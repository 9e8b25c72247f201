// An application that is run in a sandbox, and tells what it finds there. Each line of its standard
// input is a command with its arguments, separated by tabs; it answers each with one line. What
// fails is answered with "error " and the reason.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "docsource/client.h"

/// The search for leaks traces the process, which nobody may in a sandbox. Read by the runtime of
/// the address sanitizer, in a program that is built with it.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" const char* __lsan_default_options() { return "detect_leaks=0"; }

namespace {

using Words = std::vector<std::string>;

docsource::Client client(std::chrono::seconds(20));

std::string errorAnswer(int errnum) { return std::string("error ") + strerrorname_np(errnum); }
std::string errorAnswer(const docsource::Error& error) {
  return "error " + error.domain() + " " + std::to_string(error.code());
}

Words split(const std::string& line) {
  Words words(1);
  for (const char character : line) {
    if (character == '\t') {
      words.emplace_back();
    } else {
      words.back() += character;
    }
  }
  return words;
}

std::string join(const auto& words) {
  std::string line;
  for (const auto& word : words) line += (line.empty() ? "" : " ") + word;
  return line;
}

std::string contentOf(int file) {
  std::array<char, 4096> text{};
  const ssize_t size = pread(file, text.data(), text.size(), 0);
  return size < 0 ? errorAnswer(errno) : std::string(text.data(), static_cast<std::size_t>(size));
}

std::string readFile(const Words& words) {
  const docsource::Descriptor file(open(words[1].c_str(), O_RDONLY | O_CLOEXEC));
  return file ? contentOf(file.get()) : errorAnswer(errno);
}

std::string writeFile(const Words& words) {
  const docsource::Descriptor file(
      open(words[1].c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!file) return errorAnswer(errno);
  const ssize_t size = write(file.get(), words[2].data(), words[2].size());
  return size == static_cast<ssize_t>(words[2].size()) ? "written" : errorAnswer(errno);
}

std::string list(const Words& words) {
  std::set<std::string> names;
  std::error_code failed;
  for (const auto& entry : std::filesystem::directory_iterator(words[1], failed)) {
    names.insert(entry.path().filename());
  }
  return failed ? errorAnswer(failed.value()) : join(names);
}

/// What every process that can be seen here runs.
std::string processes(const Words&) {
  std::set<std::string> programs;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code failed;
    const auto program = std::filesystem::read_symlink(entry.path() / "exe", failed);
    programs.insert(failed ? "unknown" : program.filename().string());
  }
  return join(programs);
}

/// The descriptors that were open before any was opened here.
std::string descriptors;

std::string variable(const Words& words) {
  const char* value = std::getenv(words[1].c_str());
  return value ? value : "error unset";
}

std::string resolve(const Words& words) {
  const auto document = client.resolveBookmark(words[1]);
  if (!document) return errorAnswer(document.error());
  const auto& extension = document->extension;
  return document->url + "\t" + extension.token.value_or("") + "\t" +
         extension.siblingURL.value_or("") + "\t" + extension.siblingToken.value_or("");
}

std::string redeem(const Words& words) {
  const auto file = client.redeem(words[1]);
  return file ? contentOf(file->get()) : errorAnswer(file.error());
}

std::string rewrite(const Words& words) {
  const auto file = client.redeem(words[1]);
  if (!file) return errorAnswer(file.error());
  const ssize_t size = pwrite(file->get(), words[2].data(), words[2].size(), 0);
  if (size < 0 || ftruncate(file->get(), size) != 0) return errorAnswer(errno);
  return "written";
}

/// What a redeemed descriptor leads to beyond its document: the names beside it.
std::string lookAround(const Words& words) {
  const auto file = client.redeem(words[1]);
  if (!file) return errorAnswer(file.error());
  const docsource::Descriptor beside(openat(file->get(), "..", O_RDONLY | O_CLOEXEC));
  return beside ? "found" : errorAnswer(errno);
}

std::string extendBookmark(const Words& words) {
  const auto string = client.extendBookmark(words[1], words[2]);
  return string ? *string : errorAnswer(string.error());
}

std::string extendSandbox(const Words& words) {
  const auto extension = client.extendSandbox(words[1], words[2], words[3]);
  return extension ? extension->token.value_or("no token") : errorAnswer(extension.error());
}

/// A command line of the shell: its exit status and what it prints, on one line.
std::string runShell(const Words& words) {
  std::FILE* output = popen((words[1] + " 2>&1").c_str(), "r");
  if (!output) return errorAnswer(errno);
  std::string text;
  for (int character = 0; (character = std::fgetc(output)) != EOF;) {
    text += character == '\n' ? ' ' : static_cast<char>(character);
  }
  const int status = pclose(output);
  return std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + " " + text;
}

/// A system call by its number and arguments.
std::string systemCall(const Words& words) {
  std::istringstream numbers(words[1]);
  std::array<long, 7> all{};
  for (auto& number : all) numbers >> number;
  const long result = syscall(all[0], all[1], all[2], all[3], all[4], all[5], all[6]);
  return result < 0 ? errorAnswer(errno) : "done";
}

/// Of the 32-bit architecture that this one can execute too.
std::string foreignCall(const Words&) {
#ifdef __x86_64__
  long result = 20;  // getpid
  asm volatile("int $0x80" : "+a"(result) : : "memory", "r8", "r9", "r10", "r11");
  return result < 0 ? errorAnswer(static_cast<int>(-result)) : "done";
#else
  return errorAnswer(EPERM);
#endif
}

std::string coordinate(const Words& words) {
  const auto done = client.coordinateReading(words[1]);
  return done ? "done" : errorAnswer(done.error());
}

}  // namespace

int main(int argc, char** argv) {
  descriptors = list({"", "/proc/self/fd"});
  ::setenv("LSAN_OPTIONS", "detect_leaks=0", 0);  // of the programs that it executes
  const Words arguments(argv + 1, argv + argc);
  const std::map<std::string, std::function<std::string(const Words&)>> commands{
      {"read", readFile},
      {"write", writeFile},
      {"list", list},
      {"processes", processes},
      {"descriptors", [](const Words&) { return descriptors; }},
      {"arguments", [&](const Words&) { return join(arguments); }},
      {"variable", variable},
      {"resolve", resolve},
      {"redeem", redeem},
      {"rewrite", rewrite},
      {"look-around", lookAround},
      {"extend-bookmark", extendBookmark},
      {"extend-sandbox", extendSandbox},
      {"coordinate", coordinate},
      {"run", runShell},
      {"call", systemCall},
      {"foreign-call", foreignCall}};
  for (std::string line; std::getline(std::cin, line);) {
    auto words = split(line);
    if (words[0] == "exit") return std::stoi(words[1]);
    const auto command = commands.find(words[0]);
    words.resize(4);
    std::cout << (command == commands.end() ? "error unknown" : command->second(words))
              << std::endl;
  }
  return 0;
}
