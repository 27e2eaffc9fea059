#include "publisher/repository/target_source.hpp"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "platform/file/allocated_file.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/target_download.hpp"

namespace ravok {
namespace {

constexpr const char* wrong_length = "Target length does not match signed metadata";
constexpr const char* wrong_hash = "Target hash does not match signed metadata";

void require_readable(const Json& target, std::uint64_t limit) {
  require(length(target) <= limit, "size_limit", "The file is longer than the client reads");
}

// Opens the file of a target whose length is right.
Handle open_target(const FolderTransport& folder, const std::string& remote, const Json& target) {
  std::optional<Handle> file = folder.open(remote);
  require(file.has_value(), "http_status", "The file is missing");
  const Result<Status> status = status_of(file->get());
  require(status && status->size == length(target), "length_mismatch", wrong_length);
  return *std::move(file);
}

void prove_in_folder(const FolderTransport& folder, const std::string& remote, const Json& target,
                     const ProgressCallback& progress) {
  for (const auto& [algorithm, value] : target.at("hashes").items()) {
    const Handle file = open_target(folder, remote, target);
    require(is_text(value, FileDigester(algorithm).digest(file.get(), progress)), "hash_mismatch", wrong_hash);
  }
}

std::string read_in_folder(FolderTransport& folder, const std::string& remote, const Json& target,
                           std::uint64_t limit) {
  require_readable(target, limit);
  const TransportResponse answer = folder.get(remote, length(target));
  require(answer.status == 200, "http_status", "The file is missing");
  require(answer.body.size() == length(target), "length_mismatch", wrong_length);
  for (const auto& [algorithm, value] : target.at("hashes").items()) {
    require(is_text(value, digest(answer.body, algorithm)), "hash_mismatch", wrong_hash);
  }
  return answer.body;
}

// A file that is fetched from a server, for as long as the object lives.
class Fetched {
 public:
  explicit Fetched(const std::filesystem::path& workshop) : path_(workshop / random_id()) {}
  ~Fetched() { os::remove(path_); }
  Fetched(const Fetched&) = delete;
  Fetched& operator=(const Fetched&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Ends a download of which enough has come.
struct Enough {};

void look_at_server(Transport& server, const std::filesystem::path& workshop, const std::string& remote,
                    const Json& target) {
  AllocatedFile file(workshop / random_id(), length(target), {});
  try {
    server.download_into(remote, file, 0, {}, [](std::string_view) { throw Enough(); }, {});
  } catch (const Enough&) {
    // The server has admitted to the signed length before its first byte.
  }
}

void prove_of_server(Transport& server, const std::filesystem::path& file, const std::string& remote,
                     const Json& target, const ProgressCallback& progress) {
  server.download(remote, file, length(target), progress);
  verify_target_file(file, target, {});
}

bool resumes_at_server(Transport& server, const std::filesystem::path& workshop, const std::string& remote,
                       const Json& target) {
  const std::uint64_t whole = length(target);
  AllocatedFile file(workshop / random_id(), whole, {});
  for (std::uint64_t missing = whole - 1; missing > 0;) {
    const std::string zeros(static_cast<std::size_t>(std::min<std::uint64_t>(missing, 65'536)), '\0');
    file.write(zeros);
    missing -= zeros.size();
  }
  bool restarted = false;
  server.download_into(remote, file, whole - 1, {}, {}, [&] { restarted = true; });
  return !restarted;
}

}  // namespace

TargetSource targets_in_folder(FolderTransport& folder) {
  TargetSource source;
  source.look = [&folder](const std::string& remote, const Json& target) { open_target(folder, remote, target); };
  source.prove = [&folder](const std::string& remote, const Json& target, const ProgressCallback& progress) {
    prove_in_folder(folder, remote, target, progress);
  };
  source.read = [&folder](const std::string& remote, const Json& target, std::uint64_t limit) {
    return read_in_folder(folder, remote, target, limit);
  };
  return source;
}

TargetSource targets_of_server(Transport& server, const std::filesystem::path& workshop) {
  TargetSource source;
  source.look = [&server, workshop](const std::string& remote, const Json& target) {
    look_at_server(server, workshop, remote, target);
  };
  source.prove = [&server, workshop](const std::string& remote, const Json& target, const ProgressCallback& progress) {
    const Fetched file(workshop);
    prove_of_server(server, file.path(), remote, target, progress);
  };
  source.read = [&server, workshop](const std::string& remote, const Json& target, std::uint64_t limit) {
    require_readable(target, limit);
    const Fetched file(workshop);
    prove_of_server(server, file.path(), remote, target, {});
    return read_file(file.path(), limit);
  };
  source.resumes = [&server, workshop](const std::string& remote, const Json& target) {
    return resumes_at_server(server, workshop, remote, target);
  };
  return source;
}

}  // namespace ravok
