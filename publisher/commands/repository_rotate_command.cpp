#include <memory>
#include <string>
#include <vector>

#include "publisher/commands/commands.hpp"
#include "publisher/commands/repository_results.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/signer_options.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/repository/key_rotation.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

struct RotateOptions {
  KeyRotation rotation;
  std::vector<std::string> roles;
  SignerOptions signers;
};

CommandResult rotate(RotateOptions& options, const CommandRun& run) {
  options.rotation.roles.insert(options.roles.begin(), options.roles.end());
  options.signers.cancelled = run.cancelled;
  judge_options([&] {
    require_rotation(options.rotation, present_tuf_time());
    require_signer_options(options.signers);
  });
  const RotationOutcome outcome = rotate_keys(options.rotation, open_signers(options.signers), present_tuf_time());
  for (const std::string& warning : outcome.warnings) {
    complain(warning);
  }
  CommandResult result;
  tell_outcome(result, options.rotation.folder, outcome.repository);
  for (const std::string& warning : outcome.warnings) {
    result.document["warnings"].push_back(warning);
  }
  return result;
}

}  // namespace

PublishCommand add_repository_rotate_command(CLI::App& repository) {
  const auto options = std::make_shared<RotateOptions>();
  CLI::App* const command =
      repository.add_subcommand("rotate", "Gives roles other keys, by a new root that old and new root keys sign");
  add_repository_folder(*command, options->rotation.folder);
  command
      ->add_option("--role", options->roles,
                   "A role to change: root, targets, snapshot or timestamp; may be given again")
      ->allow_extra_args(false)
      ->type_name("ROLE");
  command->add_option("--add", options->rotation.add, "The public key file of a key that joins; may be given again")
      ->allow_extra_args(false)
      ->type_name("FILE");
  command
      ->add_option("--remove", options->rotation.remove,
                   "The name or the identifier of a key that leaves, as status tells them; may be given again")
      ->allow_extra_args(false)
      ->type_name("KEY");
  command->add_option("--threshold", options->rotation.threshold, "How many keys must sign; by default as it is")
      ->type_name("N");
  command
      ->add_option("--expires", options->rotation.expires,
                   "When the new root expires, such as 2030-01-31T00:00:00Z; by default when the present one does")
      ->type_name("TIME");
  add_signer_options(*command, options->signers);
  return {command, [options](const CommandRun& run) { return rotate(*options, run); }};
}

}  // namespace ravok
