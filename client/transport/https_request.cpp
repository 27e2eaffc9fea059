#include "transport/https_request.hpp"

#include <algorithm>
#include <cstddef>
#include <utility>

#include <curl/curl.h>

#include "domain/error.hpp"
#include "domain/limits.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"

namespace ravok {
namespace {

constexpr long connect_seconds = 10;
constexpr long connect_milliseconds = 10'000;
constexpr long memory_seconds = 30;
constexpr long upload_seconds = 590;
constexpr long unlimited = 0;
constexpr std::chrono::milliseconds longest_budget{30'000};
constexpr std::uint64_t maximum_ca_bundle_bytes = 1'048'576;
constexpr std::size_t nothing_received = 0;
constexpr std::size_t nothing_sent = 0;
constexpr std::size_t stop_sending = CURL_READFUNC_ABORT;

struct EasyRelease {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
using Easy = std::unique_ptr<CURL, EasyRelease>;

struct HeaderListRelease {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListRelease>;

// --- Callbacks -----------------------------------------------------------------------------

// Returns what `work` returns, or `refusal` when it throws. Keeps the first exception.
template <typename Answer, typename Work>
Answer keep_failure(std::exception_ptr& failure, Answer refusal, Work work) noexcept {
  try {
    return work();
  } catch (...) {
    if (!failure) {
      failure = std::current_exception();
    }
    return refusal;
  }
}

// The size of a buffer that the library describes by two numbers, or nothing when that does not fit.
std::optional<std::size_t> buffer_bytes(std::size_t size, std::size_t count) {
  if (size != 0 && count > SIZE_MAX / size) {
    return std::nullopt;
  }
  return size * count;
}

// Returns whether the bytes may be taken, and counts them if so.
bool charge(HttpsBudget& budget, std::size_t bytes) {
  if (bytes > budget.limit - budget.used) {
    return false;
  }
  budget.used += bytes;
  return true;
}

// Makes room for all that an answer may have, once. Room that is not used takes no memory of the system, and a text
// that grows piece by piece would be there twice and leave its former room behind.
void make_room(Transfer& transfer) {
  if (transfer.body.empty()) {
    transfer.body.reserve(static_cast<std::size_t>(std::min(transfer.limit, maximum_memory_bytes)));
  }
}

// Returns whether the bytes are taken.
bool take_bytes(Transfer& transfer, std::string_view bytes) {
  // The budget counts also what is refused below, since it has arrived.
  if (transfer.budget && !charge(*transfer.budget, bytes.size())) {
    transfer.budget_exhausted = true;
    return false;
  }
  if (bytes.size() > transfer.limit - transfer.received) {
    transfer.size_exceeded = true;
    return false;
  }
  if (transfer.file != nullptr) {
    transfer.headers->body(bytes.size());
    transfer.file->write(bytes);
    if (transfer.on_bytes) {
      transfer.on_bytes(bytes);
    }
  } else {
    make_room(transfer);
    transfer.body += bytes;
  }
  transfer.received += bytes.size();
  return true;
}

std::size_t receive(char* bytes, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  const std::optional<std::size_t> received = buffer_bytes(size, count);
  if (!received) {
    return nothing_received;
  }
  return keep_failure(transfer.failure, nothing_received, [&] {
    return take_bytes(transfer, {bytes, *received}) ? *received : nothing_received;
  });
}

// Begins the file again at its first byte, since the server sends all of it whatever was asked for.
void restart_file(Transfer& transfer) {
  transfer.file->restart();
  transfer.offset = 0;
  transfer.limit = transfer.total;
  transfer.received = 0;
  if (transfer.on_restart) {
    transfer.on_restart();
  }
}

void take_header(Transfer& transfer, std::string_view line) {
  DownloadResponseHeaders& headers = *transfer.headers;
  headers.line(line);
  if (headers.admitted() && transfer.offset != 0 && headers.offset() == 0) {
    restart_file(transfer);
  }
  // A server may take a whole answer back for a partial one, which the file no longer begins at.
  require(!headers.admitted() || headers.offset() == transfer.offset, "download_range",
          "Server range differs from the authenticated remaining bytes");
}

std::size_t header(char* line, std::size_t size, std::size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  const std::optional<std::size_t> length = buffer_bytes(size, count);
  if (!length) {
    return nothing_received;
  }
  return keep_failure(transfer.failure, nothing_received, [&] {
    take_header(transfer, {line, *length});
    return *length;
  });
}

struct ProgressAmount {
  std::uint64_t done = 0;
  std::uint64_t total = 0;
};

// The library counts with a sign, and has no use for it here.
ProgressAmount amount(curl_off_t done, curl_off_t total) {
  const auto unsigned_of = [](curl_off_t number) { return number < 0 ? 0 : static_cast<std::uint64_t>(number); };
  return {unsigned_of(done), unsigned_of(total)};
}

bool may_go_on(Transfer& transfer, const ProgressAmount& told) {
  if (const HttpsBudget* const budget = transfer.budget.get()) {
    if (budget->cancel && budget->cancel()) {
      transfer.cancelled = true;
      return false;
    }
    if (transfer.surroundings.now() >= budget->deadline) {
      transfer.deadline_passed = true;
      return false;
    }
  }
  if (transfer.progress && !transfer.progress(told.done, told.total)) {
    transfer.cancelled = true;
    return false;
  }
  return true;
}

int advance(void* context, curl_off_t download_total, curl_off_t download_now, curl_off_t upload_total,
            curl_off_t upload_now) {
  constexpr int go_on = 0;
  constexpr int stop = 1;
  auto& transfer = *static_cast<Transfer*>(context);
  ProgressAmount told = amount(download_now, download_total);
  if (transfer.sending) {
    told = amount(upload_now, upload_total);
  } else if (transfer.file != nullptr) {
    told = {transfer.received + transfer.offset, transfer.total};
  }
  return keep_failure(transfer.failure, stop, [&] { return may_go_on(transfer, told) ? go_on : stop; });
}

// Whether the file of an upload ends where it was read to.
bool is_at_end(const Upload& upload) {
  char beyond = 0;
  const Result<std::size_t> count = os::read(upload.file.get(), &beyond, 1);
  return count && *count == 0;
}

// Returns how many bytes of the file are put into the buffer, or stop_sending when the file has another length than it
// had.
std::size_t next_bytes(Upload& upload, char* buffer, std::size_t room) {
  if (upload.remaining == 0) {
    return is_at_end(upload) ? nothing_sent : stop_sending;
  }
  const auto wanted =
      static_cast<std::size_t>(std::min<std::uint64_t>(std::min<std::uint64_t>(room, piece_bytes), upload.remaining));
  std::size_t done = 0;
  while (done < wanted) {
    const Result<std::size_t> count = os::read(upload.file.get(), buffer + done, wanted - done);
    require(count.has_value(), "file_read", "Cannot read reviewed upload snapshot");
    if (*count == 0) {
      return stop_sending;
    }
    done += *count;
  }
  upload.remaining -= done;
  return done;
}

std::size_t send_bytes(char* buffer, std::size_t size, std::size_t count, void* context) {
  auto& upload = *static_cast<Upload*>(context);
  const std::optional<std::size_t> room = buffer_bytes(size, count);
  if (!room) {
    return stop_sending;
  }
  return keep_failure(upload.failure, stop_sending, [&] { return next_bytes(upload, buffer, *room); });
}

// --- Options -------------------------------------------------------------------------------

// Returns whether the library takes an option. It trusts that the value is of the option's own type.
template <typename Value>
bool takes_option(CURL* easy, CURLoption option, Value value) {
  return curl_easy_setopt(easy, option, value) == CURLE_OK;
}

template <typename Value>
void set_option(CURL* easy, CURLoption option, Value value) {
  require(takes_option(easy, option, value), "transport", "Cannot initialize HTTPS request");
}

// Nothing stands between this process and the server, which must prove that it has the name in the URL.
void set_connection(CURL* easy, const std::string& url) {
  require(takes_option(easy, CURLOPT_PROXY, ""), "transport", "Cannot enforce the service connection boundary");
  set_option(easy, CURLOPT_URL, url.c_str());
  set_option(easy, CURLOPT_PROTOCOLS_STR, "https");
  set_option(easy, CURLOPT_REDIR_PROTOCOLS_STR, "https");
  set_option(easy, CURLOPT_FOLLOWLOCATION, 0L);
  set_option(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  set_option(easy, CURLOPT_SSL_VERIFYHOST, 2L);
}

// Returns the time that a budget leaves for a request, in milliseconds.
long require_budget(const Transfer& transfer) {
  const HttpsBudget& budget = *transfer.budget;
  require(budget.used <= budget.limit, "discovery_budget", "Optional update check exhausted its response budget");
  require(!budget.cancel || !budget.cancel(), "cancelled", "Optional update check cancelled");
  const auto now = transfer.surroundings.now();
  // Compared first, because the difference to a time long ago may not fit.
  const auto left = budget.deadline > now ? std::chrono::duration_cast<std::chrono::milliseconds>(budget.deadline - now)
                                          : std::chrono::milliseconds(0);
  require(left.count() >= 1 && left <= longest_budget, "discovery_timeout",
          "Optional update check exhausted its time budget");
  return static_cast<long>(left.count());
}

long whole_seconds(const Transfer& transfer, const Upload* upload) {
  if (upload != nullptr && upload->file) {
    return upload_seconds;
  }
  // A long download is bounded by the rule on low speed alone.
  return transfer.file != nullptr ? unlimited : memory_seconds;
}

void set_times(CURL* easy, const Transfer& transfer, std::uint64_t bytes_per_second, const Upload* upload) {
  set_option(easy, CURLOPT_CONNECTTIMEOUT, connect_seconds);
  set_option(easy, CURLOPT_TIMEOUT, whole_seconds(transfer, upload));
  if (transfer.budget) {
    const long left = require_budget(transfer);
    set_option(easy, CURLOPT_TIMEOUT_MS, left);
    set_option(easy, CURLOPT_CONNECTTIMEOUT_MS, std::min<long>(left, connect_milliseconds));
  }
  set_option(easy, CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(bytes_per_second));
  set_option(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
  set_option(easy, CURLOPT_LOW_SPEED_TIME, transfer.surroundings.low_speed_seconds);
  set_option(easy, CURLOPT_NOSIGNAL, 1L);
  // Otherwise the end of a request waits until the system has looked up the name of the host, for which no time above
  // is a bound.
  set_option(easy, CURLOPT_QUICK_EXIT, 1L);
}

void set_callbacks(CURL* easy, Transfer& transfer) {
  void* const context = &transfer;
  set_option(easy, CURLOPT_USERAGENT, "Ravok/0.1");
  set_option(easy, CURLOPT_WRITEFUNCTION, &receive);
  set_option(easy, CURLOPT_WRITEDATA, context);
  set_option(easy, CURLOPT_XFERINFOFUNCTION, &advance);
  set_option(easy, CURLOPT_XFERINFODATA, context);
  set_option(easy, CURLOPT_NOPROGRESS, 0L);
}

// The bytes of a file arrive as they are signed, and the headers say so before they do.
void set_admission(CURL* easy, Transfer& transfer) {
  void* const context = &transfer;
  set_option(easy, CURLOPT_HEADERFUNCTION, &header);
  set_option(easy, CURLOPT_HEADERDATA, context);
  set_option(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set_option(easy, CURLOPT_ACCEPT_ENCODING, "identity");
  set_option(easy, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  if (transfer.offset != 0) {
    const std::string range = std::to_string(transfer.offset) + "-" + std::to_string(transfer.total - 1);
    set_option(easy, CURLOPT_RANGE, range.c_str());
  }
}

// Makes the authorities of a bundle in PEM form known to the library, which copies them.
bool takes_authorities(CURL* easy, std::string& bundle) {
  curl_blob blob{bundle.data(), bundle.size(), CURL_BLOB_COPY};
  return takes_option(easy, CURLOPT_CAINFO_BLOB, &blob);
}

bool excludes_system_store(CURL* easy) { return takes_option(easy, CURLOPT_SSL_OPTIONS, 0L); }

void trust_bundle(CURL* easy, const std::filesystem::path& ca_bundle) {
  std::string bundle = read_file(ca_bundle, maximum_ca_bundle_bytes);
  require(!bundle.empty(), "ca_bundle", "The configured CA bundle is empty");
  require(takes_authorities(easy, bundle), "ca_bundle", "The native HTTPS backend cannot use the configured CA bundle");
  require(excludes_system_store(easy), "ca_bundle", "Cannot restrict certificate trust to the configured CA bundle");
}

void trust_system(CURL* easy, const std::vector<std::filesystem::path>& places) {
  bool trusts = false;
  if (places.empty()) {
    trusts = takes_option(easy, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NATIVE_CA));
  } else {
    std::string bundle = read_trust_bundle(places);
    trusts = !bundle.empty() && takes_authorities(easy, bundle) && excludes_system_store(easy);
  }
  require(trusts, "ca_bundle", "Cannot use the operating system's certificate trust");
}

void set_trust(CURL* easy, const std::filesystem::path& ca_bundle, const Transfer& transfer) {
  const char* const nothing = nullptr;
  require(takes_option(easy, CURLOPT_CAINFO, nothing) && takes_option(easy, CURLOPT_CAPATH, nothing), "ca_bundle",
          "Cannot select the certificate trust source");
  if (ca_bundle.empty()) {
    trust_system(easy, transfer.surroundings.trust_bundles);
  } else {
    trust_bundle(easy, ca_bundle);
  }
}

void add_header(HeaderList& list, const std::string& line) {
  curl_slist* const longer = curl_slist_append(list.get(), line.c_str());
  require(longer != nullptr, "transport", "Cannot allocate upload headers");
  static_cast<void>(list.release());
  list.reset(longer);
}

HeaderList upload_headers(const Upload& upload) {
  HeaderList list;
  add_header(list, upload.file ? "Content-Type: application/octet-stream" : "Content-Type: application/json");
  // Without a value the library does not send the header, and so does not wait for the server's leave.
  add_header(list, "Expect:");
  if (!upload.token.empty()) {
    add_header(list, "Authorization: Bearer " + upload.token);
  }
  return list;
}

void set_body(CURL* easy, const HeaderList& headers, Transfer& transfer, Upload& upload) {
  set_option(easy, CURLOPT_HTTPHEADER, headers.get());
  if (upload.file) {
    transfer.sending = true;
    void* const context = &upload;
    set_option(easy, CURLOPT_UPLOAD, 1L);
    set_option(easy, CURLOPT_CUSTOMREQUEST, "POST");
    set_option(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(upload.remaining));
    set_option(easy, CURLOPT_READFUNCTION, &send_bytes);
    set_option(easy, CURLOPT_READDATA, context);
  } else {
    set_option(easy, CURLOPT_POST, 1L);
    set_option(easy, CURLOPT_POSTFIELDS, upload.json.c_str());
    set_option(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(upload.json.size()));
  }
}

// --- Results -------------------------------------------------------------------------------

// What went wrong first says more than what the library makes of it.
void require_performed(CURLcode result, const Transfer& transfer, const Upload* upload) {
  if (transfer.failure) {
    std::rethrow_exception(transfer.failure);
  }
  if (upload != nullptr && upload->failure) {
    std::rethrow_exception(upload->failure);
  }
  require(!transfer.cancelled, "cancelled", "Transfer cancelled at a safe boundary");
  require(!transfer.budget_exhausted, "discovery_budget",
          "Optional update check exhausted its response budget; use Check for updates for a complete check");
  require(!transfer.deadline_passed && !(transfer.budget && result == CURLE_OPERATION_TIMEDOUT), "discovery_timeout",
          "Optional update check exhausted its time budget; use Check for updates when ready");
  require(!transfer.size_exceeded, "size_limit", "Server sent more than the authenticated size limit");
  require(result == CURLE_OK, "network", curl_easy_strerror(result));
}

long status_of_answer(CURL* easy) {
  long status = 0;
  const CURLcode result = curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  require(result == CURLE_OK, "network", curl_easy_strerror(result));
  require(status < 300 || status > 399, "redirect_rejected", "Server redirects are not permitted");
  return status;
}

// A server that took the file has taken all of it.
void require_sent(const Upload& upload, long status) {
  const bool was_taken = status >= 200 && status <= 299;
  require(!was_taken || (upload.remaining == 0 && is_at_end(upload)), "crash_changed",
          "Frozen upload snapshot changed during transfer");
}

}  // namespace

long request(const std::string& url, const std::filesystem::path& ca_bundle, Transfer& transfer,
             std::uint64_t bytes_per_second, Upload* upload) {
  HeaderList headers;  // the handle points to it
  const Easy handle(curl_easy_init());
  CURL* const easy = handle.get();
  require(easy != nullptr, "transport", "Cannot initialize HTTPS request");
  set_connection(easy, url);
  set_times(easy, transfer, bytes_per_second, upload);
  set_callbacks(easy, transfer);
  if (transfer.file != nullptr) {
    set_admission(easy, transfer);
  }
  set_trust(easy, ca_bundle, transfer);
  if (upload != nullptr) {
    headers = upload_headers(*upload);
    set_body(easy, headers, transfer, *upload);
  }

  require_performed(curl_easy_perform(easy), transfer, upload);
  if (transfer.headers) {
    transfer.headers->finish();
  }
  const long status = status_of_answer(easy);
  if (upload != nullptr && upload->file) {
    require_sent(*upload, status);
  }
  return status;
}

}  // namespace ravok
