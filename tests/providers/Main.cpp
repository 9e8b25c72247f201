// The tests of the provider extensions; the program is also the extension that they start.

#include "tests/support/SelfProvider.h"

int main(int count, char** arguments) { return qx::test::mainOfProviderOrTests(count, arguments); }
