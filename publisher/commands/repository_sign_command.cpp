#include <memory>

#include "publisher/commands/commands.hpp"
#include "publisher/commands/repository_results.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/signer_options.hpp"
#include "publisher/repository/key_rotation.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

struct SignOptions {
  std::filesystem::path folder;
  SignerOptions signers;
};

CommandResult sign(SignOptions& options, const CommandRun& run) {
  options.signers.cancelled = run.cancelled;
  judge_options([&] { require_signer_options(options.signers); });
  const RepositoryOutcome outcome = sign_draft(options.folder, open_signers(options.signers), present_tuf_time());
  CommandResult result;
  for (const MadeSignature& signature : outcome.signatures) {
    result.lines.push_back("Signed by " + signature.name + ": " + signature.role);
  }
  tell_outcome(result, options.folder, outcome);
  return result;
}

}  // namespace

PublishCommand add_repository_sign_command(CLI::App& repository) {
  const auto options = std::make_shared<SignOptions>();
  CLI::App* const command =
      repository.add_subcommand("sign", "Signs what waits for signatures, and publishes it once it has all of them");
  add_repository_folder(*command, options->folder);
  add_signer_options(*command, options->signers);
  return {command, [options](const CommandRun& run) { return sign(*options, run); }};
}

}  // namespace ravok
