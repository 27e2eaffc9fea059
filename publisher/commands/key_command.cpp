#include <memory>
#include <string>

#include "domain/paths.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/publish_key.hpp"

namespace ravok {
namespace {

struct KeyOptions {
  std::filesystem::path output;
  std::string scheme = "ed25519";
};

void publish(const KeyOptions& options) {
  const PublishedKey published = publish_key(options.output, options.scheme);
  say({"Key ID: " + published.id, "Private key, which nobody else may see: " + path_utf8(published.private_file),
       "Public key: " + path_utf8(published.public_file)});
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
  return {command, [options](const Cancelled&) { publish(*options); }};
}

}  // namespace ravok
