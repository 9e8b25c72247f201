// Ctrl-C, kept for a loop that looks.

#include "tools/docsource/Interruption.h"

namespace tool {
namespace {

volatile std::sig_atomic_t wasInterrupted = 0;

void note(int) { wasInterrupted = 1; }

}  // namespace

Interruption::Interruption() {
  wasInterrupted = 0;
  struct sigaction action {};
  action.sa_handler = note;
  ::sigemptyset(&action.sa_mask);
  // The next one ends the program, for who does not want to wait.
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  ::sigaction(SIGINT, &action, &before_);
}

Interruption::~Interruption() { ::sigaction(SIGINT, &before_, nullptr); }

bool Interruption::hasCome() const { return wasInterrupted != 0; }

}  // namespace tool
