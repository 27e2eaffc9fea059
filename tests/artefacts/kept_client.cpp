#include "artefacts/kept_client.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <thread>

#include "app/download/installed_repository.hpp"
#include "app/launcher/bootstrap_apply.hpp"
#include "app/launcher/bootstrap_update.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/repository_layout.hpp"
#include "publisher/repository/folder_transport.hpp"
#include "publisher/repository/repository_time.hpp"
#include "support/bytes_of.hpp"
#include "support/patient_start.hpp"

namespace ravok::testing {
namespace {

constexpr std::size_t piece = 256;

bool is_manifest(std::string_view path) { return path.ends_with(".manifest.json"); }

}  // namespace

TransportResponse KeptRepository::get(std::string_view path, std::uint64_t limit) {
  return FolderTransport(folder_ / "public" / repository_metadata_folder).get(path, limit);
}

void KeptRepository::download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                              const ProgressCallback& progress) {
  FolderTransport(folder_ / "public" / repository_targets_folder).download(path, destination, size, progress);
  sent_bytes += size;
}

void KeptRepository::download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset,
                                   const ProgressCallback&, const std::function<void(std::string_view)>& on_bytes,
                                   const std::function<void()>&) {
  const std::string content = bytes_of(folder_ / "public" / repository_targets_folder / path);
  if (!is_manifest(path)) {
    archive_offset = offset;
  }
  for (std::size_t place = offset; place < content.size(); place += piece) {
    require(is_manifest(path) || !breaks_after || place < *breaks_after, "network", "The connection broke");
    const std::string bytes = content.substr(place, piece);
    file.write(bytes);
    on_bytes(bytes);
    sent_bytes += bytes.size();
  }
}

KeptTuf::KeptTuf(const std::filesystem::path& data, Transport& transport)
    : client_(DataPaths(data).trust, transport, transport, installed_tuf_limits(), present_tuf_time) {}

Json stage_launcher(const std::filesystem::path& data, Transport& transport) {
  KeptTuf tuf(data, transport);
  return LauncherStore(data).stage(tuf.client(), {}, {}, false);
}

std::string stage_bootstrap(const std::filesystem::path& data, Transport& transport) {
  KeptTuf tuf(data, transport);
  return stage_bootstrap_update(data, tuf.client(), {});
}

LauncherChild start_and_wait(const LauncherProgram& program) {
  LauncherChild child = start_launcher(program);
  while (!child.poll()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return child;
}

std::optional<int> try_candidate(const std::filesystem::path& data) {
  const LauncherStore store(data);
  return run_launcher_attempt(store, {"cli", {"self", "status"}, std::chrono::milliseconds(30'000), {}},
                              start_and_wait);
}

std::string apply_bootstrap(const std::filesystem::path& data) {
  constexpr const char* words[] = {"none", "postponed", "applied", "rejected"};
  return words[static_cast<int>(apply_bootstrap_update(data, endless_trial_clock()).end)];
}

std::string build_of(const std::filesystem::path& data, const char* role) {
  Json entry = LauncherStore::existing(data)->load().at(role);
  if (entry.is_object() && entry.contains("reference")) {
    entry = Json(entry.at("reference"));
  }
  return entry.is_null() ? "" : text_at(entry, "build_id");
}

}  // namespace ravok::testing
