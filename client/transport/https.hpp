// Requests to a service over HTTPS, and nothing else: no proxy, no redirect, no decoding of content, one connection for
// each request.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "domain/json.hpp"
#include "platform/file/allocated_file.hpp"
#include "platform/snapshot/progress.hpp"
#include "transport/https_budget.hpp"
#include "transport/service_url.hpp"
#include "transport/transport.hpp"

namespace ravok {

struct Transfer;
struct Upload;

// Accepts only the origin of a service: HTTPS, a host and perhaps a port. Fails with "invalid_origin", and with
// "https_required", "invalid_url" or "transport" as the constructor of HttpsTransport does.
void require_plain_origin(const std::string& origin);

// Several threads may use an object at once, as long as no two requests share a budget. It holds no connection. A
// request that ends while the name of the host is looked up leaves that to a thread of the library's own, which calls
// nothing of the caller's and ends with the look-up.
//
// Every request can fail with
// - "network": no connection within 10 seconds, no certificate that is trusted, an answer that is cut short, or one
//   that takes too long: 30 seconds for an answer in memory, 590 for the upload of a file, and for every request 30
//   without a byte
// - "redirect_rejected": the service sends the client elsewhere
// - "size_limit": the answer is longer than it may be
// - "ca_bundle": the bundle is empty or cannot be used, or the system has no trust that can be used; and as read_file
//   does when the bundle, of at most 1 MiB, cannot be read
// - "cancelled": progress said so
// - "transport": the HTTPS library refuses the request
// With a budget also with
// - "discovery_budget" or "discovery_timeout": its bytes or its time are used up
// - "cancelled": the check was called off
class HttpsTransport : public Transport {
 public:
  // `base_url` is a service's root: HTTPS, with a host, perhaps a port and a path, and nothing else. `ca_bundle` is a
  // PEM file, which then alone decides whom to trust, or empty for the system's own trust. `bytes_per_second` limits
  // downloads, at most 1 GiB; 0 means no limit. `budget`, which may be null, bounds every request. The first object of
  // a process removes SSLKEYLOGFILE from the environment, which no other thread may use meanwhile. Fails with
  // "download_limit", "transport", "https_required" or "invalid_url".
  HttpsTransport(std::string base_url, std::filesystem::path ca_bundle, std::uint64_t bytes_per_second = 0,
                 std::shared_ptr<HttpsBudget> budget = nullptr);

  // The base URL up to the first "/" after its scheme.
  const std::string& origin() const { return origin_; }

  // Returns the URL of a relative path below the base. Fails with "unsafe_path" as validate_relative_path does.
  std::string url(std::string_view path) const;

  // `limit` is at most 16 MiB. Fails with "size_limit" also beyond that, and with "unsafe_path".
  TransportResponse get(std::string_view path, std::uint64_t limit) override;

  // `component` has 1 to 8,192 bytes and is neither "." nor ".."; a "/" in it is a part of the name. Fails with
  // "size_limit" also for any other, and for a limit of more than 16 MiB.
  TransportResponse get_component(std::string_view component, std::uint64_t limit) override;

  // Makes the destination's parent private, as private_directory does. Fails also as that, as an AllocatedFile and as
  // the admission of a response's headers do, with "unsafe_path" for the path, and with "http_status" for any status
  // but 200.
  void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                const ProgressCallback& progress) override;

  bool supports_resumption() const override;

  // Fails also as an AllocatedFile and as the admission of a response's headers do, with "unsafe_path" for the path,
  // and with "download_range" unless `offset` is how many bytes are written and, where it is not 0, less than the
  // file's size. Progress is told of bytes of the whole file.
  void download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset, const ProgressCallback& progress,
                     const std::function<void(std::string_view)>& on_bytes,
                     const std::function<void()>& on_restart) override;

  // Posts a document of at most 4 KiB as text and returns the answer, of at most 16 KiB, whatever its status. Fails
  // with "size_limit" also for a longer document, with "invalid_json" for one with text that is not UTF-8, and with
  // "unsafe_path".
  TransportResponse post_json(std::string_view path, const Json& document, const ProgressCallback& progress);

  // Posts a file of exactly `size` bytes, 1 to 100 MiB, that nothing changes any more, and returns the answer, of at
  // most 16 KiB, whatever its status. `token` is the right to do so: 64 lower-case hexadecimal characters. Progress is
  // told of bytes that are sent. Fails with "size_limit" also for another size, with "crash_ticket" for another token,
  // with "crash_changed" for a link, a special file, a file of another size or one that grows meanwhile, with
  // "file_read" when the file cannot be read, and with "unsafe_path". A file that shrinks meanwhile ends the request
  // with "network".
  TransportResponse upload_report(std::string_view path, const std::filesystem::path& file, std::uint64_t size,
                                  std::string_view token, const ProgressCallback& progress);

  // Called before each request for a file with the file's whole size in bytes and whether its blocks are claimed; may
  // be empty.
  std::function<void(std::uint64_t, bool)> on_admission;

 private:
  TransportResponse response(const std::string& address, Transfer& transfer, Upload* upload) const;
  long fetch_file(std::string_view path, Transfer& transfer) const;

  std::string base_url_;  // ends in "/"
  std::string origin_;
  std::filesystem::path ca_bundle_;
  std::uint64_t bytes_per_second_;
  std::shared_ptr<HttpsBudget> budget_;
};

}  // namespace ravok
