#pragma once

#include <fstream>

#include "tests/support/TemporaryRoot.h"

namespace qx::fuzz {

/// A little tree in the temporary root of this process, for paths to lead into, out of and past:
/// files with hidden siblings, links in both directions, and something of the same name outside.
class Tree {
 public:
  Tree() {
    namespace fs = std::filesystem;
    fs::create_directories(inside() + "/d/e");
    fs::create_directories(outside() + "/d");
    for (const char* name : {"/f", "/.f", "/d/f", "/d/.f", "/d/e/f"}) write(inside() + name);
    for (const char* name : {"/f", "/.f", "/d/f", "/d/.f"}) write(outside() + name);
    write(top() + "/f");
    write(top() + "/.f");
    fs::create_directory_symlink("../outside", inside() + "/out");
    fs::create_directory_symlink("d", inside() + "/in");
    fs::create_symlink("../f", inside() + "/up");
    fs::create_directory_symlink(inside(), top() + "/link");
  }

  static std::string top() { return test::temporaryRoot() + "/tree"; }
  static std::string inside() { return top() + "/inside"; }
  static std::string outside() { return top() + "/outside"; }

 private:
  static void write(const std::string& path) { std::ofstream(path) << path; }
};

}  // namespace qx::fuzz
