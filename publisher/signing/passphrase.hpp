// The passphrases that encrypt private keys: from a private file, or from whoever sits at the terminal.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "publisher/signing/secret.hpp"

namespace ravok {

struct PassphraseSource {
  std::filesystem::path file;  // holds the passphrase on its only line; empty to ask for it
  // Shows the text and returns the line that is answered. Empty where there is nobody to ask.
  std::function<Secret(const std::string& prompt)> ask;
};

// Returns the passphrase that opens the key of this name. Fails with "passphrase_needed" when there is neither a file
// nor anybody to ask, "invalid_passphrase" for an empty one, one of more than 1024 bytes, or a file of several lines,
// "permissions" for a file that others may read, and as read_file does.
Secret known_passphrase(const PassphraseSource& source, const std::string& name);

// Returns the passphrase for a new key of this name; whoever is asked gives it twice. Fails as known_passphrase does,
// and with "passphrase_mismatch" for two that differ.
Secret new_passphrase(const PassphraseSource& source, const std::string& name);

}  // namespace ravok
