// The client of the figures that are taken from outside: round trips, calls in flight, providing,
// grants. Each round measures ours, the floor and the peer one after the other.
// usage: client WORK ROUNDS ARGUMENT…

#include <docsource/client.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>

#include <cstdio>
#include <deque>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>

#include "bench/Connection.h"

namespace {

using namespace bench;
using Arguments = std::span<char*>;

const Frame& wakeUp() {
  static const Frame frame = callFrame("wakeUpCompletion:");
  return frame;
}

/// The mean of `count` round trips.
double roundTrips(Connection& connection, const Frame& frame, int count) {
  return secondsOf([&] {
           for (int i = 0; i < count; ++i) connection.roundTrip(frame);
         }) /
         count;
}

struct Bus {
  Bus() {
    if (sd_bus_open_user(&bus) < 0) fail("the bus cannot be reached");
  }
  ~Bus() { sd_bus_flush_close_unref(bus); }
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;
  sd_bus* bus = nullptr;
};

/// One client, one call at a time. ECHO OURS
void calls(int rounds, Arguments arguments) {
  constexpr int count = 1000;
  Connection floor(arguments[0]);
  Connection ours(arguments[1]);
  docsource::Client library;
  const Bus peer;
  Figures figures;
  for (int round = -1; round < rounds; ++round) {
    const double floorTime = roundTrips(floor, wakeUp(), count);
    const double ourTime = roundTrips(ours, wakeUp(), count);
    const double libraryTime = secondsOf([&] {
                                 for (int i = 0; i < count; ++i) {
                                   if (!library.wakeUp()) fail("the library gets no answer");
                                 }
                               }) /
                               count;
    const double peerTime =
        secondsOf([&] {
          for (int i = 0; i < count; ++i) {
            if (sd_bus_call_method(peer.bus, "org.example.Bench", "/bench", "org.example.Bench",
                                   "WakeUp", nullptr, nullptr, "") < 0) {
              fail("the bus gets no answer");
            }
          }
        }) /
        count;
    if (round < 0) continue;
    figures.add("floor", floorTime);
    figures.add("ours", ourTime);
    figures.add("library", libraryTime);
    figures.add("peer", peerTime);
  }
  if (!ours.lastSucceeded()) fail("the call fails");
}

/// Calls per second with `inFlight` of them unanswered at any time on one connection.
double throughput(Connection& connection, std::size_t inFlight, std::size_t count) {
  const Frame& frame = wakeUp();
  Frame frames;
  for (std::size_t i = 0; i < inFlight; ++i)
    frames.insert(frames.end(), frame.begin(), frame.end());
  std::uint32_t id = firstID;
  const auto sendCalls = [&](std::size_t number) {
    const auto bytes = std::span(frames).first(number * frame.size());
    for (std::size_t i = 0; i < number; ++i) {
      setID(bytes.subspan(i * frame.size(), frame.size()), id++);
    }
    connection.send(bytes);
  };
  const double seconds = secondsOf([&] {
    std::size_t sent = inFlight;
    sendCalls(inFlight);
    for (std::size_t answered = 0; answered < count;) {
      const std::size_t frameCount = connection.receive();
      answered += frameCount;
      const std::size_t more = std::min(frameCount, count - sent);
      if (more != 0) sendCalls(more);
      sent += more;
    }
  });
  return static_cast<double>(count) / seconds;
}

/// Calls per second over several connections, with one unanswered on each.
double throughput(std::deque<Connection>& connections, std::size_t count) {
  const qx::FileDescriptor epoll(epoll_create1(EPOLL_CLOEXEC));
  for (Connection& connection : connections) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &connection;
    epoll_ctl(epoll.get(), EPOLL_CTL_ADD, connection.descriptor(), &event);
  }
  const double seconds = secondsOf([&] {
    for (Connection& connection : connections) connection.send(wakeUp());
    std::size_t sent = connections.size();
    for (std::size_t answered = 0; answered < count;) {
      std::array<epoll_event, 64> events;
      const int ready = epoll_wait(epoll.get(), events.data(), events.size(), -1);
      for (int i = 0; i < ready; ++i) {
        auto& connection = *static_cast<Connection*>(events[static_cast<std::size_t>(i)].data.ptr);
        if (connection.receive() == 0) continue;
        ++answered;
        if (sent < count) {
          connection.send(wakeUp());
          ++sent;
        }
      }
    }
  });
  return static_cast<double>(count) / seconds;
}

/// 64 calls in flight on one connection, and one on each of 64. ECHO OURS
void flight(int rounds, Arguments arguments) {
  constexpr std::size_t inFlight = 64;
  constexpr std::size_t count = 20000;
  Connection floor(arguments[0]);
  Connection ours(arguments[1]);
  std::deque<Connection> floors;
  std::deque<Connection> all;
  for (std::size_t i = 0; i < inFlight; ++i) {
    floors.emplace_back(arguments[0]);
    all.emplace_back(arguments[1]);
  }
  Figures figures;
  for (int round = -1; round < rounds; ++round) {
    const double floorOne = throughput(floor, inFlight, count);
    const double oursOne = throughput(ours, inFlight, count);
    const double floorMany = throughput(floors, count);
    const double oursMany = throughput(all, count);
    if (round < 0) continue;
    figures.add("floor one", floorOne);
    figures.add("ours one", oursOne);
    figures.add("floor many", floorMany);
    figures.add("ours many", oursMany);
  }
  if (!ours.lastSucceeded()) fail("the call fails");
}

using Text = std::optional<std::string>;

Frame extendSandbox(const std::string& path, const char* provider) {
  return callFrame("extendSandboxForFileURL:fromProviderID:toConsumerID:completionHandler:",
                   qx::URL::fileURL(path), Text(provider), Text("org.example.consumer"));
}

/// A present document is provided by a trivial extension, three exchanges in all, beside three
/// round trips. ECHO OURS DOCUMENT PROVIDER
void start(int rounds, Arguments arguments) {
  constexpr int count = 200;
  Connection floor(arguments[0]);
  Connection ours(arguments[1]);
  ours.roundTrip(extendSandbox(arguments[2], arguments[3]));
  if (!ours.lastSucceeded()) fail("the document cannot be granted");
  const Frame frame =
      callFrame("startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:",
                qx::URL::fileURL(arguments[2]), Text(arguments[3]), Text("org.example.consumer"));
  Figures figures;
  for (int round = -1; round < rounds; ++round) {
    const double floorTime = 3 * roundTrips(floor, frame, 3 * count);
    const double ourTime = roundTrips(ours, frame, count);
    if (!ours.lastSucceeded()) fail("the document cannot be provided");
    if (round < 0) continue;
    figures.add("floor", floorTime);
    figures.add("ours", ourTime);
  }
}

/// The document portal: registers a document and grants it to an application, in one call. Returns
/// the name that the portal gives it.
std::string addDocument(const Bus& peer, const std::string& path, const char* application) {
  const qx::FileDescriptor file(open(path.c_str(), O_PATH | O_CLOEXEC));
  constexpr std::uint32_t persistent = 2;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  const char* name = nullptr;
  if (sd_bus_call_method(peer.bus, "org.freedesktop.portal.Documents",
                         "/org/freedesktop/portal/documents", "org.freedesktop.portal.Documents",
                         "AddFull", &error, &reply, "ahusas", 1, file.get(), persistent,
                         application, 2, "read", "write") < 0 ||
      sd_bus_message_enter_container(reply, 'a', "s") < 0 ||
      sd_bus_message_read(reply, "s", &name) <= 0) {
    fail(std::string("the portal does not take a document: ") +
         (error.message ? error.message : "its answer is of another form"));
  }
  std::string given = name;
  sd_bus_message_unref(reply);
  return given;
}

/// Puts a document under the portal's file system and prints its name there. DOCUMENT
void exportDocument(int, Arguments arguments) {
  const Bus peer;
  std::printf("{\"id\": \"%s\"}\n", addDocument(peer, arguments[0], "").c_str());
}

/// Waits until the file has been replaced by one that holds the text.
void awaitText(const std::string& path, const std::string& text) {
  timespec seen{};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 ||
        (status.st_ctim.tv_sec == seen.tv_sec && status.st_ctim.tv_nsec == seen.tv_nsec)) {
      continue;
    }
    seen = status.st_ctim;
    std::ifstream file(path);
    const std::string content(std::istreambuf_iterator<char>(file), {});
    if (content.find(text) != std::string::npos) return;
  }
  fail(path + " does not come to hold " + text);
}

/// New grants into lists of 1,000; ours are durable when they are answered, the portal's when its
/// file has been replaced. OURS DIRECTORY PROVIDER [PORTAL'S-FILE]
void grants(int rounds, Arguments arguments) {
  constexpr int listLength = 1000;
  Connection ours(arguments[0]);
  const std::string directory = arguments[1];
  const std::string portalFile = arguments.size() > 3 ? arguments[3] : "";
  std::unique_ptr<Bus> peer;
  if (!portalFile.empty()) {
    peer = std::make_unique<Bus>();
    for (int i = 0; i < listLength; ++i) {
      addDocument(*peer, directory + "/portal " + std::to_string(i), "org.example.Other");
    }
  }
  Figures figures;
  for (int round = 0; round < rounds; ++round) {
    const std::string document = directory + "/new " + std::to_string(round);
    const Frame frame = extendSandbox(document, arguments[2]);
    figures.add("ours", secondsOf([&] { ours.roundTrip(frame); }));
    if (!ours.lastSucceeded()) fail("the document cannot be granted");
    if (!peer) continue;
    double answered = 0;
    const double durable = secondsOf([&] {
      answered = secondsOf([&] { addDocument(*peer, document, "org.example.Consumer"); });
      awaitText(portalFile, document);
    });
    figures.add("peer answered", answered);
    figures.add("peer", durable);
  }
}

/// To whom a URL belongs that belongs to none of the providers, beside one stat(2) of each
/// directory. OURS URL'S-PATH DIRECTORY…
void resolve(int rounds, Arguments arguments) {
  constexpr int count = 20;
  Connection ours(arguments[0]);
  const Frame frame = callFrame("bookmarkableStringFromDocumentURL:completion:",
                                std::optional(qx::URL::fileURL(arguments[1])));
  const auto directories = arguments.subspan(2);
  Figures figures;
  for (int round = -1; round < rounds; ++round) {
    const double floorTime = secondsOf([&] {
                               for (int i = 0; i < count; ++i) {
                                 for (const char* directory : directories) {
                                   struct stat status {};
                                   if (stat(directory, &status) != 0) fail(directory);
                                 }
                               }
                             }) /
                             count;
    const double ourTime = roundTrips(ours, frame, count);
    if (round < 0) continue;
    figures.add("floor", floorTime);
    figures.add("ours", ourTime);
  }
  if (!ours.lastSucceeded()) fail("the call fails");
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, std::function<void(int, Arguments)>> works{
      {"calls", calls},   {"flight", flight},   {"start", start},
      {"grants", grants}, {"resolve", resolve}, {"export", exportDocument}};
  const Arguments arguments(argv, static_cast<std::size_t>(argc));
  const auto work = arguments.size() > 3 ? works.find(arguments[1]) : works.end();
  if (work == works.end()) fail("usage: client WORK ROUNDS ARGUMENT…");
  work->second(std::stoi(arguments[2]), arguments.subspan(3));
}
