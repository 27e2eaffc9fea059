// The options of every command that signs.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "publisher/signing/passphrase.hpp"
#include "publisher/signing/signer.hpp"

namespace ravok {

// Lets a command take --key FILE and --signer COMMAND with --signer-key FILE, which may be given again, and
// --passphrase-file FILE and --signer-timeout SECONDS. Passphrases that no file gives are asked for on the terminal.
// The options must live until the command has run.
void add_signer_options(CLI::App& command, SignerOptions& options);

// Asks for a passphrase on the terminal. Fails with "passphrase_needed" where there is none, "cancelled" once
// `cancelled` answers true, "invalid_passphrase" for one of more than 1024 bytes, and "terminal_failed".
Secret ask_on_terminal(const std::string& prompt, const std::function<bool()>& cancelled);

}  // namespace ravok
