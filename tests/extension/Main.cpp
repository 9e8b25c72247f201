// The tests of the extension host; the program is also the extension that it starts.

#include "tests/support/SelfProvider.h"

int main(int count, char** arguments) { return qx::test::mainOfProviderOrTests(count, arguments); }
