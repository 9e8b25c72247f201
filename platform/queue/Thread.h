#pragma once

#include <functional>
#include <thread>

namespace qx {

/// Starts a thread with the given name (at most 15 characters, pthread_setname_np(3)) in which all
/// signals are blocked, so that the signals of the process go to the threads that ask for them.
/// Not joinable when the system has no thread to give.
std::thread startThread(const char* name, std::function<void()> body);

}  // namespace qx
