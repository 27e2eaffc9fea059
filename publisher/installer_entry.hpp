// The desktop entry that lies beside an installer's program, for whoever starts it from a file manager.
#pragma once

#include <string>
#include <string_view>

namespace ravok {

// Returns the text of an entry that starts the "ravok-install" in its own folder, wherever that lies, in a terminal
// which stays open until its output has been read. Where the desktop does not say where the entry lies, the terminal
// tells so, and nothing is started. `product` is the name of what it installs.
std::string installer_desktop_entry(std::string_view product);

}  // namespace ravok
