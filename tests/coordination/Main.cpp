// The tests of file coordination. As "serve -" the program is the service in a process of its own,
// until standard input ends.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "tests/coordination/Fixture.h"

int main(int count, char** arguments) {
  if (count == 3 && std::string(arguments[1]) == "serve") {
    auto service = qx::test::startService();
    std::printf("ready\n");
    std::fflush(stdout);
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) == 1) continue;
    return 0;
  }
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
