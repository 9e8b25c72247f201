// The tests of the servicer; the program is its own client, and the extension that the daemon
// starts.

#include "tests/support/SelfProvider.h"

int main(int count, char** arguments) { return qx::test::mainOfProviderOrTests(count, arguments); }
