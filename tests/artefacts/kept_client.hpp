// What a client does with a data folder and a repository that lie in folders: its steps without a network, and without
// a time that a busy machine could miss.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "app/launcher/launcher_attempt.hpp"
#include "domain/json.hpp"
#include "transport/transport.hpp"
#include "tuf/tuf.hpp"

namespace ravok::testing {

// Serves the folder of a publisher's repository, whose downloads can be resumed and can break.
class KeptRepository : public Transport {
 public:
  // `folder` is that of a publisher.
  explicit KeptRepository(std::filesystem::path folder) : folder_(std::move(folder)) {}

  TransportResponse get(std::string_view path, std::uint64_t limit) override;
  void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                const ProgressCallback& progress) override;
  bool supports_resumption() const override { return true; }
  void download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset, const ProgressCallback& progress,
                     const std::function<void(std::string_view)>& on_bytes,
                     const std::function<void()>& on_restart) override;

  // The connection breaks with "network" once so many bytes of an archive have been sent.
  std::optional<std::uint64_t> breaks_after;
  // How many bytes of targets were sent, and from which place on the last target that is no manifest.
  std::uint64_t sent_bytes = 0;
  std::uint64_t archive_offset = 0;

 private:
  std::filesystem::path folder_;
};

// A client of a data folder's repository, at the present time and with the bounds of an installed client.
class KeptTuf {
 public:
  KeptTuf(const std::filesystem::path& data, Transport& transport);
  TufClient& client() { return client_; }

 private:
  TufClient client_;
};

// Brings the newest launcher of the repository into the store, as a user's update does.
Json stage_launcher(const std::filesystem::path& data, Transport& transport);

// Prepares the repository's bootstrap. Returns what stage_bootstrap_update does.
std::string stage_bootstrap(const std::filesystem::path& data, Transport& transport);

// Starts the launcher of an attempt and waits for its end, however long that takes, so that no limit matters.
LauncherChild start_and_wait(const LauncherProgram& program);

// Tries the candidate out. Returns its exit code; nothing when none waits or it has failed beside a working version.
std::optional<int> try_candidate(const std::filesystem::path& data);

// Applies the bootstrap's update that waits. Returns "none", "postponed", "applied" or "rejected".
std::string apply_bootstrap(const std::filesystem::path& data);

// The build of a role in the store's document, or an empty text.
std::string build_of(const std::filesystem::path& data, const char* role);

}  // namespace ravok::testing
