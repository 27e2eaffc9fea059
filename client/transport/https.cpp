#include "transport/https.hpp"

#include <utility>

#include <curl/curl.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/repository_layout.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/status.hpp"
#include "platform/process/process_operations.hpp"
#include "transport/https_request.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t maximum_rate = 1'073'741'824;
constexpr std::size_t maximum_component_bytes = 8192;
constexpr std::size_t maximum_document_bytes = 4096;
constexpr std::uint64_t maximum_upload_bytes = 104'857'600;
constexpr std::uint64_t maximum_upload_answer_bytes = 16'384;
constexpr std::size_t token_characters = 64;
constexpr long whole_file_status = 200;

// When it starts, the library opens a file that this variable names, and writes the keys of all connections to it.
CURLcode start_library() {
  return os::remove_variable("SSLKEYLOGFILE") ? curl_global_init(CURL_GLOBAL_ALL) : CURLE_FAILED_INIT;
}

void require_library() {
  static const CURLcode started = start_library();
  require(started == CURLE_OK, "transport", "Cannot initialize HTTPS library");
}

void require_memory_limit(std::uint64_t limit) {
  require(limit <= maximum_memory_bytes, "size_limit", "In-memory response limit exceeds 16 MiB");
}

// A transfer into a file from the byte at `offset` on.
Transfer file_transfer(AllocatedFile& file, std::uint64_t offset, bool exact, const ProgressCallback& progress) {
  Transfer transfer;
  transfer.limit = file.size() - offset;
  transfer.file = &file;
  transfer.progress = progress;
  transfer.headers.emplace(file.size(), offset, exact);
  transfer.offset = offset;
  transfer.total = file.size();
  return transfer;
}

Transfer memory_transfer(std::uint64_t limit, const ProgressCallback& progress = {}) {
  Transfer transfer;
  transfer.limit = limit;
  transfer.progress = progress;
  return transfer;
}

std::string compact_text(const Json& document) {
  return refuse_malformed("invalid_json", "Ticket request must be valid UTF-8", [&] { return document.dump(); });
}

// Opens the file that is to be uploaded, and proves that it is the one that was looked at.
Handle open_snapshot(const std::filesystem::path& path, std::uint64_t size) {
  constexpr std::string_view code = "crash_changed";
  constexpr std::string_view message = "Frozen upload snapshot is invalid";
  const auto is_snapshot = [&](const Result<Status>& status) {
    return status && is_file(*status) && status->size == size;
  };
  // The system would look at another file, as it takes a path to end at a NUL.
  require(!has_nul(path_utf8(path)), code, message);
  const auto named = link_status_of(path);
  require(is_snapshot(named), code, message);
  Result<Handle> file = os::open(path, os::OpenAs::file);
  require(file.has_value(), "file_read", "Cannot open reviewed upload snapshot");
  const auto opened = status_of(file->get());
  require(is_snapshot(opened) && same_file(*named, *opened), code, message);
  return *std::move(file);
}

}  // namespace

void require_plain_origin(const std::string& origin) {
  const HttpsTransport transport(metadata_address(origin), {}, 0);
  require(transport.origin() == origin, "invalid_origin", "The package origin must be a plain HTTPS origin");
}

HttpsTransport::HttpsTransport(std::string base_url, std::filesystem::path ca_bundle, std::uint64_t bytes_per_second,
                               std::shared_ptr<HttpsBudget> budget)
    : base_url_(std::move(base_url)),
      ca_bundle_(std::move(ca_bundle)),
      bytes_per_second_(bytes_per_second),
      budget_(std::move(budget)) {
  initialize_client_runtime();
  require(bytes_per_second_ <= maximum_rate, "download_limit", "Download limit exceeds 1 GiB/s");
  require_library();
  require_service_url(base_url_);
  origin_ = service_origin(base_url_);
  if (!base_url_.ends_with('/')) {
    base_url_ += '/';
  }
}

std::string HttpsTransport::url(std::string_view path) const {
  validate_relative_path(path, false);
  return base_url_ + quote_url(path, true);
}

TransportResponse HttpsTransport::get(std::string_view path, std::uint64_t limit) {
  require_memory_limit(limit);
  Transfer transfer = memory_transfer(limit);
  return response(url(path), transfer, nullptr);
}

TransportResponse HttpsTransport::get_component(std::string_view component, std::uint64_t limit) {
  require(!component.empty() && component.size() <= maximum_component_bytes && component != "." && component != "..",
          "size_limit", "Metadata filename exceeds its component bound");
  require_memory_limit(limit);
  Transfer transfer = memory_transfer(limit);
  return response(base_url_ + quote_url(component, false), transfer, nullptr);
}

void HttpsTransport::download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                              const ProgressCallback& progress) {
  private_directory(destination.parent_path());
  AllocatedFile file(destination, size, {});
  Transfer transfer = file_transfer(file, 0, false, progress);
  const long status = fetch_file(path, transfer);
  if (status != whole_file_status) {
    fail("http_status", "Download failed with status " + std::to_string(status));
  }
  file.finish(true);
}

bool HttpsTransport::supports_resumption() const { return true; }

void HttpsTransport::download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset,
                                   const ProgressCallback& progress,
                                   const std::function<void(std::string_view)>& on_bytes,
                                   const std::function<void()>& on_restart) {
  require(offset == file.written() && offset <= file.size() && (offset == 0 || offset < file.size()), "download_range",
          "Download cursor differs from the recorded prefix");
  Transfer transfer = file_transfer(file, offset, true, progress);
  transfer.on_bytes = on_bytes;
  transfer.on_restart = on_restart;
  fetch_file(path, transfer);
}

TransportResponse HttpsTransport::post_json(std::string_view path, const Json& document,
                                            const ProgressCallback& progress) {
  Upload upload;
  upload.json = compact_text(document);
  require(upload.json.size() <= maximum_document_bytes, "size_limit", "Ticket request exceeds 4 KiB");
  Transfer transfer = memory_transfer(maximum_upload_answer_bytes, progress);
  return response(url(path), transfer, &upload);
}

TransportResponse HttpsTransport::upload_report(std::string_view path, const std::filesystem::path& file,
                                                std::uint64_t size, std::string_view token,
                                                const ProgressCallback& progress) {
  require(size >= 1 && size <= maximum_upload_bytes, "size_limit", "Report upload exceeds 100 MiB");
  require(is_lower_hex(token, token_characters), "crash_ticket", "Upload capability is invalid");
  Upload upload;
  upload.file = open_snapshot(file, size);
  upload.remaining = size;
  upload.token = token;
  Transfer transfer = memory_transfer(maximum_upload_answer_bytes, progress);
  return response(url(path), transfer, &upload);
}

TransportResponse HttpsTransport::response(const std::string& address, Transfer& transfer, Upload* upload) const {
  transfer.budget = budget_;
  const long status = request(address, ca_bundle_, transfer, bytes_per_second_, upload);
  // The room was made for the longest answer.
  transfer.body.shrink_to_fit();
  return {status, std::move(transfer.body)};
}

long HttpsTransport::fetch_file(std::string_view path, Transfer& transfer) const {
  transfer.budget = budget_;
  if (on_admission) {
    on_admission(transfer.total, transfer.file->reservation().allocated);
  }
  return request(url(path), ca_bundle_, transfer, bytes_per_second_, nullptr);
}

}  // namespace ravok
