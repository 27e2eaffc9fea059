#include "publisher/commands/repository_results.hpp"

#include "domain/paths.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/repository/repository_folder.hpp"
#include "publisher/repository/repository_time.hpp"
#include "publisher/repository/upload_list.hpp"

namespace ravok {
namespace {

Json signatures_document(const std::vector<MadeSignature>& signatures) {
  Json list = Json::array();
  for (const MadeSignature& signature : signatures) {
    list.push_back({{"role", signature.role}, {"key_id", signature.key_id}, {"name", signature.name}});
  }
  return list;
}

Json roles_document(const RepositoryState& state) {
  Json roles = Json::object();
  for (const char* const role : repository_roles) {
    const RoleDocument& document = state.role(role);
    if (document.exists()) {
      roles[role] = {{"version", document.version}, {"expires", tuf_time_text(document.expires())}};
    }
  }
  return roles;
}

std::string published_line(const RepositoryOutcome& outcome) {
  std::string line;
  for (const std::string& role : outcome.roles) {
    const RoleDocument& document = outcome.state.role(role);
    line += (line.empty() ? "Published: " : ", ") + role + " " + std::to_string(document.version) + " until " +
            tuf_day_text(document.expires());
  }
  return line;
}

Json uploads(const std::filesystem::path& list) {
  Json files = Json::array();
  for (const std::string& line : upload_lines(list)) {
    files.push_back(json_text(line));
  }
  return files;
}

}  // namespace

Json needs_document(const std::vector<SignatureNeed>& needs) {
  Json list = Json::array();
  const auto shown = [](const std::vector<std::string>& names) {
    Json texts = Json::array();
    for (const std::string& name : names) {
      texts.push_back(json_text(name));
    }
    return texts;
  };
  for (const SignatureNeed& need : needs) {
    list.push_back({{"role", need.role},
                    {"by_former_root", need.by_former_root},
                    {"threshold", need.threshold},
                    {"signed_by", shown(need.signed_by)},
                    {"waiting_for", shown(need.waiting_for)}});
  }
  return list;
}

void add_repository_folder(CLI::App& command, std::filesystem::path& folder) {
  command.add_option("DIR", folder, "The repository's folder")->required();
}

void add_days_option(CLI::App& command, std::optional<std::uint64_t>& days) {
  command.add_option("--days", days, "For how many days the new documents are valid; else as init was told")
      ->type_name("N");
}

void tell_outcome(CommandResult& result, const std::filesystem::path& folder, const RepositoryOutcome& outcome) {
  result.complaints.insert(result.complaints.end(), outcome.warnings.begin(), outcome.warnings.end());
  if (outcome.finished_former) {
    result.lines.push_back("A publication that had been broken off was finished");
  }
  if (outcome.published) {
    result.lines.push_back(published_line(outcome));
  } else if (!outcome.needs.empty()) {
    result.lines.push_back("Nothing is published yet: " + needs_text(outcome.needs));
    result.lines.push_back("The next one signs with: ravok-publish repository sign " + path_utf8(folder) +
                           " --key FILE");
  }
  const std::filesystem::path list = folder / "upload.txt";
  const Json files = uploads(list);
  if (outcome.published || outcome.finished_former) {
    result.lines.push_back("To upload, in the order of " + path_utf8(list) + ": " + std::to_string(files.size()) +
                           (files.size() == 1 ? " file" : " files"));
  }
  result.document["repository"] = json_text(path_utf8(folder));
  result.document["published"] = outcome.published;
  result.document["finished_former"] = outcome.finished_former;
  result.document["documents"] = roles_document(outcome.state);
  result.document["signatures"] = signatures_document(outcome.signatures);
  result.document["waiting"] = needs_document(outcome.needs);
  result.document["upload"] = {{"list", json_text(path_utf8(list))}, {"files", files}};
  result.document["warnings"] = outcome.warnings;
}

}  // namespace ravok
