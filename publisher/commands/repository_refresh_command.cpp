#include <memory>
#include <string>

#include "publisher/commands/commands.hpp"
#include "publisher/commands/repository_results.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/signer_options.hpp"
#include "publisher/repository/refresh_repository.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

struct RefreshOptions {
  RepositoryRefresh refresh;
  SignerOptions signers;
};

CommandResult refresh(RefreshOptions& options, const CommandRun& run) {
  options.signers.cancelled = run.cancelled;
  judge_options([&] {
    if (options.refresh.days) {
      require_days(*options.refresh.days);
    }
    require_signer_options(options.signers);
  });
  const RefreshOutcome outcome = refresh_repository(options.refresh, open_signers(options.signers), present_tuf_time());
  CommandResult result;
  for (const std::string& role : outcome.left) {
    const bool is_of_draft = role == "targets" && outcome.left_for_draft;
    result.complaints.push_back(
        "The role " + role + (is_of_draft && outcome.left_though_asked ? " lasts until " : " is due and lasts until ") +
        tuf_day_text(outcome.repository.state.role(role).expires()) + "; " +
        (is_of_draft ? "it stays as it is while a draft waits" : "its keys are not among those to sign with"));
  }
  if (!outcome.was_due && !outcome.left.empty()) {
    result.lines = {"Nothing is due that can be signed now"};
  } else if (!outcome.was_due && outcome.next_due) {
    result.lines = {"Nothing is due before " + tuf_day_text(*outcome.next_due)};
  }
  result.document = {{"was_due", outcome.was_due}, {"left", outcome.left}, {"next_due", nullptr}};
  if (outcome.next_due) {
    result.document["next_due"] = tuf_time_text(*outcome.next_due);
  }
  tell_outcome(result, options.refresh.folder, outcome.repository);
  if (outcome.was_due && !outcome.repository.published) {
    result.failed = true;
    result.complaints.push_back("What is due is not published: " + needs_text(outcome.repository.needs));
  }
  return result;
}

}  // namespace

PublishCommand add_repository_refresh_command(CLI::App& repository) {
  const auto options = std::make_shared<RefreshOptions>();
  CLI::App* const command = repository.add_subcommand("refresh", "Signs anew what has less than half of its days left");
  add_repository_folder(*command, options->refresh.folder);
  add_days_option(*command, options->refresh.days);
  command->add_flag("--force", options->refresh.force,
                    "Makes a new timestamp even when nothing is due, and anew what one of the keys has not signed yet");
  add_signer_options(*command, options->signers);
  return {command, [options](const CommandRun& run) { return refresh(*options, run); }};
}

}  // namespace ravok
