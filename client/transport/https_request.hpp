// One HTTPS request from its options to its result. HttpsTransport decides what is asked for and what an answer means.
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file/allocated_file.hpp"
#include "platform/file/handle.hpp"
#include "platform/network/trust_store.hpp"
#include "platform/snapshot/progress.hpp"
#include "transport/download_headers.hpp"
#include "transport/https_budget.hpp"

namespace ravok {

// The most of an answer that is kept in memory, in bytes.
inline constexpr std::uint64_t maximum_memory_bytes = 16'777'216;

// What a request takes from its surroundings. Tests put their own in place.
struct RequestSurroundings {
  // The clock of a budget's deadline.
  std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;
  // How long a request may go on without a byte, in seconds.
  long low_speed_seconds = 30;
  // Where the system's bundle of authorities may lie; none where the HTTPS library asks the system.
  std::vector<std::filesystem::path> trust_bundles = os::trust_bundle_places();
};

// What a request may receive, where that goes, and what happened to it. The answer goes to `file`, or to `body` where
// there is none.
struct Transfer {
  std::uint64_t limit = 0;     // bytes of body that this request may receive
  std::uint64_t received = 0;  // of these
  std::string body;
  AllocatedFile* file = nullptr;
  ProgressCallback progress;
  std::shared_ptr<HttpsBudget> budget;
  std::optional<DownloadResponseHeaders> headers;  // with a file, and only then
  std::uint64_t offset = 0;                        // where in the file the body begins
  std::uint64_t total = 0;                         // the file's whole length, in bytes
  std::function<void(std::string_view)> on_bytes;
  std::function<void()> on_restart;
  RequestSurroundings surroundings;

  // What ended the request. The first exception of a callback is kept here, since none may cross the library.
  std::exception_ptr failure;
  bool size_exceeded = false;
  bool cancelled = false;
  bool budget_exhausted = false;
  bool deadline_passed = false;

  bool sending = false;  // a file is being uploaded, and progress is told of that
};

// What a request sends: the file, or `json` where there is none.
struct Upload {
  Handle file;
  std::uint64_t remaining = 0;  // bytes of the file that are still to be sent
  std::string json;
  std::string token;  // the right to upload; may be empty
  std::exception_ptr failure;
};

// Makes one request and returns the status of its answer, which is no redirect. `ca_bundle` may be empty, for the
// system's own trust; 0 `bytes_per_second` is no limit; `upload` may be null, for a GET. Fails as HttpsTransport says,
// and with what a function of the transfer throws.
long request(const std::string& url, const std::filesystem::path& ca_bundle, Transfer& transfer,
             std::uint64_t bytes_per_second, Upload* upload);

}  // namespace ravok
