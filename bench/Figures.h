#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace bench {

/// Ends a program that cannot measure what it should.
[[noreturn]] inline void fail(const std::string& why) {
  std::fprintf(stderr, "%s\n", why.c_str());
  std::exit(1);
}

/// How long `work` takes, in seconds.
template <class Work>
double secondsOf(Work&& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

/// What was measured under each name, one value for each round; goes to bench/run as JSON.
class Figures {
 public:
  void add(const std::string& name, double value) { values_[name].push_back(value); }

  ~Figures() {
    const char* separator = "{";
    for (const auto& [name, values] : values_) {
      std::printf("%s\"%s\": [", separator, name.c_str());
      for (std::size_t i = 0; i < values.size(); ++i) {
        std::printf("%s%.9g", i == 0 ? "" : ", ", values[i]);
      }
      std::printf("]");
      separator = ", ";
    }
    std::printf("}\n");
  }
  Figures() = default;
  Figures(const Figures&) = delete;
  Figures& operator=(const Figures&) = delete;

 private:
  std::map<std::string, std::vector<double>> values_;
};

}  // namespace bench
