#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "domain/paths.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/repository_results.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/signer_options.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/repository/publish_release.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

struct ReleaseOptions {
  RepositoryRelease release;
  std::vector<std::string> manifests;
  SignerOptions signers;
};

ReleaseInput read_input(const std::string& text) {
  const std::size_t separator = text.find('=');
  if (separator == std::string::npos) {
    return {path_from_utf8(text), ""};
  }
  require(separator > 0 && separator + 1 < text.size(), "usage", "A manifest is named as FILE or TARGET=FILE: " + text);
  validate_relative_path(text.substr(0, separator), true);
  return {path_from_utf8(text.substr(separator + 1)), text.substr(0, separator)};
}

Json build_document(const ReleasedBuild& build) {
  Json document = {{"build", build_text(build)}, {"target", build.target},  {"build_id", build.build_id},
                   {"platform", build.platform}, {"is_new", build.is_new},  {"manifest_sha256", build.manifest_sha256},
                   {"files", build.files},       {"missing", build.missing}};
  if (!build.game_id.empty()) {
    document["game_id"] = build.game_id;
  }
  return document;
}

CommandResult publish(ReleaseOptions& options, const CommandRun& run) {
  options.signers.cancelled = run.cancelled;
  judge_options([&] {
    for (const std::string& text : options.manifests) {
      options.release.manifests.push_back(read_input(text));
    }
    if (options.release.days) {
      require_days(*options.release.days);
    }
    require_signer_options(options.signers);
  });
  const std::vector<Signer> signers = open_signers(options.signers);
  ReleaseOutcome outcome;
  {
    ProgressLine line("Copying", !run.json);
    outcome =
        publish_release(options.release, signers, present_tuf_time(), [&](std::uint64_t done, std::uint64_t total) {
          line.show(done, total);
          return !run.cancelled();
        });
  }
  CommandResult result;
  result.document["builds"] = Json::array();
  for (const ReleasedBuild& build : outcome.builds) {
    result.lines.push_back((build.is_new ? "Released: " : "There already: ") + build_text(build) + ", as " +
                           build.target);
    for (const std::string& file : build.missing) {
      result.lines.push_back("Left for later, since it does not lie beside the manifest: " + file);
    }
    result.document["builds"].push_back(build_document(build));
  }
  tell_outcome(result, options.release.folder, outcome.repository);
  return result;
}

}  // namespace

PublishCommand add_repository_release_command(CLI::App& repository) {
  const auto options = std::make_shared<ReleaseOptions>();
  CLI::App* const command = repository.add_subcommand("release", "Puts new builds into the repository");
  add_repository_folder(*command, options->release.folder);
  command
      ->add_option("--manifest", options->manifests,
                   "A manifest, with the files that it names beside it; may be given again. For a game, TARGET=FILE "
                   "chooses the manifest's path in the repository, otherwise games/GAME/PLATFORM.manifest.json")
      ->required()
      ->allow_extra_args(false)
      ->type_name("[TARGET=]FILE");
  add_days_option(*command, options->release.days);
  add_signer_options(*command, options->signers);
  return {command, [options](const CommandRun& run) { return publish(*options, run); }};
}

}  // namespace ravok
