#include "app/download/installed_repository.hpp"

#include <chrono>
#include <cstdint>
#include <string_view>
#include <utility>

#include "app/brand/brand.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"
#include "domain/limits.hpp"
#include "domain/paths.hpp"
#include "domain/repository_layout.hpp"
#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "platform/snapshot/complete_install.hpp"

namespace ravok {
namespace {

// Every root that a client has missed takes a request. Each is kept, so a client that has missed more goes on with the
// next refresh.
constexpr std::uint64_t root_rotations = 256;

// Each role on the way to a target may take a request. Hashed bins take one role for each level.
constexpr std::uint64_t delegations = 64;

// How long a request for metadata may last.
constexpr std::chrono::seconds request_time(30);

constexpr const char* repair_remedy = "; run the Ravok installer and choose Repair";

Json read_document(const std::filesystem::path& file) {
  const std::string malformed = "Repository record is malformed: " + path_utf8(file);
  try {
    Json document = parse_json(read_file(file, maximum_setup_record_bytes), maximum_setup_record_bytes);
    require(document.is_object() && document.contains("schema_version"), "unsupported_schema", malformed);
    require(is_integer(document.at("schema_version"), 1), "unsupported_schema",
            "Unsupported repository record " + path_utf8(file));
    require(has_exactly(document, {"schema_version", "origin", "ca_bundle"}) && has_text(document, "origin") &&
                has_text(document, "ca_bundle"),
            "unsupported_schema", malformed);
    return document;
  } catch (const Error& error) {
    // A file that cannot be read is not malformed.
    require(error.code != "invalid_json" && error.code != "duplicate_key" && error.code != "depth_limit" &&
                error.code != "invalid_number",
            "unsupported_schema", malformed);
    throw;
  }
}

std::filesystem::path existing_bundle(const std::string& text, const std::filesystem::path& record) {
  std::filesystem::path bundle = path_from_utf8(text);
  require(bundle.is_absolute(), "unsupported_schema", "Repository record is malformed: " + path_utf8(record));
  require(!is_missing(bundle), "ca_bundle",
          "The certificates of the repository are missing: " + text + branded(repair_remedy));
  return bundle;
}

TufTime system_time() { return std::chrono::floor<std::chrono::microseconds>(std::chrono::system_clock::now()); }

TufClient open_client(const std::filesystem::path& trust, HttpsTransport& metadata, HttpsTransport& targets) {
  try {
    return {trust, metadata, targets, installed_tuf_limits(), system_time};
  } catch (const Error& error) {
    require(error.code != "busy", "busy", branded("Another Ravok is looking for updates; try again when it is done"));
    throw;
  }
}

// Requests for metadata that the user can call off. Each may last as long as any other.
class CancellableTransport : public HttpsTransport {
 public:
  CancellableTransport(const RepositoryRecord& record, const std::shared_ptr<HttpsBudget>& budget)
      : HttpsTransport(metadata_address(record.origin), record.ca_bundle, 0, budget), budget_(budget) {}

  TransportResponse get(std::string_view path, std::uint64_t limit) override {
    return asked([&] { return HttpsTransport::get(path, limit); });
  }
  TransportResponse get_component(std::string_view component, std::uint64_t limit) override {
    return asked([&] { return HttpsTransport::get_component(component, limit); });
  }

 private:
  template <typename Request>
  TransportResponse asked(Request request) const {
    budget_->used = 0;
    budget_->limit = tuf_metadata_limit;
    budget_->deadline = std::chrono::steady_clock::now() + request_time;
    try {
      return request();
    } catch (const Error& error) {
      require(error.code != "discovery_timeout", "network", "The repository has not answered in time");
      throw;
    }
  }

  const std::shared_ptr<HttpsBudget> budget_;
};

std::unique_ptr<HttpsTransport> metadata_transport(const RepositoryRecord& record, std::function<bool()> cancelled,
                                                   std::shared_ptr<HttpsBudget> budget) {
  if (budget || !cancelled) {
    return std::make_unique<HttpsTransport>(metadata_address(record.origin), record.ca_bundle, 0, std::move(budget));
  }
  auto own = std::make_shared<HttpsBudget>();
  own->cancel = std::move(cancelled);
  return std::make_unique<CancellableTransport>(record, own);
}

// Nothing of an installation whose setup has not ended is believed.
RepositoryRecord complete_record(const std::filesystem::path& data_root) {
  require_complete_native_install(data_root);
  return installed_repository(data_root);
}

}  // namespace

RepositoryRecord installed_repository(const std::filesystem::path& data_root) {
  const std::filesystem::path file = DataPaths(data_root).repository_record;
  require(!is_missing(file), "not_configured",
          "No repository for updates is recorded in " + path_utf8(data_root) + branded(repair_remedy));
  const Json document = read_document(file);
  RepositoryRecord record;
  record.origin = text_at(document, "origin");
  require_plain_origin(record.origin);
  const std::string& bundle = text_at(document, "ca_bundle");
  if (!bundle.empty()) {
    record.ca_bundle = existing_bundle(bundle, file);
  }
  return record;
}

TufLimits installed_tuf_limits() {
  return {.root_bytes = tuf_root_limit,
          .timestamp_bytes = tuf_timestamp_limit,
          .metadata_bytes = tuf_metadata_limit,
          .root_rotations = root_rotations,
          .delegations = delegations};
}

InstalledRepository::InstalledRepository(const std::filesystem::path& data_root, std::function<bool()> cancelled,
                                         std::shared_ptr<HttpsBudget> budget)
    : record_(complete_record(data_root)),
      metadata_(metadata_transport(record_, std::move(cancelled), std::move(budget))),
      targets_(targets_address(record_.origin), record_.ca_bundle),
      tuf_(open_client(DataPaths(data_root).trust, *metadata_, targets_)) {}

}  // namespace ravok
