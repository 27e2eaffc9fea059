#include <memory>
#include <string>

#include "domain/identifier.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/repository_results.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/signer_options.hpp"
#include "publisher/repository/publish_withdrawal.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

struct WithdrawOptions {
  RepositoryWithdrawal withdrawal;
  SignerOptions signers;
};

CommandResult withdraw(WithdrawOptions& options, const CommandRun& run) {
  options.signers.cancelled = run.cancelled;
  judge_options([&] {
    validate_identifier(options.withdrawal.build_id);
    if (options.withdrawal.days) {
      require_days(*options.withdrawal.days);
    }
    require_signer_options(options.signers);
  });
  const WithdrawalOutcome outcome =
      withdraw_build(options.withdrawal, open_signers(options.signers), present_tuf_time());
  CommandResult result;
  result.document["builds"] = Json::array();
  for (const WithdrawnBuild& build : outcome.builds) {
    result.lines.push_back(
        "Withdrawn: " + build.build +
        (build.former_build_id.empty() ? ", which has none before it" : ", back to build " + build.former_build_id));
    result.document["builds"].push_back(
        {{"build", build.build},
         {"target", build.target},
         {"former_build_id", build.former_build_id.empty() ? Json() : Json(build.former_build_id)}});
  }
  tell_outcome(result, options.withdrawal.folder, outcome.repository);
  return result;
}

}  // namespace

PublishCommand add_repository_withdraw_command(CLI::App& repository) {
  const auto options = std::make_shared<WithdrawOptions>();
  CLI::App* const command =
      repository.add_subcommand("withdraw", "Publishes what was there before a build, as something newer");
  add_repository_folder(*command, options->withdrawal.folder);
  command->add_option("--build", options->withdrawal.build_id, "The identifier of the build")
      ->required()
      ->type_name("ID");
  add_days_option(*command, options->withdrawal.days);
  add_signer_options(*command, options->signers);
  return {command, [options](const CommandRun& run) { return withdraw(*options, run); }};
}

}  // namespace ravok
