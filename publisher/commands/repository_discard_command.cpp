#include <filesystem>
#include <memory>

#include "publisher/commands/commands.hpp"
#include "publisher/commands/repository_results.hpp"
#include "publisher/repository/discard_draft.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

CommandResult discard(const std::filesystem::path& folder) {
  const DiscardOutcome outcome = discard_draft(folder, present_tuf_time());
  CommandResult result;
  if (!outcome.action.empty()) {
    result.lines = {"Discarded: the draft of '" + outcome.action + "'"};
  } else if (!outcome.repository.finished_former) {
    result.lines = {"There was no draft"};
  }
  result.document["discarded"] = outcome.action.empty() ? Json() : Json(outcome.action);
  tell_outcome(result, folder, outcome.repository);
  return result;
}

}  // namespace

PublishCommand add_repository_discard_command(CLI::App& repository) {
  const auto folder = std::make_shared<std::filesystem::path>();
  CLI::App* const command = repository.add_subcommand("discard", "Removes a draft that waits for signatures");
  add_repository_folder(*command, *folder);
  return {command, [folder](const CommandRun&) { return discard(*folder); }};
}

}  // namespace ravok
