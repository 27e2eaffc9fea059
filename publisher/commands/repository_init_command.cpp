#include <memory>

#include "domain/paths.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/repository_results.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/signer_options.hpp"
#include "publisher/repository/init_repository.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

struct InitOptions {
  RepositoryFoundation foundation;
  SignerOptions signers;
};

CommandResult init(InitOptions& options, const CommandRun& run) {
  options.signers.cancelled = run.cancelled;
  judge_options([&] {
    for (const auto& [role, days] : options.foundation.days) {
      require_days(days);
    }
    require_signer_options(options.signers);
  });
  const RepositoryOutcome outcome =
      init_repository(options.foundation, open_signers(options.signers), present_tuf_time());
  CommandResult result;
  result.lines = {"Repository: " + path_utf8(options.foundation.folder)};
  if (!outcome.published && outcome.needs.empty()) {
    result.lines.push_back("Nothing is signed yet: the first release does that");
  }
  tell_outcome(result, options.foundation.folder, outcome);
  return result;
}

}  // namespace

PublishCommand add_repository_init_command(CLI::App& repository) {
  const auto options = std::make_shared<InitOptions>();
  RepositoryFoundation& foundation = options->foundation;
  foundation.days = PublisherRecord().days;
  CLI::App* const command = repository.add_subcommand("init", "Makes the folder of an empty repository");
  command->add_option("DIR", foundation.folder, "The repository's folder, which must not exist yet")->required();
  command->add_option("--root", foundation.root, "The first root document")->required()->type_name("FILE");
  for (auto& [role, days] : foundation.days) {
    command
        ->add_option(
            "--" + role + "-days", days,
            "For how many days a new document of the role " + role + " is valid, by default " + std::to_string(days))
        ->type_name("N");
  }
  add_signer_options(*command, options->signers);
  command
      ->add_option("--public-key", foundation.public_keys,
                   "A key file after whose name its key is called in messages; may be given again")
      ->allow_extra_args(false)
      ->type_name("FILE");
  return {command, [options](const CommandRun& run) { return init(*options, run); }};
}

}  // namespace ravok
