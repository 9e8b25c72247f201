#pragma once

#include "platform/files/Places.h"
#include "tests/support/TemporaryDirectory.h"

namespace qx::test {

/// The root of this test process, a directory of its own; the places are made in it. To be called
/// before anything asks for a place.
inline const std::string& temporaryRoot() {
  static TemporaryDirectory directory;
  static const bool isPrepared = [] {
    ::setenv("DOCSOURCE_ROOT", directory.path().c_str(), 1);
    return Places::prepare() == 0;
  }();
  if (!isPrepared) std::abort();
  return directory.path();
}

}  // namespace qx::test
