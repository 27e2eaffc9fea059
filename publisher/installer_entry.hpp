// The desktop entry that lies beside an installer's programs, for whoever starts one from a file manager.
#pragma once

#include <string>
#include <string_view>

namespace ravok {

// Returns the text of an entry that starts the "ravok-install" in its own folder, wherever that lies, in a terminal
// which stays open until its output has been read. Where the desktop does not say where the entry lies, the terminal
// tells so, and nothing is started. `product` is the name of what it installs.
std::string installer_desktop_entry(std::string_view product);

// Returns the text of an entry that starts the "ravok-install-gui" in its own folder, wherever that lies, without a
// terminal. Where the desktop does not say where the entry lies, nothing is started. Then, and where the program cannot
// open a window (it cannot be executed, ends with 3, or is ended by a signal), a program of the desktop tells so:
// zenity, kdialog, notify-send or xmessage, whichever is there. Every other failure is the program's own to show.
std::string window_installer_desktop_entry(std::string_view product);

}  // namespace ravok
