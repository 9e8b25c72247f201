#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace qx {

/// A completion callback whose arguments may each be absent. An empty Completion is an absent one.
template <class... Ts>
using Completion = std::function<void(std::optional<Ts>...)>;

/// Wraps a completion that must be called exactly once: a second call is dropped, from whatever
/// thread it comes, and what the callback holds is released after the first. This is the only place
/// that protects one. An absent completion stays absent.
template <class... Ts>
std::function<void(Ts...)> once(std::function<void(Ts...)> completion) {
  if (!completion) return {};
  struct State {
    explicit State(std::function<void(Ts...)> taken) : completion(std::move(taken)) {}
    std::function<void(Ts...)> completion;
    std::atomic_flag called = ATOMIC_FLAG_INIT;
  };
  return [state = std::make_shared<State>(std::move(completion))](Ts... arguments) {
    if (state->called.test_and_set()) return;
    const auto callback = std::exchange(state->completion, nullptr);
    callback(std::move(arguments)...);
  };
}

}  // namespace qx
