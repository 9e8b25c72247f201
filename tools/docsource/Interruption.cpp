// Ctrl-C, kept for a loop that looks.

#include "tools/docsource/Interruption.h"

#include <unistd.h>

#include "tools/docsource/Command.h"

namespace tool {
namespace {

volatile std::sig_atomic_t wasInterrupted = 0;

/// Who is tired of waiting for what was given up presses it again, and again.
void note(int) {
  constexpr int patience = 3;
  wasInterrupted = wasInterrupted + 1;
  if (wasInterrupted >= patience) ::_exit(interrupted);
}

}  // namespace

Interruption::Interruption() {
  wasInterrupted = 0;
  struct sigaction action {};
  action.sa_handler = note;
  ::sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, &before_);
}

Interruption::~Interruption() { ::sigaction(SIGINT, &before_, nullptr); }

bool Interruption::hasCome() const { return wasInterrupted != 0; }

}  // namespace tool
