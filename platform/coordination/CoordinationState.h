#pragma once

#include <optional>
#include <string_view>

namespace qx {

/// How platformd coordinates programs that do not ask for it.
enum class CoordinationMechanism {
  access,       // accesses to content wait (FAN_PRE_ACCESS)
  open,         // openings wait (FAN_OPEN_PERM)
  cooperative,  // not at all; programs ask
};

/// As it is written in the file "coordination" beside the sockets of platformd, a line of its own.
std::string_view nameOf(CoordinationMechanism mechanism);

/// What the platformd that serves this user last announced, the user's own or the machine's; absent
/// when there is none that guards.
std::optional<CoordinationMechanism> readCoordinationMechanism();
/// Takes the file away: nobody is coordinated from now on who does not ask, until the next
/// announcement.
void withdrawCoordinationMechanism();
/// Writes the file and says it in the log.
void announceCoordinationMechanism(CoordinationMechanism mechanism);

}  // namespace qx
