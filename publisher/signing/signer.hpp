// Whoever signs for a repository: a private key in a file, or a program that holds one.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"
#include "publisher/signing/external_signer.hpp"
#include "publisher/signing/secret.hpp"

namespace ravok {

struct Signer {
  Json key;          // the public key object
  std::string id;    // its identifier
  std::string name;  // what people call it; see key_name

  // Returns the signature of the payload as lower-case hexadecimal, which the client's own verification has accepted.
  // Fails with "invalid_signature" and the signer's name for one that it would refuse, with "crypto_failure", and as
  // sign_externally does.
  std::function<std::string(std::string_view payload)> sign;
};

struct SignerOptions {
  std::vector<std::filesystem::path> keys;  // private key files
  std::filesystem::path passphrase_file;    // what opens the encrypted ones among them; may be empty
  std::vector<ExternalSigner> signers;
  std::chrono::milliseconds patience = signer_patience;  // for each signature of a program

  // Asks whoever sits at the terminal for a passphrase; see PassphraseSource.
  std::function<Secret(const std::string& prompt)> ask;
  // Answers whether the user asked to stop.
  std::function<bool()> cancelled;
};

// Returns the signers in the order of the options, private keys first. Encrypted keys are opened here. Fails with
// "invalid_key" for a key that is given twice, "invalid_signer" for a command line that is none, and as the readers of
// key files do.
std::vector<Signer> open_signers(const SignerOptions& options);

// Accepts only options of which nothing that can be judged without a look at any file is refused: each command has the
// file of its public key. Fails with "usage" and "invalid_signer".
void require_signer_options(const SignerOptions& options);

// Returns what people call the key of a file: its name without folder, ".pub" and extension.
std::string key_name(const std::filesystem::path& file);

}  // namespace ravok
