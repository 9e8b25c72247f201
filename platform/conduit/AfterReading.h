#pragma once

#include <functional>

namespace qx::conduit {

/// Runs a task that a call on a connection gives rise to, where it need not be another thread's: on
/// the thread that reads the connection, when that has taken what has come and others can read on.
/// So it may block. Where several calls came together, threads of the global queue run the others;
/// and what is submitted by a thread that reads no connection.
void afterReading(std::function<void()> task);

}  // namespace qx::conduit
