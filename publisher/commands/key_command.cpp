#include <memory>
#include <string>

#include "domain/paths.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/signer_options.hpp"
#include "publisher/signing/publish_key.hpp"
#include "publisher/signing/signing_key.hpp"

namespace ravok {
namespace {

struct KeyOptions {
  std::filesystem::path output;
  std::string scheme;
  bool encrypt = false;
  std::filesystem::path passphrase_file;
  std::filesystem::path imported;
};

void judge(const KeyOptions& options) {
  judge_options([&] {
    if (!options.scheme.empty()) {
      require_scheme(options.scheme);
    }
    require(options.encrypt || options.passphrase_file.empty(), "usage", "--passphrase-file goes with --encrypt");
    require(options.imported.empty() || !options.encrypt, "usage",
            "--import takes a public key, which is not encrypted");
  });
}

PublishedKey make(const KeyOptions& options, const CommandRun& run) {
  if (!options.imported.empty()) {
    return import_key(options.output, options.imported, options.scheme);
  }
  const std::string scheme = options.scheme.empty() ? "ed25519" : options.scheme;
  const auto ask = [&](const std::string& prompt) { return ask_on_terminal(prompt, run.cancelled); };
  return options.encrypt ? publish_encrypted_key(options.output, scheme, {options.passphrase_file, ask})
                         : publish_key(options.output, scheme);
}

CommandResult publish(const KeyOptions& options, const CommandRun& run) {
  judge(options);
  const PublishedKey published = make(options, run);
  CommandResult result;
  result.lines.push_back("Key ID: " + published.id);
  if (!published.private_file.empty()) {
    result.lines.push_back((options.encrypt ? "Encrypted private key, which nobody else may see: "
                                            : "Private key, which nobody else may see: ") +
                           path_utf8(published.private_file));
  }
  result.lines.push_back("Public key: " + path_utf8(published.public_file));
  if (run.json) {
    result.document = {{"key_id", published.id},
                       {"scheme", text_at(read_public_key(published.public_file), "scheme")},
                       {"public_key", described_file(published.public_file)}};
    if (!published.private_file.empty()) {
      // Of the private key nothing is told but where it is.
      result.document["private_key"] = {{"path", json_text(path_utf8(published.private_file))}};
      if (options.encrypt) {
        result.document["private_key"]["encrypted"] = true;
      }
    }
  }
  return result;
}

}  // namespace

PublishCommand add_key_command(CLI::App& program) {
  const auto options = std::make_shared<KeyOptions>();
  CLI::App* const command = program.add_subcommand("key", "Makes a key to sign a repository with");
  command->add_option("FILE", options->output, "Where to write the private key; the public key gets this name and .pub")
      ->required();
  command
      ->add_option("--scheme", options->scheme,
                   "ed25519 (the default), ecdsa-sha2-nistp256, -nistp384 or -nistp521, rsassa-pss-sha256, -sha384 or "
                   "-sha512, ml-dsa-44/1, ml-dsa-65/1 or ml-dsa-87/1")
      ->type_name("NAME");
  command->add_flag("--encrypt", options->encrypt,
                    "Encrypts the private key with a passphrase, which a terminal is asked for");
  command
      ->add_option("--passphrase-file", options->passphrase_file,
                   "A file, which others may not read, with the passphrase on its only line")
      ->type_name("FILE");
  command
      ->add_option("--import", options->imported,
                   "Makes no key: writes only the public key file, of this public key in PEM or DER, such as a token's")
      ->type_name("PUBLIC_KEY");
  return {command, [options](const CommandRun& run) { return publish(*options, run); }};
}

}  // namespace ravok
