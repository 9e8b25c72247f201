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

/// The word for it in the file "coordination" beside the sockets of platformd, where it is a line
/// of its own.
std::string_view nameOf(CoordinationMechanism mechanism);

/// Returns what the platformd that serves this user last announced, the user's own or the
/// machine's; absent when there is none that guards.
std::optional<CoordinationMechanism> readCoordinationMechanism();
/// Removes the file. From now on, until the next announcement, no program is coordinated that does
/// not ask.
void withdrawCoordinationMechanism();
/// Writes the file and logs it.
void announceCoordinationMechanism(CoordinationMechanism mechanism);

}  // namespace qx
