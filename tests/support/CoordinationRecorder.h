#pragma once

#include <string>

#include "tests/support/FakeService.h"
#include "tests/support/Mailbox.h"
#include "tests/support/Operations.h"

namespace qx::test {

/// Stands in for the file-coordination service: notes who is added and removed.
class CoordinationRecorder {
 public:
  /// "add identifier", "remove identifier".
  Mailbox<std::string>& events() { return events_; }

 private:
  Mailbox<std::string> events_;
  FakeService service_{coordinationService,
                       [this](const std::string& operation, const Array& with) {
                         const bool adds = operation.starts_with("addDocSource:");
                         events_.put((adds ? "add " : "remove ") + describe(with.front()));
                         return Array{Value()};
                       }};
};

}  // namespace qx::test
