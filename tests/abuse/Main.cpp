// The system under attack; the program is also the extension that the daemon starts.

#include "tests/support/SelfProvider.h"

int main(int count, char** arguments) { return qx::test::mainOfProviderOrTests(count, arguments); }
