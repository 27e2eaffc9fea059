#include <memory>
#include <string>

#include "domain/paths.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/publish_key.hpp"
#include "publisher/signing_key.hpp"

namespace ravok {
namespace {

struct KeyOptions {
  std::filesystem::path output;
  std::string scheme = "ed25519";
};

CommandResult publish(const KeyOptions& options, const CommandRun& run) {
  judge_options([&] { require_scheme(options.scheme); });
  const PublishedKey published = publish_key(options.output, options.scheme);
  CommandResult result;
  result.lines = {"Key ID: " + published.id,
                  "Private key, which nobody else may see: " + path_utf8(published.private_file),
                  "Public key: " + path_utf8(published.public_file)};
  if (run.json) {
    // Of the private key nothing is told but where it is.
    result.document = {{"key_id", published.id},
                       {"scheme", options.scheme},
                       {"private_key", {{"path", json_text(path_utf8(published.private_file))}}},
                       {"public_key", described_file(published.public_file)}};
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
  return {command, [options](const CommandRun& run) { return publish(*options, run); }};
}

}  // namespace ravok
