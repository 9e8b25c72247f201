#pragma once

#include <sched.h>
#include <sys/types.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

namespace qx::test {

/// Disturbs the scheduling of a process for as long as this lives: its threads are sent to one
/// processor or another and put behind or among the others, as the seed says (sched(7)).
class Shaking {
 public:
  Shaking(pid_t process, std::uint64_t seed)
      : thread_([this, process, seed] { shake(process, seed); }) {}
  ~Shaking() {
    over_ = true;
    thread_.join();
  }
  Shaking(const Shaking&) = delete;
  Shaking& operator=(const Shaking&) = delete;

 private:
  void shake(pid_t process, std::uint64_t seed) const {
    std::mt19937_64 random(seed);
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    const unsigned processors = std::max(1U, std::thread::hardware_concurrency());
    cpu_set_t all;
    sched_getaffinity(0, sizeof all, &all);
    while (!over_) {
      std::error_code gone;
      for (const auto& task : std::filesystem::directory_iterator(tasks, gone)) {
        const pid_t thread = std::stoi(task.path().filename());
        cpu_set_t some = all;
        if (const auto at = random() % (processors + 1); at < processors) {
          CPU_ZERO(&some);
          CPU_SET(at, &some);
        }
        sched_setaffinity(thread, sizeof some, &some);
        const sched_param none{};
        sched_setscheduler(thread, random() % 16 == 0 ? SCHED_IDLE : SCHED_OTHER, &none);
        if (random() % 2 == 0) std::this_thread::yield();
      }
    }
  }

  std::atomic<bool> over_ = false;
  std::thread thread_;
};

}  // namespace qx::test
