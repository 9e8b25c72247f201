#pragma once

#include <cstdint>
#include <string>

/// The desktop of this user, over its session bus. Where there is none nothing happens, and that is
/// no error of any command. Any thread, one at a time.
namespace tool::desktop {

/// Whether a person sits before windows here (XDG_SESSION_TYPE is not asked: it is that of the
/// login, and a window can be shown wherever a display is named).
bool isThere();

/// Has the file manager show a directory (org.freedesktop.FileManager1, which the bus starts).
bool showDirectory(const std::string& path);

/// Shows a notification in the place of the one with that number, 0 for a new one. Its number, 0
/// where none could be shown.
std::uint32_t notify(const std::string& title, const std::string& text, std::uint32_t replaced = 0);

}  // namespace tool::desktop
