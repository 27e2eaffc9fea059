// From a parsed setup command to what it did: as a document for programs, and as a sentence for people.
#pragma once

#include <string>
#include <string_view>

#include "app/install/setup_callbacks.hpp"
#include "app/setup/setup_command.hpp"
#include "domain/json.hpp"

namespace ravok {

// Runs a command and returns the document of its outcome. Fails with "usage" without a package that the command needs,
// with "user_path" when root would write among another user's files, and as the operation of NativeInstaller does.
// Where only the menu is another user's, root installs without a shortcut and says why.
//
// An install that names a game makes its shortcut too, and so does a repair where the installation has none at all: an
// install that ended early may have left it so. The document then names it with the others. A game's shortcut that
// cannot be made is no failure: the document says why under "game_shortcut_problem", a key that it has only then. Where
// the client's own shortcut has a problem, the game's is not tried.
Json run_setup_command(const SetupCommand& command, std::string_view package_seal,
                       const NativeSetupCallbacks& callbacks);

// Returns the word for a phase of a command, such as "Verifying…".
std::string_view setup_phase_line(std::string_view phase);

// Returns the sentence for the document of a command, in the name of the product.
std::string setup_summary(const SetupCommand& command, const Json& document);

}  // namespace ravok
