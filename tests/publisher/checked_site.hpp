// A small repository with releases, as a server shows it, for the tests of its check.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "domain/crypto.hpp"
#include "domain/launcher_contract.hpp"
#include "publisher/repository/repository_check.hpp"
#include "support/launcher_builder.hpp"
#include "support/manifest_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/tuf_repository.hpp"

namespace ravok::testing {

// The launcher of one platform, and a game that another role describes. The first to expire is the timestamp, and last
// of all the root.
struct CheckedSite {
  CheckedSite() {
    repository.timestamp().expires = "2030-02-01T00:00:00Z";
    repository.snapshot().expires = "2030-03-01T00:00:00Z";
    repository.targets().expires = "2031-01-01T00:00:00Z";
    repository.targets().add("launcher-1.tar.zst", launcher_archive);
    repository.targets().add(launcher_path, launcher(launcher_archive).dump());
    repository.delegate("targets", {.name = "games", .paths = {"games/*"}}).expires = "2032-01-01T00:00:00Z";
    repository.role("games").add("games/one.tar.zst", game_archive);
    repository.role("games").add(game_path, game(game_archive).dump());
  }

  static Json with_archive(Json document, const std::string& target, const std::string& archive) {
    document["archive"]["target"] = target;
    document["archive"]["length"] = archive.size();
    document["archive"]["sha256"] = digest(archive, "sha256");
    return document;
  }

  static Json launcher(const std::string& archive) {
    return with_archive(as_launcher(manifest_document({{.path = "bin/window", .mode = 0755}})), "launcher-1.tar.zst",
                        archive);
  }

  static Json game(const std::string& archive) {
    Json document = manifest_document();
    document["minimum_launcher"] = 1;
    document["game_id"] = "one";
    document["display_name"] = "Game One";
    return with_archive(document, "games/one.tar.zst", archive);
  }

  // Publishes, and puts everything where a server would show it.
  void publish() {
    repository.publish();
    write();
  }
  void write() const { repository.write(served / "tuf"); }

  std::string metadata(const std::string& role) const { return "tuf/metadata/" + repository.file_of(role); }

  // The file of a target below what is served.
  std::string target(const std::string& path) const {
    for (const auto& [name, bytes] : repository.target_files()) {
      const std::size_t end = path.find_last_of('/') + 1;
      if (name.starts_with(path.substr(0, end)) && name.ends_with("." + path.substr(end))) {
        return "tuf/targets/" + name;
      }
    }
    return "";
  }

  void remove(const std::string& file) const { std::filesystem::remove(served / file); }
  void replace(const std::string& file, const std::string& content) const { root.write("public/" + file, content); }

  CheckOptions options(const std::string& at = "2030-01-01T00:00:00Z", CheckDepth depth = CheckDepth::whole) const {
    return {.root_text = repository.root_text(), .at = parse_tuf_time(at), .depth = depth};
  }

  RepositoryCheck check(const CheckOptions& wanted) const { return check_folder(served, wanted, {}); }
  RepositoryCheck check() const { return check(options()); }

  const std::string launcher_path = launcher_manifest_target("linux-x86_64");
  const std::string game_path = "games/one.manifest.json";
  const std::string launcher_archive = std::string(5'000, 'l');
  const std::string game_archive = std::string(7'000, 'g');
  const TemporaryRoot root;
  const std::filesystem::path served = root / "public";
  TufRepository repository;
};

// Findings as texts: role, file, code and message.
inline std::vector<std::string> texts_of(const std::vector<RepositoryFinding>& findings) {
  std::vector<std::string> texts;
  for (const RepositoryFinding& finding : findings) {
    texts.push_back(finding.role + " | " + finding.file + " | " + finding.code + " | " + finding.message);
  }
  return texts;
}

}  // namespace ravok::testing
