#include "publisher/repository/repository_check.hpp"

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "app/install/native_package.hpp"
#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/repository_layout.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "platform/file/tree_walk.hpp"
#include "publisher/ca_bundle.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/repository/folder_transport.hpp"
#include "publisher/repository/served_files.hpp"
#include "publisher/repository/target_source.hpp"
#include "publisher/repository/temporary_folder.hpp"
#include "transport/https.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/target_fetch.hpp"

namespace ravok {
namespace {

constexpr const char* published_folder = "public";

bool is_folder(const std::filesystem::path& path) {
  const Result<Status> status = target_status_of(path);
  return status && is_directory(*status);
}

// Keeps what it has fetched once, so that a second look meets the same state of a server that changes meanwhile.
class RememberingTransport : public Transport {
 public:
  explicit RememberingTransport(Transport& server) : server_(server) {}

  TransportResponse get(std::string_view path, std::uint64_t limit) override {
    return remembered("path " + std::string(path), limit, [&] { return server_.get(path, limit); });
  }

  TransportResponse get_component(std::string_view component, std::uint64_t limit) override {
    return remembered("component " + std::string(component), limit,
                      [&] { return server_.get_component(component, limit); });
  }

  void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                const ProgressCallback& progress) override {
    server_.download(path, destination, size, progress);
  }

 private:
  template <typename Fetch>
  const TransportResponse& remembered(const std::string& name, std::uint64_t limit, Fetch fetch) {
    auto answer = answers_.find(name);
    if (answer == answers_.end()) {
      answer = answers_.emplace(name, fetch()).first;
    }
    require(answer->second.body.size() <= limit, "size_limit", "Server sent more than the authenticated size limit");
    return answer->second;
  }

  Transport& server_;
  std::map<std::string, TransportResponse> answers_;
};

class Check {
 public:
  Check(const CheckOptions& options, const ProgressCallback& progress) : options_(options), progress_(progress) {
    result_.at = options.at;
    result_.depth = options.depth;
  }

  void read_metadata(Transport& server) {
    RememberingTransport metadata(server);
    result_.walk = walk_repository(options_.root_text, metadata, options_.limits, [&] { report(progress_, 0, 1); });
    if (result_.works()) {
      refresh_client(metadata);
    }
  }

  // `prefix` leads from where the source looks to the folder of targets.
  void look_at_targets(const TargetSource& source, const std::string& prefix) {
    for (const WalkedTarget& target : result_.walk.targets) {
      if (target.is_found) {
        descriptions_.emplace(target.path, &target.description);
      }
    }
    const std::vector<std::pair<std::string, const WalkedTarget*>> files = files_of_targets();
    for (const auto& [remote, target] : files) {
      result_.target_files += 1;
      result_.target_bytes += length(target->description);
    }
    if (options_.depth == CheckDepth::metadata) {
      return;
    }
    for (const auto& file : files) {
      report(progress_, done_, std::max<std::uint64_t>(result_.target_bytes, 1));
      attempt(*file.second, file.first, [&] { look_at(source, prefix + file.first, *file.second); });
      done_ += length(file.second->description);
    }
  }

  void list_files(const std::filesystem::path& served) {
    if (!result_.walk.complete) {
      return;
    }
    std::set<std::string> targets;
    for (const WalkedTarget& target : result_.walk.targets) {
      targets.insert(remote_name(target));
    }
    ServedFiles found = list_served_files(served, result_.walk, targets);
    result_.is_listed = true;
    result_.superseded = std::move(found.superseded);
    result_.surplus = std::move(found.surplus);
    for (RepositoryFinding& problem : found.problems) {
      result_.walk.problems.push_back(std::move(problem));
    }
  }

  RepositoryCheck take() { return std::move(result_); }

 private:
  std::string remote_name(const WalkedTarget& target) const {
    return remote_target_name(target.path, target.description, result_.walk.consistent_snapshot);
  }

  // The files that clients fetch, with the names under which they are served.
  std::vector<std::pair<std::string, const WalkedTarget*>> files_of_targets() const {
    std::vector<std::pair<std::string, const WalkedTarget*>> files;
    std::set<std::string> names;
    for (const WalkedTarget& target : result_.walk.targets) {
      const std::string name = remote_name(target);
      if (target.is_found && names.insert(name).second) {
        files.emplace_back(name, &target);
      }
    }
    return files;
  }

  // Lets a client judge what the walk found well.
  void refresh_client(Transport& metadata) {
    const TemporaryFolder folder;
    const std::filesystem::path trust = folder.path() / "trust";
    try {
      TufClient::initialize(trust, options_.root_text);
      TufClient(trust, metadata, metadata, options_.limits, [&] { return options_.at; }).refresh();
    } catch (const Error& error) {
      if (is_local_failure(error.code)) {
        throw;
      }
      result_.walk.problems.push_back({error.code, error.what(), "", ""});
    }
  }

  template <typename Work>
  void attempt(const WalkedTarget& target, const std::string& remote, Work work) {
    try {
      work();
    } catch (const Error& error) {
      if (is_local_failure(error.code)) {
        throw;
      }
      result_.walk.problems.push_back(
          {error.code, error.what(), target.role, std::string(repository_targets_folder) + "/" + remote});
    }
  }

  void look_at(const TargetSource& source, const std::string& remote, const WalkedTarget& target) {
    if (is_manifest(target.path, target.description)) {
      const std::string text = source.read(remote, target.description, manifest_limit(target.path));
      ask_for_part(source, remote, target);
      judge_release(target, read_release(target.path, text));
      return;
    }
    if (options_.depth == CheckDepth::quick) {
      source.look(remote, target.description);
      return;
    }
    source.prove(remote, target.description, [&](std::uint64_t done, std::uint64_t) {
      return !progress_ || progress_(std::min(done_ + done, result_.target_bytes), result_.target_bytes);
    });
  }

  // Asks a server once for the end of a file.
  void ask_for_part(const TargetSource& source, const std::string& remote, const WalkedTarget& target) {
    if (!source.resumes || asked_for_part_ || length(target.description) < 2) {
      return;
    }
    asked_for_part_ = true;
    if (!source.resumes(remote, target.description)) {
      result_.walk.notices.push_back(
          {"no_byte_ranges", "The server sends no parts of files, so a download that breaks off begins again", "", ""});
    }
  }

  void judge_release(const WalkedTarget& target, OfferedRelease release) {
    for (const ArtifactDescriptor& artifact : release.artifacts) {
      const auto description = descriptions_.find(artifact.target);
      require(description != descriptions_.end(), "target_not_found",
              target.path + " names a file that is not a target: " + artifact.target);
      const Json& signed_part = *description->second;
      require(length(signed_part) == artifact.length && signed_part.at("hashes").contains("sha256") &&
                  is_text(signed_part.at("hashes").at("sha256"), artifact.sha256),
              "content_mismatch",
              target.path + " names a file that is signed with another length or digest: " + artifact.target);
    }
    result_.releases.push_back(std::move(release));
  }

  const CheckOptions& options_;
  const ProgressCallback& progress_;
  RepositoryCheck result_;
  std::map<std::string, const Json*> descriptions_;  // that clients find, by the targets' paths
  std::uint64_t done_ = 0;
  bool asked_for_part_ = false;
};

}  // namespace

const WalkedRole* RepositoryCheck::first_to_expire() const {
  const auto first = std::ranges::min_element(walk.roles, {}, &WalkedRole::expires);
  return first == walk.roles.end() ? nullptr : &*first;
}

bool RepositoryCheck::works() const {
  const WalkedRole* const first = first_to_expire();
  return walk.problems.empty() && first != nullptr && first->expires > at;
}

std::filesystem::path served_folder(const std::filesystem::path& directory) {
  for (const std::filesystem::path& folder : {directory / published_folder, directory}) {
    if (is_folder(folder / repository_metadata_folder)) {
      return folder;
    }
  }
  fail("unsafe_path", "There is no repository in " + path_utf8(directory) + ": it holds neither " +
                          std::string(published_folder) + "/" + repository_metadata_folder + " nor " +
                          repository_metadata_folder);
}

std::string first_root_in(const std::filesystem::path& served) {
  const std::filesystem::path folder = served / repository_metadata_folder;
  std::optional<std::uint64_t> first;
  for (const std::string& name : names_in(folder, maximum_tree_entries)) {
    if (const std::optional<std::uint64_t> version = version_in(name, "root")) {
      first = std::min(first.value_or(*version), *version);
    }
  }
  require(first.has_value(), "missing_root", "There is no root document in " + path_utf8(folder));
  return FolderTransport(folder).get(std::to_string(*first) + ".root.json", tuf_root_limit).body;
}

RepositoryCheck check_folder(const std::filesystem::path& served, const CheckOptions& options,
                             const ProgressCallback& progress) {
  Check check(options, progress);
  FolderTransport metadata(served / repository_metadata_folder);
  FolderTransport folder(served);
  check.read_metadata(metadata);
  check.look_at_targets(targets_in_folder(folder), std::string(repository_targets_folder) + "/");
  check.list_files(served);
  return check.take();
}

RepositoryCheck check_server(const std::string& origin, const std::filesystem::path& ca_bundle,
                             const CheckOptions& options, const ProgressCallback& progress) {
  require_plain_origin(origin);
  if (!ca_bundle.empty()) {
    about(ca_bundle, [&] { require_certificates(read_file(ca_bundle, package_limits::ca_bundle)); });
  }
  Check check(options, progress);
  HttpsTransport metadata(metadata_address(origin), ca_bundle);
  HttpsTransport targets(targets_address(origin), ca_bundle);
  check.read_metadata(metadata);
  const TemporaryFolder workshop;
  check.look_at_targets(targets_of_server(targets, workshop.path()), "");
  return check.take();
}

}  // namespace ravok
