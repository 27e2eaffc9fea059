#include "publisher/commands/check_report.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "domain/display_text.hpp"
#include "publisher/commands/results.hpp"
#include "publisher/commands/terminal.hpp"
#include "publisher/commands/time_left.hpp"
#include "publisher/repository/repository_time.hpp"

namespace ravok {
namespace {

// How many lines tell of roles, files or notices of one kind.
constexpr std::size_t most_lines = 20;

std::uint64_t length_of(const std::vector<ServedFile>& files) {
  std::uint64_t length = 0;
  for (const ServedFile& file : files) {
    length += file.length;
  }
  return length;
}

// Adds the first lines of many, and how many there are beside them.
void add_lines(std::vector<std::string>& lines, const std::vector<std::string>& more, const std::string& one) {
  lines.insert(lines.end(), more.begin(),
               more.begin() + static_cast<std::ptrdiff_t>(std::min(more.size(), most_lines)));
  if (more.size() > most_lines) {
    lines.push_back("  and " + shown_count(more.size() - most_lines, one) + " more");
  }
}

std::string role_line(const WalkedRole& role, TufTime at) {
  return "  " + role.name + ": version " + std::to_string(role.version) + ", until " + tuf_time_text(role.expires) +
         " (" + time_left(role.expires, at) + "), " + shown_size(role.length);
}

std::string targets_line(const RepositoryCheck& check) {
  const std::string what = check.depth == CheckDepth::metadata ? "not looked at"
                           : check.depth == CheckDepth::quick  ? "looked at by their lengths"
                                                               : "read and compared with their digests";
  return "Targets: " + shown_count(check.target_files, "file") + ", " + shown_size(check.target_bytes) + ", " + what;
}

std::string release_line(const OfferedRelease& release) {
  return "Release: " + release.kind + (release.game_id.empty() ? "" : " " + release.game_id) + " " + release.build_id +
         " for " + release.platform + " (" + release.manifest + ")";
}

void add_files(std::vector<std::string>& lines, const std::string& heading, const std::vector<ServedFile>& files) {
  if (files.empty()) {
    return;
  }
  lines.push_back(heading + ": " + shown_count(files.size(), "file") + ", " + shown_size(length_of(files)));
  std::vector<std::string> names;
  for (const ServedFile& file : files) {
    names.push_back("  " + file.path);
  }
  add_lines(lines, names, "file");
}

// Returns what a finding is about, as far as that is known, for the beginning of a message.
std::string subject_of(const RepositoryFinding& finding) {
  if (finding.role.empty() && finding.file.empty()) {
    return "";
  }
  if (finding.role.empty() || finding.file.empty()) {
    return (finding.role.empty() ? finding.file : finding.role) + ": ";
  }
  return finding.role + ", " + finding.file + ": ";
}

Json described(const RepositoryFinding& finding) {
  return {{"code", finding.code},
          {"message", json_text(finding.message)},
          {"role", json_text(finding.role)},
          {"file", json_text(finding.file)}};
}

Json described(const std::vector<RepositoryFinding>& findings) {
  Json list = Json::array();
  for (const RepositoryFinding& finding : findings) {
    list.push_back(described(finding));
  }
  return list;
}

Json described(const std::vector<ServedFile>& files) {
  Json list = Json::array();
  for (const ServedFile& file : files) {
    list.push_back({{"path", json_text(file.path)}, {"length", file.length}});
  }
  return list;
}

Json document_of(const std::string& place, const RepositoryCheck& check) {
  Json roles = Json::array();
  for (const WalkedRole& role : check.walk.roles) {
    roles.push_back({{"role", json_text(role.name)},
                     {"file", json_text(role.file)},
                     {"version", role.version},
                     {"length", role.length},
                     {"expires", tuf_time_text(role.expires)},
                     {"days_left", days_left(role.expires, check.at)},
                     {"expired", role.expires <= check.at}});
  }
  Json releases = Json::array();
  for (const OfferedRelease& release : check.releases) {
    releases.push_back({{"manifest", json_text(release.manifest)},
                        {"kind", release.kind},
                        {"build_id", release.build_id},
                        {"platform", release.platform}});
    if (!release.game_id.empty()) {
      releases.back()["game_id"] = release.game_id;
    }
  }
  const WalkedRole* const first = check.first_to_expire();
  return {{"place", json_text(place)},
          {"at", tuf_time_text(check.at)},
          {"works", check.works()},
          {"works_until", first != nullptr ? Json(tuf_time_text(first->expires)) : Json()},
          {"first_to_expire", first != nullptr ? Json(json_text(first->name)) : Json()},
          {"first_root", check.walk.first_root},
          {"newest_root", check.walk.newest_root},
          {"roles", std::move(roles)},
          {"targets", {{"files", check.target_files}, {"length", check.target_bytes}}},
          {"releases", std::move(releases)},
          {"superseded", check.is_listed ? described(check.superseded) : Json()},
          {"surplus", check.is_listed ? described(check.surplus) : Json()},
          {"problems", described(check.walk.problems)},
          {"notices", described(check.walk.notices)}};
}

std::vector<std::string> lines_of(const std::string& place, const RepositoryCheck& check) {
  std::vector<std::string> lines = {"Repository: " + place + ", as clients with root version " +
                                    std::to_string(check.walk.first_root) + " find it at " + tuf_time_text(check.at)};
  std::vector<std::string> roles;
  for (const WalkedRole& role : check.walk.roles) {
    roles.push_back(role_line(role, check.at));
  }
  add_lines(lines, roles, "role");
  if (check.walk.complete) {
    lines.push_back(targets_line(check));
  }
  std::vector<std::string> releases;
  for (const OfferedRelease& release : check.releases) {
    releases.push_back(release_line(release));
  }
  add_lines(lines, releases, "release");
  add_files(lines, "Superseded by newer versions", check.superseded);
  add_files(lines, "Surplus, asked for by no client", check.surplus);
  std::vector<std::string> notices;
  for (const RepositoryFinding& notice : check.walk.notices) {
    notices.push_back("Notice: " + subject_of(notice) + notice.message);
  }
  add_lines(lines, notices, "notice");
  if (check.works()) {
    const WalkedRole& first = *check.first_to_expire();
    lines.push_back("Clients can work until " + tuf_time_text(first.expires) + " (" +
                    time_left(first.expires, check.at) + "), when " + first.name + " expires");
  }
  return lines;
}

std::vector<std::string> complaints_of(const RepositoryCheck& check) {
  std::vector<std::string> complaints;
  for (const RepositoryFinding& problem : check.walk.problems) {
    complaints.push_back("A client fails: " + subject_of(problem) + problem.message + " (" + problem.code + ")");
  }
  for (const WalkedRole& role : check.walk.roles) {
    if (role.expires <= check.at) {
      complaints.push_back("A client fails: " + role.name + " expires at " + tuf_time_text(role.expires) +
                           " (expired_metadata)");
    }
  }
  return complaints;
}

}  // namespace

void tell_check(const std::string& place, const RepositoryCheck& check, CommandResult& result) {
  const std::vector<std::string> lines = lines_of(place, check);
  result.lines.insert(result.lines.end(), lines.begin(), lines.end());
  result.document["repository"] = document_of(place, check);
  const std::vector<std::string> complaints = complaints_of(check);
  add_lines(result.complaints, complaints, "failure");
  result.failed = result.failed || !check.works();
}

}  // namespace ravok
