#include "publisher/signing/signer.hpp"

#include <algorithm>
#include <memory>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/signature.hpp"
#include "publisher/signing/publish_key.hpp"
#include "publisher/signing/signing_key.hpp"

namespace ravok {
namespace {

// Makes the signer verify at once what it signs.
Signer verified(Signer signer) {
  signer.sign = [key = signer.key, name = signer.name, sign = std::move(signer.sign)](std::string_view payload) {
    std::string signature = sign(payload);
    require(verify_signature(key, payload, signature), "invalid_signature",
            "The signature of " + name + " is not one that clients accept for its public key");
    return signature;
  };
  return signer;
}

Signer open_key(const std::filesystem::path& file, const PassphraseSource& passphrase) {
  const auto key = std::make_shared<const SigningKey>(read_signing_key(file, passphrase));
  return verified(
      {key->key(), key->id(), key_name(file), [key](std::string_view payload) { return key->sign(payload); }});
}

// Its signatures are verified where they are read.
Signer open_program(const ExternalSigner& program, const SignerOptions& options) {
  const Json key = read_public_key(program.public_key);
  const std::string name = key_name(program.public_key);
  return {key, key_id(key), name,
          [command = program.command, key, name, patience = options.patience, cancelled = options.cancelled](
              std::string_view payload) { return sign_externally(command, key, name, payload, patience, cancelled); }};
}

void add(std::vector<Signer>& signers, Signer signer) {
  const auto same =
      std::find_if(signers.begin(), signers.end(), [&](const Signer& one) { return one.id == signer.id; });
  require(same == signers.end(), "invalid_key", "The key of " + signer.name + " is given twice");
  signers.push_back(std::move(signer));
}

}  // namespace

std::vector<Signer> open_signers(const SignerOptions& options) {
  require_signer_options(options);
  std::vector<Signer> signers;
  for (const std::filesystem::path& file : options.keys) {
    add(signers, open_key(file, {options.passphrase_file, options.ask}));
  }
  for (const ExternalSigner& program : options.signers) {
    add(signers, open_program(program, options));
  }
  return signers;
}

void require_signer_options(const SignerOptions& options) {
  for (const ExternalSigner& program : options.signers) {
    require(!program.command.empty() && !program.public_key.empty(), "usage",
            "Each --signer COMMAND needs a --signer-key FILE, in the same order");
    command_words(program.command);
  }
}

std::string key_name(const std::filesystem::path& file) {
  const std::filesystem::path name = file.filename();
  return path_utf8(name.extension() == ".pub" ? name.stem().stem() : name.stem());
}

}  // namespace ravok
