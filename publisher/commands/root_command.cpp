#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "domain/paths.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/signer_options.hpp"
#include "publisher/publish_root.hpp"

namespace ravok {
namespace {

void add_role(CLI::App& command, const std::string& role, const std::string& keys, RolePublication& publication) {
  command.add_option("--" + role, publication.keys, keys)->required()->allow_extra_args(false)->type_name("FILE");
  command
      .add_option("--" + role + "-threshold", publication.threshold,
                  "How many keys of the role " + role + " must sign, by default 1")
      ->type_name("N");
}

CommandResult publish(RootPublication& publication, const CommandRun& run) {
  publication.signing.cancelled = run.cancelled;
  judge_options([&] {
    require_options(publication);
    require_signer_options(publication.signing);
  });
  const PublishedRoot published = publish_root(publication);
  CommandResult result;
  result.lines = {"Root with " + std::to_string(published.signatures) +
                  (published.signatures == 1 ? " signature: " : " signatures: ") + path_utf8(published.file)};
  if (run.json) {
    result.document = {{"root", described_file(published.file)}, {"signatures", published.signatures}};
  }
  return result;
}

}  // namespace

PublishCommand add_root_command(CLI::App& program) {
  const auto publication = std::make_shared<RootPublication>();
  CLI::App* const command = program.add_subcommand("root", "Makes and signs the first root document of a repository");
  command->add_option("FILE", publication->output, "Where to write the document")->required();
  command->add_option("--expires", publication->expires, "When it expires, such as 2030-01-31T00:00:00Z")
      ->required()
      ->type_name("TIME");
  add_role(*command, "root", "A key file of the role root, private ones to sign with; may be given again",
           publication->root);
  add_role(*command, "timestamp", "A key file of the role timestamp; may be given again", publication->timestamp);
  add_role(*command, "snapshot", "A key file of the role snapshot; may be given again", publication->snapshot);
  add_role(*command, "targets", "A key file of the role targets; may be given again", publication->targets);
  add_signer_options(*command, publication->signing);
  return {command, [publication](const CommandRun& run) { return publish(*publication, run); }};
}

}  // namespace ravok
