// The entry point of tests whose program is also the provider extension that is started.

#include "tests/support/SelfProvider.h"

int main(int count, char** arguments) { return qx::test::mainOfProviderOrTests(count, arguments); }
