// The options of a request, what its callbacks do, and which result it has. The library's calls are led to a script, so
// no connection is made.

#include "transport/https_request.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/file_operations.hpp"
#include "support/failure.hpp"
#include "support/https_calls.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HttpsCalls;
using testing::HttpsPlan;
using testing::Performance;
using testing::TemporaryRoot;

constexpr const char* address = "https://example.test/a";
constexpr const char* cancelled_message = "Transfer cancelled at a safe boundary";
constexpr const char* too_much_message = "Server sent more than the authenticated size limit";
constexpr const char* exhausted_before = "Optional update check exhausted its response budget";
constexpr const char* late_before = "Optional update check exhausted its time budget";
constexpr const char* exhausted_message =
    "Optional update check exhausted its response budget; use Check for updates for a complete check";
constexpr const char* late_message =
    "Optional update check exhausted its time budget; use Check for updates when ready";
constexpr const char* changed_message = "Frozen upload snapshot changed during transfer";

const steady_clock::time_point still_time{std::chrono::hours(1000)};

// A request in a clock of its own, with a bundle of authorities.
class HttpsRequest : public ::testing::Test {
 protected:
  HttpsRequest() {
    transfer.limit = 10;
    transfer.surroundings.now = [this] { return now; };
  }

  long get() { return request(address, bundle, transfer, 0, upload.get()); }

  // Performs a request in which this happens, and returns its status.
  long perform(std::function<CURLcode(const Performance&)> happens, long status = 200) {
    const HttpsCalls calls({.perform = std::move(happens), .status = status});
    return get();
  }

  HttpsBudget& give_budget(std::uint64_t limit = 100) {
    transfer.budget = std::make_shared<HttpsBudget>();
    transfer.budget->deadline = now + milliseconds(20'000);
    transfer.budget->limit = limit;
    return *transfer.budget;
  }

  AllocatedFile& receive_file(std::uint64_t size, std::uint64_t written = 0) {
    file = std::make_unique<AllocatedFile>(root / "file", size, AllocatedFile::OwnershipCallback());
    file->write(std::string(written, 'w'));
    transfer.file = file.get();
    transfer.offset = written;
    transfer.total = size;
    transfer.limit = size - written;
    transfer.headers.emplace(size, written, true);
    return *file;
  }

  void send_json(std::string text) {
    upload = std::make_unique<Upload>();
    upload->json = std::move(text);
  }

  void send_file(const std::string& content) {
    root.write("upload", content);
    upload = std::make_unique<Upload>();
    upload->file = *os::open(root / "upload", os::OpenAs::file);
    upload->remaining = content.size();
    upload->token = "capability";
  }

  const TemporaryRoot root;
  std::filesystem::path bundle = root.write("bundle.pem", "authorities");
  steady_clock::time_point now = still_time;
  Transfer transfer;
  std::unique_ptr<AllocatedFile> file;
  std::unique_ptr<Upload> upload;
};

using Options = std::vector<std::string>;

Options together(std::initializer_list<Options> parts) {
  Options all;
  for (const Options& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

const Options connection = {"PROXY=''",
                            "URL='https://example.test/a'",
                            "PROTOCOLS_STR='https'",
                            "REDIR_PROTOCOLS_STR='https'",
                            "FOLLOWLOCATION=0",
                            "SSL_VERIFYPEER=1",
                            "SSL_VERIFYHOST=2",
                            "CONNECTTIMEOUT=10"};
const Options pace = {"MAX_RECV_SPEED_LARGE=0", "LOW_SPEED_LIMIT=1", "LOW_SPEED_TIME=30", "NOSIGNAL=1", "QUICK_EXIT=1"};
const Options callbacks = {"USERAGENT='Ravok/0.1'", "WRITEFUNCTION", "WRITEDATA",
                           "XFERINFOFUNCTION",      "XFERINFODATA",  "NOPROGRESS=0"};
const Options admission = {"HEADERFUNCTION", "HEADERDATA", "SUPPRESS_CONNECT_HEADERS=1", "ACCEPT_ENCODING='identity'",
                           "HTTP_CONTENT_DECODING=0"};
const Options configured_trust = {"CAINFO=nothing", "CAPATH=nothing", "CAINFO_BLOB='authorities'", "SSL_OPTIONS=0"};

TEST_F(HttpsRequest, InMemorySetsItsOptionsInTheirOrder) {
  const HttpsCalls calls;
  EXPECT_EQ(get(), 200);
  EXPECT_EQ(calls.options(), together({connection, {"TIMEOUT=30"}, pace, callbacks, configured_trust}));
  EXPECT_EQ(calls.performed(), 1);
  EXPECT_EQ(calls.open_handles(), 0);
}

TEST_F(HttpsRequest, OfABudgetIsBoundedByWhatIsLeftOfItsTime) {
  give_budget();
  const HttpsCalls calls;
  EXPECT_EQ(get(), 200);
  EXPECT_EQ(calls.options(), together({connection,
                                       {"TIMEOUT=30", "TIMEOUT_MS=20000", "CONNECTTIMEOUT_MS=10000"},
                                       pace,
                                       callbacks,
                                       configured_trust}));
}

// An answer that fills the rest of the file.
CURLcode send_rest(const Performance& server) {
  const bool taken = server.header("HTTP/1.1 206 Partial Content\r\n") &&
                     server.header("Content-Range: bytes 3-9/10\r\n") && server.header("\r\n") && server.body("abcd") &&
                     server.body("efg");
  return taken ? CURLE_OK : CURLE_WRITE_ERROR;
}

CURLcode send_whole(const Performance& server) {
  const bool taken =
      server.header("HTTP/1.1 200 OK\r\n") && server.header("\r\n") && server.body("01234") && server.body("56789");
  return taken ? CURLE_OK : CURLE_WRITE_ERROR;
}

TEST_F(HttpsRequest, OfAWholeFileAdmitsItsHeadersAndHasNoTimeLimit) {
  receive_file(10);
  const HttpsCalls calls({.perform = send_whole});
  EXPECT_EQ(get(), 200);
  EXPECT_EQ(calls.options(), together({connection, {"TIMEOUT=0"}, pace, callbacks, admission, configured_trust}));
}

TEST_F(HttpsRequest, OfTheRestOfAFileAsksForExactlyThat) {
  receive_file(10, 3);
  const HttpsCalls calls({.perform = send_rest, .status = 206});
  EXPECT_EQ(get(), 206);
  EXPECT_EQ(calls.options(),
            together({connection, {"TIMEOUT=0"}, pace, callbacks, admission, {"RANGE='3-9'"}, configured_trust}));
}

TEST_F(HttpsRequest, WithAJsonBodyPostsIt) {
  send_json(R"({"a":1})");
  const HttpsCalls calls;
  EXPECT_EQ(get(), 200);
  EXPECT_EQ(calls.options(), together({connection,
                                       {"TIMEOUT=30"},
                                       pace,
                                       callbacks,
                                       configured_trust,
                                       {"HTTPHEADER='Content-Type: application/json' 'Expect:'", "POST=1",
                                        R"(POSTFIELDS='{"a":1}')", "POSTFIELDSIZE_LARGE=7"}}));
}

TEST_F(HttpsRequest, WithAFileUploadsItWithItsToken) {
  send_file("report");
  const HttpsCalls calls({.perform = [](const Performance& server) {
    return server.send(100) == "report" ? CURLE_OK : CURLE_ABORTED_BY_CALLBACK;
  }});
  EXPECT_EQ(get(), 200);
  EXPECT_EQ(
      calls.options(),
      together({connection,
                {"TIMEOUT=590"},
                pace,
                callbacks,
                configured_trust,
                {"HTTPHEADER='Content-Type: application/octet-stream' 'Expect:' 'Authorization: Bearer capability'",
                 "UPLOAD=1", "CUSTOMREQUEST='POST'", "INFILESIZE_LARGE=6", "READFUNCTION", "READDATA"}}));
}

TEST_F(HttpsRequest, PassesTheRateOn) {
  const HttpsCalls calls;
  request(address, bundle, transfer, 1'073'741'824, nullptr);
  EXPECT_EQ(calls.value("MAX_RECV_SPEED_LARGE"), "1073741824");
}

// --- Calls that fail -----------------------------------------------------------------------

struct Refusal {
  const char* code;
  const char* message;
};

Refusal refusal_of(const std::string& option) {
  if (option == "PROXY") {
    return {"transport", "Cannot enforce the service connection boundary"};
  }
  if (option == "CAINFO" || option == "CAPATH") {
    return {"ca_bundle", "Cannot select the certificate trust source"};
  }
  if (option == "CAINFO_BLOB") {
    return {"ca_bundle", "The native HTTPS backend cannot use the configured CA bundle"};
  }
  if (option == "SSL_OPTIONS") {
    return {"ca_bundle", "Cannot restrict certificate trust to the configured CA bundle"};
  }
  return {"transport", "Cannot initialize HTTPS request"};
}

class HttpsRefusal : public HttpsRequest {
 protected:
  // Performs the request once to learn its options, and then once for each of them that is refused.
  void expect_refusals() {
    Options options;
    {
      const HttpsCalls calls({.perform = [](const Performance&) { return CURLE_GOT_NOTHING; }});
      EXPECT_FAILURE(get(), "network", curl_easy_strerror(CURLE_GOT_NOTHING));
      options = calls.options();
    }
    for (const std::string& set : options) {
      const std::string option = set.substr(0, set.find('='));
      const HttpsCalls calls({.failing = option});
      const Refusal refusal = refusal_of(option);
      EXPECT_FAILURE(get(), refusal.code, refusal.message) << option;
      EXPECT_EQ(calls.options().size(), static_cast<std::size_t>(&set - options.data()) + 1) << option;
      EXPECT_EQ(calls.performed(), 0) << option;
      EXPECT_EQ(calls.open_handles(), 0) << option;
    }
  }
};

TEST_F(HttpsRefusal, OfAnyOptionEndsARequestForAFile) {
  give_budget();
  receive_file(10, 3);
  expect_refusals();
  EXPECT_EQ(file->written(), 3u);
}

TEST_F(HttpsRefusal, OfAnyOptionEndsAnUpload) {
  send_file("report");
  expect_refusals();
  EXPECT_EQ(upload->remaining, 6u);
}

TEST_F(HttpsRefusal, OfAnyOptionEndsAPost) {
  send_json("{}");
  expect_refusals();
}

TEST_F(HttpsRequest, NeedsAHandle) {
  const HttpsCalls calls({.failing = "init"});
  EXPECT_FAILURE(get(), "transport", "Cannot initialize HTTPS request");
  EXPECT_EQ(calls.options(), Options());
}

TEST_F(HttpsRequest, NeedsEachOfItsHeaders) {
  send_file("report");
  for (const char* line : {"header 1", "header 2", "header 3"}) {
    const HttpsCalls calls({.failing = line});
    EXPECT_FAILURE(get(), "transport", "Cannot allocate upload headers") << line;
    EXPECT_EQ(calls.value("HTTPHEADER"), "") << line;
    EXPECT_EQ(calls.performed(), 0) << line;
    EXPECT_EQ(calls.open_handles(), 0) << line;
  }
}

TEST_F(HttpsRequest, NeedsTheStatusOfItsAnswer) {
  const HttpsCalls calls({.failing = "status"});
  EXPECT_FAILURE(get(), "network", curl_easy_strerror(CURLE_UNKNOWN_OPTION));
  EXPECT_EQ(calls.open_handles(), 0);
}

// --- Trust ---------------------------------------------------------------------------------

TEST_F(HttpsRequest, RefusesABundleThatCannotBeUsed) {
  const HttpsCalls calls;
  bundle = root.write("empty.pem", "");
  EXPECT_FAILURE(get(), "ca_bundle", "The configured CA bundle is empty");
  bundle = root / "missing.pem";
  EXPECT_FAILURE(get(), "file_read", "Cannot open file: " + bundle.string());
  bundle = root.write("large.pem", std::string(1'048'577, 'x'));
  EXPECT_FAILURE(get(), "size_limit", "File exceeds read limit");
  EXPECT_EQ(calls.performed(), 0);
  EXPECT_EQ(calls.open_handles(), 0);
}

TEST_F(HttpsRequest, TakesABundleOfOneMebibyte) {
  bundle = root.write("large.pem", std::string(1'048'576, 'x'));
  const HttpsCalls calls;
  EXPECT_EQ(get(), 200);
}

TEST_F(HttpsRequest, TrustsTheBundleThatTheSystemKeeps) {
  bundle.clear();
  transfer.surroundings.trust_bundles = {root / "missing.pem", root.write("system.pem", "of the system")};
  const HttpsCalls calls;
  EXPECT_EQ(get(), 200);
  EXPECT_EQ(calls.options(),
            together({connection,
                      {"TIMEOUT=30"},
                      pace,
                      callbacks,
                      {"CAINFO=nothing", "CAPATH=nothing", "CAINFO_BLOB='of the system'", "SSL_OPTIONS=0"}}));
}

TEST_F(HttpsRequest, LeavesTheTrustToASystemThatKeepsNoBundle) {
  bundle.clear();
  transfer.surroundings.trust_bundles = {};
  const HttpsCalls calls;
  EXPECT_EQ(get(), 200);
  EXPECT_EQ(
      calls.options(),
      together({connection, {"TIMEOUT=30"}, pace, callbacks, {"CAINFO=nothing", "CAPATH=nothing", "SSL_OPTIONS=16"}}));
}

TEST_F(HttpsRequest, NeedsTheTrustOfTheSystemWhereThereIsNoBundle) {
  constexpr const char* message = "Cannot use the operating system's certificate trust";
  bundle.clear();
  transfer.surroundings.trust_bundles = {root / "missing.pem"};
  {
    const HttpsCalls calls;
    EXPECT_FAILURE(get(), "ca_bundle", message);
    EXPECT_EQ(calls.performed(), 0);
  }
  transfer.surroundings.trust_bundles = {root.write("system.pem", "of the system")};
  for (const char* option : {"CAINFO_BLOB", "SSL_OPTIONS"}) {
    const HttpsCalls calls({.failing = option});
    EXPECT_FAILURE(get(), "ca_bundle", message) << option;
    EXPECT_EQ(calls.performed(), 0) << option;
  }
  transfer.surroundings.trust_bundles = {};
  const HttpsCalls calls({.failing = "SSL_OPTIONS"});
  EXPECT_FAILURE(get(), "ca_bundle", message);
  EXPECT_EQ(calls.performed(), 0);
}

// --- The budget before the request ---------------------------------------------------------

TEST_F(HttpsRequest, TakesFromOneMillisecondToThirtySeconds) {
  HttpsBudget& budget = give_budget();
  struct Case {
    std::chrono::microseconds left;
    const char* timeout;
    const char* connect;
  };
  for (const Case& edge : {Case{milliseconds(1), "1", "1"}, Case{milliseconds(9999), "9999", "9999"},
                           Case{milliseconds(10'001), "10001", "10000"}, Case{milliseconds(30'000), "30000", "10000"},
                           Case{std::chrono::microseconds(30'000'999), "30000", "10000"}}) {
    budget.deadline = now + edge.left;
    const HttpsCalls calls;
    EXPECT_EQ(get(), 200) << edge.timeout;
    EXPECT_EQ(calls.value("TIMEOUT_MS"), edge.timeout);
    EXPECT_EQ(calls.value("CONNECTTIMEOUT_MS"), edge.connect);
  }
}

TEST_F(HttpsRequest, IsNotBegunWithLessOrMoreTimeThanThat) {
  HttpsBudget& budget = give_budget();
  for (const steady_clock::time_point deadline :
       {now + std::chrono::microseconds(999), now, now - milliseconds(1), now + milliseconds(30'001),
        steady_clock::time_point::min(), steady_clock::time_point::max()}) {
    budget.deadline = deadline;
    const HttpsCalls calls;
    EXPECT_FAILURE(get(), "discovery_timeout", late_before);
    EXPECT_EQ(calls.value("TIMEOUT"), "30");
    EXPECT_EQ(calls.value("TIMEOUT_MS"), "");
    EXPECT_EQ(calls.performed(), 0);
    EXPECT_EQ(calls.open_handles(), 0);
  }
}

TEST_F(HttpsRequest, LooksAtTheBytesOfABudgetThenAtItsUserThenAtItsTime) {
  HttpsBudget& budget = give_budget(5);
  budget.deadline = now;
  budget.used = 6;
  int asked = 0;
  budget.cancel = [&] {
    ++asked;
    return true;
  };
  const HttpsCalls calls;
  EXPECT_FAILURE(get(), "discovery_budget", exhausted_before);
  EXPECT_EQ(asked, 0);
  budget.used = 5;
  EXPECT_FAILURE(get(), "cancelled", "Optional update check cancelled");
  EXPECT_EQ(asked, 1);
  budget.cancel = [] { return false; };
  EXPECT_FAILURE(get(), "discovery_timeout", late_before);
  EXPECT_EQ(calls.performed(), 0);
  EXPECT_EQ(budget.used, 5u);
}

// --- The answer in memory ------------------------------------------------------------------

TEST_F(HttpsRequest, ReturnsWhatArrivesUpToItsLimit) {
  EXPECT_EQ(perform(
                [](const Performance& server) {
                  return server.body("12345") && server.body("67890") ? CURLE_OK : CURLE_WRITE_ERROR;
                },
                404),
            404);
  EXPECT_EQ(transfer.body, "1234567890");
  EXPECT_EQ(transfer.received, 10u);
}

TEST_F(HttpsRequest, TakesNoByteBeyondItsLimit) {
  const auto too_much = [](const Performance& server) {
    return server.body("12345") && server.body("678901") ? CURLE_OK : CURLE_WRITE_ERROR;
  };
  EXPECT_FAILURE(perform(too_much), "size_limit", too_much_message);
  EXPECT_EQ(transfer.body, "12345");
}

TEST_F(HttpsRequest, MayExpectNothing) {
  transfer.limit = 0;
  EXPECT_EQ(perform([](const Performance&) { return CURLE_OK; }), 200);
  EXPECT_FAILURE(perform([](const Performance& server) { return server.body("1") ? CURLE_OK : CURLE_WRITE_ERROR; }),
                 "size_limit", too_much_message);
}

TEST_F(HttpsRequest, RefusesARedirect) {
  for (const long status : {300L, 301L, 302L, 304L, 307L, 399L}) {
    EXPECT_FAILURE(perform({}, status), "redirect_rejected", "Server redirects are not permitted") << status;
  }
  for (const long status : {200L, 204L, 299L, 400L, 500L}) {
    EXPECT_EQ(perform({}, status), status);
  }
}

TEST_F(HttpsRequest, TellsOfAProblemOfTheNetworkInTheLibrarysWords) {
  for (const CURLcode problem : {CURLE_COULDNT_CONNECT, CURLE_PEER_FAILED_VERIFICATION, CURLE_OPERATION_TIMEDOUT,
                                 CURLE_PARTIAL_FILE, CURLE_WRITE_ERROR, CURLE_ABORTED_BY_CALLBACK}) {
    EXPECT_FAILURE(perform([&](const Performance&) { return problem; }), "network", curl_easy_strerror(problem));
  }
}

TEST_F(HttpsRequest, EndsAtABufferTooLargeToBeOne) {
  receive_file(10);
  EXPECT_FAILURE(perform([](const Performance& server) {
                   EXPECT_EQ(server.too_large_header(), 0u);
                   EXPECT_EQ(server.too_large_body(), 0u);
                   return CURLE_WRITE_ERROR;
                 }),
                 "network", curl_easy_strerror(CURLE_WRITE_ERROR));
  EXPECT_EQ(file->written(), 0u);
}

// --- The budget during the request ---------------------------------------------------------

TEST_F(HttpsRequest, MayUseABudgetToItsLastByte) {
  HttpsBudget& budget = give_budget(10);
  budget.used = 3;
  EXPECT_EQ(perform([](const Performance& server) { return server.body("1234567") ? CURLE_OK : CURLE_WRITE_ERROR; }),
            200);
  EXPECT_EQ(budget.used, 10u);
  transfer.received = 0;
  EXPECT_FAILURE(perform([](const Performance& server) { return server.body("8") ? CURLE_OK : CURLE_WRITE_ERROR; }),
                 "discovery_budget", exhausted_message);
  EXPECT_EQ(budget.used, 10u);
  EXPECT_EQ(transfer.body, "1234567");
}

TEST_F(HttpsRequest, CountsBytesOfABudgetEvenIfItRefusesThem) {
  HttpsBudget& budget = give_budget(100);
  EXPECT_FAILURE(
      perform([](const Performance& server) { return server.body("12345678901") ? CURLE_OK : CURLE_WRITE_ERROR; }),
      "size_limit", too_much_message);
  EXPECT_EQ(budget.used, 11u);
  EXPECT_EQ(transfer.body, "");
}

CURLcode tick(const Performance& server) { return server.progress() ? CURLE_OK : CURLE_ABORTED_BY_CALLBACK; }

TEST_F(HttpsRequest, EndsWhenTheCheckIsCalledOff) {
  int asked = 0;
  give_budget().cancel = [&] { return ++asked > 2; };
  bool told = false;
  transfer.progress = [&](std::uint64_t, std::uint64_t) { return told = true; };
  EXPECT_FAILURE(perform([&](const Performance& server) {
                   EXPECT_EQ(tick(server), CURLE_OK);
                   EXPECT_TRUE(std::exchange(told, false));
                   now += std::chrono::hours(1);
                   return tick(server);
                 }),
                 "cancelled", cancelled_message);
  EXPECT_FALSE(told);
}

TEST_F(HttpsRequest, EndsAtTheDeadline) {
  const HttpsBudget& budget = give_budget();
  bool told = false;
  transfer.progress = [&](std::uint64_t, std::uint64_t) { return told = true; };
  EXPECT_FAILURE(perform([&](const Performance& server) {
                   now = budget.deadline - std::chrono::nanoseconds(1);
                   EXPECT_EQ(tick(server), CURLE_OK);
                   EXPECT_TRUE(std::exchange(told, false));
                   now = budget.deadline;
                   return tick(server);
                 }),
                 "discovery_timeout", late_message);
  EXPECT_FALSE(told);
}

TEST_F(HttpsRequest, OfABudgetThatTheLibraryTimesOutIsLate) {
  give_budget();
  EXPECT_FAILURE(perform([](const Performance&) { return CURLE_OPERATION_TIMEDOUT; }), "discovery_timeout",
                 late_message);
}

// --- Progress ------------------------------------------------------------------------------

using Told = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

TEST_F(HttpsRequest, TellsOfTheAnswerInMemory) {
  Told told;
  transfer.progress = [&](std::uint64_t done, std::uint64_t total) {
    told.emplace_back(done, total);
    return true;
  };
  perform([](const Performance& server) {
    EXPECT_TRUE(server.progress(20, 10, 4, 3));
    EXPECT_TRUE(server.progress(-1, -2, -3, -4));
    return CURLE_OK;
  });
  EXPECT_EQ(told, (Told{{10, 20}, {0, 0}}));
}

TEST_F(HttpsRequest, TellsOfTheWholeFileThatItGoesOnWith) {
  Told told;
  transfer.progress = [&](std::uint64_t done, std::uint64_t total) {
    told.emplace_back(done, total);
    return true;
  };
  receive_file(10, 3);
  perform(
      [](const Performance& server) {
        EXPECT_TRUE(server.progress());
        EXPECT_EQ(send_rest(server), CURLE_OK);
        EXPECT_TRUE(server.progress(7, 7, 0, 0));
        return CURLE_OK;
      },
      206);
  EXPECT_EQ(told, (Told{{3, 10}, {10, 10}}));
}

TEST_F(HttpsRequest, TellsOfTheFileThatItSends) {
  Told told;
  transfer.progress = [&](std::uint64_t done, std::uint64_t total) {
    told.emplace_back(done, total);
    return true;
  };
  send_file("report");
  perform([](const Performance& server) {
    EXPECT_TRUE(server.progress(20, 10, 6, 2));
    EXPECT_TRUE(server.progress(20, 10, -6, -2));
    EXPECT_EQ(server.send(6), "report");
    return CURLE_OK;
  });
  EXPECT_EQ(told, (Told{{2, 6}, {0, 0}}));
}

TEST_F(HttpsRequest, EndsWhenProgressSaysSo) {
  transfer.progress = [](std::uint64_t, std::uint64_t) { return false; };
  EXPECT_FAILURE(perform(tick), "cancelled", cancelled_message);
}

TEST_F(HttpsRequest, EndsWithWhatProgressThrows) {
  transfer.progress = [](std::uint64_t, std::uint64_t) -> bool { throw std::runtime_error("of the caller"); };
  EXPECT_THROW(perform(tick), std::runtime_error);
}

// --- The file ------------------------------------------------------------------------------

TEST_F(HttpsRequest, WritesTheFileAndPassesItsBytesOn) {
  AllocatedFile& allocated = receive_file(10, 3);
  std::string bytes;
  transfer.on_bytes = [&](std::string_view piece) {
    EXPECT_EQ(allocated.written(), 3 + bytes.size() + piece.size());
    bytes += piece;
  };
  transfer.on_restart = [] { ADD_FAILURE() << "The file goes on"; };
  EXPECT_EQ(perform(send_rest, 206), 206);
  EXPECT_EQ(bytes, "abcdefg");
  EXPECT_EQ(root.read("file"), "wwwabcdefg");
  EXPECT_EQ(transfer.body, "");
}

TEST_F(HttpsRequest, BeginsTheFileAgainWhenTheServerIgnoresTheRange) {
  AllocatedFile& allocated = receive_file(10, 3);
  int restarts = 0;
  transfer.on_restart = [&] {
    ++restarts;
    EXPECT_EQ(allocated.written(), 0u);
  };
  EXPECT_EQ(perform(send_whole), 200);
  EXPECT_EQ(restarts, 1);
  EXPECT_EQ(root.read("file"), "0123456789");
  EXPECT_EQ(allocated.written(), 10u);
}

TEST_F(HttpsRequest, TakesNoRangeForAFileThatBeganAgain) {
  receive_file(10, 3);
  EXPECT_FAILURE(perform([](const Performance& server) {
                   for (const char* const line : {"HTTP/1.1 200 OK\r\n", "\r\n", "HTTP/1.1 206 Partial Content\r\n",
                                                  "Content-Range: bytes 3-9/10\r\n"}) {
                     EXPECT_TRUE(server.header(line));
                   }
                   EXPECT_FALSE(server.header("\r\n"));
                   return CURLE_WRITE_ERROR;
                 }),
                 "download_range", "Server range differs from the authenticated remaining bytes");
  EXPECT_EQ(file->written(), 0u);
}

TEST_F(HttpsRequest, DoesNotBeginAWholeFileAgain) {
  receive_file(10);
  transfer.on_restart = [] { ADD_FAILURE() << "The file begins at its first byte"; };
  EXPECT_EQ(perform(send_whole), 200);
  EXPECT_EQ(root.read("file"), "0123456789");
}

TEST_F(HttpsRequest, EndsWithWhatTheFunctionsOfAFileThrow) {
  transfer.on_bytes = [](std::string_view) { throw std::runtime_error("bytes"); };
  receive_file(10, 3);
  EXPECT_THROW(perform(send_rest, 206), std::runtime_error);
  EXPECT_EQ(file->written(), 7u);

  file.reset();
  transfer = {};
  transfer.on_restart = [] { throw std::runtime_error("restart"); };
  receive_file(10, 3);
  EXPECT_THROW(perform(send_whole), std::runtime_error);
  EXPECT_EQ(file->written(), 0u);
}

TEST_F(HttpsRequest, EndsWithTheFilesOwnProblem) {
  receive_file(10, 3);
  std::filesystem::rename(root / "file", root / "moved");
  EXPECT_FAILURE(perform(send_whole), "allocation_changed", "Cannot restart a replaced partial file");
  EXPECT_EQ(root.read("moved").substr(0, 3), "www");
}

TEST_F(HttpsRequest, WritesNothingOfAnAnswerThatIsNotAdmitted) {
  receive_file(10);
  EXPECT_FAILURE(perform(
                     [](const Performance& server) {
                       EXPECT_TRUE(server.header("HTTP/1.1 302 Found\r\n"));
                       EXPECT_FALSE(server.header("\r\n"));
                       EXPECT_FALSE(server.body("elsewhere"));
                       return CURLE_WRITE_ERROR;
                     },
                     302),
                 "redirect_rejected", "Server redirects are not permitted");
  EXPECT_EQ(file->written(), 0u);
}

TEST_F(HttpsRequest, WritesNoByteBeforeTheHeadersAreOver) {
  receive_file(10);
  EXPECT_FAILURE(perform([](const Performance& server) {
                   EXPECT_TRUE(server.header("HTTP/1.1 200 OK\r\n"));
                   return server.body("early") ? CURLE_OK : CURLE_WRITE_ERROR;
                 }),
                 "download_headers", "Download body precedes admitted headers");
  EXPECT_EQ(file->written(), 0u);
}

// --- The file that is sent -----------------------------------------------------------------

TEST_F(HttpsRequest, SendsTheFileInPiecesOfAtMost64KiB) {
  const std::string content = std::string(65'536, 'a') + std::string(65'536, 'b') + "c";
  send_file(content);
  EXPECT_EQ(perform([](const Performance& server) {
              EXPECT_EQ(server.send(1'000'000), std::string(65'536, 'a'));
              EXPECT_EQ(server.send(65'535), std::string(65'535, 'b'));
              EXPECT_EQ(server.send(1'000'000), "bc");
              EXPECT_EQ(server.send(1'000'000), "");
              return CURLE_OK;
            }),
            200);
  EXPECT_EQ(upload->remaining, 0u);
}

TEST_F(HttpsRequest, StopsAtTheEndOfAFileThatShrank) {
  send_file("report");
  EXPECT_FAILURE(perform([&](const Performance& server) {
                   root.write("upload", "rep");
                   EXPECT_FALSE(server.send(6));
                   return CURLE_ABORTED_BY_CALLBACK;
                 }),
                 "network", curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK));
}

TEST_F(HttpsRequest, StopsAtAByteMoreThanTheFileHad) {
  send_file("report");
  EXPECT_FAILURE(perform([&](const Performance& server) {
                   EXPECT_EQ(server.send(6), "report");
                   root.write("upload", "report and more");
                   EXPECT_FALSE(server.send(6));
                   return CURLE_ABORTED_BY_CALLBACK;
                 }),
                 "network", curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK));
}

TEST_F(HttpsRequest, StopsAtAFileThatCannotBeRead) {
  send_file("report");
  upload->file = *os::open(root.path(), os::OpenAs::directory);
  EXPECT_FAILURE(perform([](const Performance& server) {
                   EXPECT_FALSE(server.send(6));
                   return CURLE_ABORTED_BY_CALLBACK;
                 }),
                 "file_read", "Cannot read reviewed upload snapshot");
}

TEST_F(HttpsRequest, StopsAtARoomTooLargeToBeOne) {
  send_file("report");
  EXPECT_FAILURE(perform([](const Performance& server) {
                   EXPECT_EQ(server.too_large_room(), std::size_t{CURL_READFUNC_ABORT});
                   return CURLE_ABORTED_BY_CALLBACK;
                 }),
                 "network", curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK));
  EXPECT_EQ(upload->remaining, 6u);
}

TEST_F(HttpsRequest, ThatWasTakenHasSentTheFileToItsEnd) {
  send_file("report");
  const auto send_some = [](const Performance& server) { return server.send(3) ? CURLE_OK : CURLE_READ_ERROR; };
  for (const long status : {200L, 204L, 299L}) {
    send_file("report");
    EXPECT_FAILURE(perform(send_some, status), "crash_changed", changed_message) << status;
  }
  for (const long status : {100L, 199L, 400L, 413L}) {
    send_file("report");
    EXPECT_EQ(perform(send_some, status), status);
  }
}

TEST_F(HttpsRequest, ThatWasTakenHasSentAFileThatDidNotGrow) {
  send_file("report");
  const auto grow = [&](const Performance& server) {
    EXPECT_EQ(server.send(6), "report");
    root.write("upload", "report and more");
    return CURLE_OK;
  };
  EXPECT_FAILURE(perform(grow), "crash_changed", changed_message);
  send_file("report");
  EXPECT_EQ(perform(grow, 413), 413);
}

// --- The order of the results --------------------------------------------------------------

// Everything goes wrong in one request, but for what a test takes away.
class HttpsResult : public HttpsRequest {
 protected:
  HttpsResult() {
    send_file("report");
    upload->file = *os::open(root.path(), os::OpenAs::directory);
    budget = &give_budget(11);
    transfer.progress = [this](std::uint64_t, std::uint64_t) {
      if (throws) {
        throw Error("of_the_caller", "Thrown by progress");
      }
      return goes_on;
    };
  }

  CURLcode happen(const Performance& server) {
    if (throws) {
      EXPECT_FALSE(server.progress());
      throws = false;
    }
    if (unreadable) {
      EXPECT_FALSE(server.send(6));
    }
    if (cancels) {
      goes_on = false;
      EXPECT_FALSE(server.progress());
      goes_on = true;
    }
    if (exceeds) {
      EXPECT_FALSE(server.body("12345678901"));
    }
    if (exhausts) {
      EXPECT_FALSE(server.body("1"));
    }
    if (late) {
      now = budget->deadline;
      EXPECT_FALSE(server.progress());
    }
    return result;
  }

  long perform_all() {
    return perform([this](const Performance& server) { return happen(server); }, 302);
  }

  HttpsBudget* budget = nullptr;
  bool throws = true;
  bool unreadable = true;
  bool cancels = true;
  bool exhausts = true;
  bool late = true;
  bool exceeds = true;
  CURLcode result = CURLE_OPERATION_TIMEDOUT;
  bool goes_on = true;
};

TEST_F(HttpsResult, IsFirstWhatACallbackThrew) { EXPECT_FAILURE(perform_all(), "of_the_caller", "Thrown by progress"); }

TEST_F(HttpsResult, IsSecondWhatTheUploadThrew) {
  throws = false;
  EXPECT_FAILURE(perform_all(), "file_read", "Cannot read reviewed upload snapshot");
}

TEST_F(HttpsResult, IsThirdThatItWasCancelled) {
  throws = unreadable = false;
  EXPECT_FAILURE(perform_all(), "cancelled", cancelled_message);
}

TEST_F(HttpsResult, IsFourthThatTheBudgetsBytesAreUsedUp) {
  throws = unreadable = cancels = false;
  EXPECT_FAILURE(perform_all(), "discovery_budget", exhausted_message);
}

TEST_F(HttpsResult, IsFifthThatTheBudgetsTimeIsUsedUp) {
  throws = unreadable = cancels = exhausts = false;
  EXPECT_FAILURE(perform_all(), "discovery_timeout", late_message);
}

TEST_F(HttpsResult, IsFifthThatTheLibraryRanOutOfTheBudgetsTime) {
  throws = unreadable = cancels = exhausts = late = false;
  EXPECT_FAILURE(perform_all(), "discovery_timeout", late_message);
}

TEST_F(HttpsResult, IsSixthThatTheAnswerIsTooLarge) {
  throws = unreadable = cancels = exhausts = late = false;
  result = CURLE_WRITE_ERROR;
  EXPECT_FAILURE(perform_all(), "size_limit", too_much_message);
}

TEST_F(HttpsResult, IsSeventhAProblemOfTheNetwork) {
  throws = unreadable = cancels = exhausts = late = exceeds = false;
  result = CURLE_SEND_ERROR;
  EXPECT_FAILURE(perform_all(), "network", curl_easy_strerror(CURLE_SEND_ERROR));
}

TEST_F(HttpsResult, IsARedirectOfAnUpload) {
  throws = unreadable = cancels = exhausts = late = exceeds = false;
  result = CURLE_OK;
  EXPECT_FAILURE(perform_all(), "redirect_rejected", "Server redirects are not permitted");
}

TEST_F(HttpsRequest, ThatFailsInTheNetworkSaysSoRatherThanThatItIsShort) {
  receive_file(10);
  EXPECT_FAILURE(perform([](const Performance& server) {
                   EXPECT_TRUE(server.header("HTTP/1.1 200 OK\r\n") && server.header("\r\n") && server.body("0123"));
                   return CURLE_RECV_ERROR;
                 }),
                 "network", curl_easy_strerror(CURLE_RECV_ERROR));
  EXPECT_EQ(file->written(), 4u);
}

TEST_F(HttpsRequest, ThatIsShortSaysSoWhateverItsStatus) {
  receive_file(10);
  EXPECT_FAILURE(
      perform(
          [](const Performance& server) {
            EXPECT_TRUE(server.header("HTTP/1.1 200 OK\r\n") && server.header("\r\n") && server.body("0123"));
            return CURLE_OK;
          },
          302),
      "length_mismatch", "Download body is shorter than its authenticated response length");
}

// The first exception of a callback stays, whatever comes behind it.
TEST_F(HttpsRequest, KeepsTheFirstException) {
  int calls = 0;
  transfer.progress = [&](std::uint64_t, std::uint64_t) -> bool { throw Error("call_" + std::to_string(++calls), ""); };
  EXPECT_FAILURE(perform([](const Performance& server) {
                   EXPECT_FALSE(server.progress());
                   EXPECT_FALSE(server.progress());
                   return CURLE_ABORTED_BY_CALLBACK;
                 }),
                 "call_1", "");
  EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace ravok
