#include <memory>
#include <string>
#include <vector>

#include "domain/paths.hpp"
#include "publisher/commands/commands.hpp"
#include "publisher/commands/repository_results.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/repository/repository_status.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

std::string listed(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : ", ") + name;
  }
  return text.empty() ? "nobody" : text;
}

std::string days_text(std::int64_t days) {
  if (days < 0) {
    return "expired";
  }
  return std::to_string(days) + (days == 1 ? " day left" : " days left");
}

std::string role_line(const RoleStatus& role) {
  std::vector<std::string> names;
  for (const KeyStatus& key : role.keys) {
    names.push_back(key.name);
  }
  std::string line = role.role + ": ";
  line += role.exists ? "version " + std::to_string(role.version) + " until " + tuf_day_text(role.expires) + ", " +
                            days_text(role.days_left)
                      : "not published yet";
  line += "; " + std::to_string(role.threshold) + " of " + std::to_string(names.size()) +
          (names.size() == 1 ? " key signs: " : " keys sign: ") + listed(names);
  return role.problem.empty() ? line : line + "; clients would refuse it: " + role.problem;
}

std::string signature_text(const SignatureNeed& need, bool is_root) {
  const std::string whose = !is_root ? "" : need.by_former_root ? "of the present root's keys " : "of its own keys ";
  return whose + std::to_string(need.signed_by.size()) + " of " + std::to_string(need.threshold) + " signatures, by " +
         listed(need.signed_by) + (need.is_met() ? "" : "; missing: " + listed(need.waiting_for));
}

void tell_draft(CommandResult& result, const std::filesystem::path& folder, const DraftStatus& draft) {
  result.lines.push_back("A draft of '" + draft.action + "' waits:");
  for (const DraftDocument& document : draft.documents) {
    if (!document.is_made) {
      result.lines.push_back("  " + document.role + ": made when the one before is signed; " +
                             signature_text(document.signatures.back(), false));
      continue;
    }
    for (const SignatureNeed& need : document.signatures) {
      result.lines.push_back("  " + document.role + " " + std::to_string(document.version) + " until " +
                             tuf_day_text(*document.expires) + ": " +
                             signature_text(need, document.signatures.size() > 1));
    }
  }
  if (draft.is_stale) {
    result.lines.push_back(
        "The repository has changed since; remove the draft with: ravok-publish repository discard " +
        path_utf8(folder));
  } else {
    result.lines.push_back((draft.needs.empty()
                                ? "It has all signatures; publish it with: ravok-publish repository sign "
                                : "The next one signs with: ravok-publish repository sign ") +
                           path_utf8(folder) + (draft.needs.empty() ? "" : " --key FILE"));
  }
}

Json role_document(const RoleStatus& role) {
  Json keys = Json::array();
  for (const KeyStatus& key : role.keys) {
    keys.push_back({{"key_id", key.id}, {"name", json_text(key.name)}, {"scheme", key.scheme}});
  }
  Json document = {{"threshold", role.threshold}, {"keys", std::move(keys)}, {"document", nullptr}};
  if (role.exists) {
    document["document"] = {{"version", role.version},
                            {"expires", tuf_time_text(role.expires)},
                            {"days_left", role.days_left},
                            {"signed_by", role.signed_by},
                            {"problem", role.problem.empty() ? Json() : Json(role.problem)}};
  }
  return document;
}

Json draft_document(const DraftStatus& draft) {
  Json documents = Json::array();
  for (const DraftDocument& one : draft.documents) {
    documents.push_back({{"role", one.role},
                         {"version", one.is_made ? Json(one.version) : Json()},
                         {"expires", one.expires ? Json(tuf_time_text(*one.expires)) : Json()},
                         {"signatures", needs_document(one.signatures)}});
  }
  return {{"action", draft.action},
          {"stale", draft.is_stale},
          {"documents", std::move(documents)},
          {"waiting", needs_document(draft.needs)}};
}

CommandResult tell(const std::filesystem::path& folder) {
  const RepositoryStatus status = repository_status(folder, present_tuf_time());
  CommandResult result;
  result.document = {{"repository", json_text(path_utf8(folder))},
                     {"roles", Json::object()},
                     {"draft", nullptr},
                     {"interrupted", status.is_interrupted},
                     {"warnings", status.warnings}};
  for (const RoleStatus& role : status.roles) {
    result.lines.push_back(role_line(role));
    result.document["roles"][role.role] = role_document(role);
  }
  if (status.is_interrupted) {
    result.lines.emplace_back(
        "A publication is under way or was broken off; the next command that changes the repository finishes it");
  }
  if (status.draft) {
    tell_draft(result, folder, *status.draft);
    result.document["draft"] = draft_document(*status.draft);
  }
  for (const std::string& warning : status.warnings) {
    result.lines.push_back("Warning: " + warning);
  }
  return result;
}

}  // namespace

PublishCommand add_repository_status_command(CLI::App& repository) {
  const auto folder = std::make_shared<std::filesystem::path>();
  CLI::App* const command =
      repository.add_subcommand("status", "Tells who signs what and until when, and whose signatures are missing");
  add_repository_folder(*command, *folder);
  return {command, [folder](const CommandRun&) { return tell(*folder); }};
}

}  // namespace ravok
