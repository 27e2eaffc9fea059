// The bounds of an optional check in requests to a server.

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/loopback_listener.hpp"
#include "support/scripted_server.hpp"
#include "transport/https_request.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::answer;
using testing::chunked;
using testing::in_turn;
using testing::ScriptedServer;
using testing::send_half;
using testing::sized;
using testing::whole;
using testing::with_header_bytes;

class HttpsOptionalCheck : public testing::ScriptedPlace {
 protected:
  static std::shared_ptr<HttpsBudget> budget(std::chrono::milliseconds time = std::chrono::seconds(29)) {
    return std::make_shared<HttpsBudget>(
        HttpsBudget{.deadline = std::chrono::steady_clock::now() + time, .limit = 40, .used = 0, .cancel = {}});
  }
  HttpsTransport client_with(const std::shared_ptr<HttpsBudget>& budget, const ScriptedServer& server) const {
    return {server.url(), root_ / "authority.pem", 0, budget};
  }
};

TEST_F(HttpsOptionalCheck, TakesItsBytesInAllItsRequestsTogether) {
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  const std::shared_ptr<HttpsBudget> shared = budget();
  HttpsTransport transport = client_with(shared, server);
  EXPECT_EQ(transport.get("file", 16).body, whole);
  EXPECT_FAILURE(transport.get("file", 15), "size_limit", "Server sent more than the authenticated size limit");
  EXPECT_EQ(shared->used, 32u);
  EXPECT_FAILURE(transport.get("file", 16), "discovery_budget",
                 "Optional update check exhausted its response budget; use Check for updates for a complete check");
  EXPECT_EQ(shared->used, 32u);
}

TEST_F(HttpsOptionalCheck, EndsAtItsDeadline) {
  const ScriptedServer server(authority_.issue(), send_half);
  // Half of the answer has come when the time is over.
  const std::shared_ptr<HttpsBudget> running_out = budget();
  running_out->cancel = [check = running_out.get()] {
    if (check->used > 0) {
      check->deadline = std::chrono::steady_clock::now();
    }
    return false;
  };
  HttpsTransport transport = client_with(running_out, server);
  EXPECT_FAILURE(transport.get("file", 16), "discovery_timeout",
                 "Optional update check exhausted its time budget; use Check for updates when ready");
}

// Whoever takes the connection says nothing, not even in TLS.
TEST_F(HttpsOptionalCheck, EndsBeforeThereIsAConnection) {
  const testing::LoopbackListener silent;
  const std::string url = "https://localhost:" + std::to_string(silent.port());
  const std::shared_ptr<HttpsBudget> running_out = budget();
  running_out->cancel = [&silent, check = running_out.get()] {
    if (silent.was_reached()) {
      check->deadline = std::chrono::steady_clock::now();
    }
    return false;
  };
  HttpsTransport late(url, root_ / "authority.pem", 0, running_out);
  EXPECT_FAILURE(late.get("file", 16), "discovery_timeout",
                 "Optional update check exhausted its time budget; use Check for updates when ready");
  EXPECT_FAILURE(late.get("file", 16), "discovery_timeout", "Optional update check exhausted its time budget");
  const std::shared_ptr<HttpsBudget> shared = budget();
  int looks = 0;
  shared->cancel = [&] { return ++looks > 2; };
  HttpsTransport called_off(url, root_ / "authority.pem", 0, shared);
  EXPECT_FAILURE(called_off.download("file", destination(), whole.size(), {}), "cancelled",
                 "Transfer cancelled at a safe boundary");
  EXPECT_EQ(files(), std::vector<std::string>());
  EXPECT_EQ(shared->used, 0u);
  EXPECT_TRUE(silent.was_reached());
}

TEST_F(HttpsOptionalCheck, IsCalledOffOnTheWay) {
  const ScriptedServer server(authority_.issue(), send_half);
  const std::shared_ptr<HttpsBudget> shared = budget();
  shared->cancel = [used = shared.get()] { return used->used > 0; };
  EXPECT_FAILURE(client_with(shared, server).get("file", 16), "cancelled", "Transfer cancelled at a safe boundary");
  EXPECT_EQ(shared->used, 8u);
}

TEST_F(HttpsOptionalCheck, ThatMayNotGoOnAsksNobody) {
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  const std::shared_ptr<HttpsBudget> spent = budget();
  spent->used = 41;
  EXPECT_FAILURE(client_with(spent, server).get("file", 16), "discovery_budget",
                 "Optional update check exhausted its response budget");
  const std::shared_ptr<HttpsBudget> called_off = budget();
  called_off->cancel = [] { return true; };
  EXPECT_FAILURE(client_with(called_off, server).get("file", 16), "cancelled", "Optional update check cancelled");
  for (const int milliseconds : {-1, 0, 40'000}) {
    EXPECT_FAILURE(client_with(budget(std::chrono::milliseconds(milliseconds)), server).get("file", 16),
                   "discovery_timeout", "Optional update check exhausted its time budget")
        << milliseconds;
  }
  EXPECT_EQ(server.requests(), std::vector<std::string>());
}

constexpr const char* out_of_bytes =
    "Optional update check exhausted its response budget; use Check for updates for a complete check";

TEST_F(HttpsOptionalCheck, MayUseItsLastByteAndNotOneMore) {
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  const std::shared_ptr<HttpsBudget> exact = budget();
  exact->limit = 16;
  EXPECT_EQ(client_with(exact, server).get("file", 16).body, whole);
  EXPECT_EQ(exact->used, 16u);
  // What is used up allows another request, but none of its bytes.
  EXPECT_FAILURE(client_with(exact, server).get("file", 16), "discovery_budget", out_of_bytes);
  EXPECT_EQ(exact->used, 16u);
  const std::shared_ptr<HttpsBudget> short_of_one = budget();
  short_of_one->limit = 15;
  EXPECT_FAILURE(client_with(short_of_one, server).get("file", 16), "discovery_budget", out_of_bytes);
  EXPECT_EQ(short_of_one->used, 0u);
  EXPECT_EQ(server.requests().size(), 3u);
}

TEST_F(HttpsOptionalCheck, MayGetAnEmptyAnswerWhenItsBytesAreUsedUp) {
  const ScriptedServer server(authority_.issue(), answer(sized("")));
  const std::shared_ptr<HttpsBudget> spent = budget();
  spent->used = spent->limit;
  EXPECT_EQ(client_with(spent, server).get("file", 16).body, "");
  EXPECT_EQ(spent->used, spent->limit);
}

// Headers are bounded by themselves, and a body that nobody has admitted is not received.
TEST_F(HttpsOptionalCheck, PaysForBodiesAlone) {
  const ScriptedServer server(authority_.issue(), in_turn({with_header_bytes(60'000), sized(whole, "HTTP/1.1 404 None"),
                                                           chunked(whole + "x"), sized(whole)}));
  const std::shared_ptr<HttpsBudget> shared = budget();
  shared->limit = 100;
  HttpsTransport transport = client_with(shared, server);
  const auto download = [&] { transport.download("file", destination(), whole.size(), {}); };
  download();
  EXPECT_EQ(shared->used, 16u);
  std::filesystem::remove(destination());
  EXPECT_FAILURE(download(), "http_status", "Download failed with status 404");
  EXPECT_EQ(shared->used, 16u);
  EXPECT_FAILURE(download(), "size_limit", "Server sent more than the authenticated size limit");
  EXPECT_EQ(shared->used, 33u);
  testing::PartialFile file(root_ / "part", whole.size(), whole.substr(0, 4));
  file.fetch_rest(transport, "file");
  EXPECT_EQ(file.told(), "[restart]" + whole);
  EXPECT_EQ(shared->used, 49u);
  EXPECT_EQ(server.requests().size(), 4u);
  EXPECT_EQ(files(), std::vector<std::string>());
}

TEST_F(HttpsOptionalCheck, EndsADownloadThatItsBytesDoNotCover) {
  const ScriptedServer server(authority_.issue(), answer(chunked(whole)));
  const std::shared_ptr<HttpsBudget> shared = budget();
  shared->limit = 15;
  HttpsTransport transport = client_with(shared, server);
  EXPECT_FAILURE(transport.download("file", destination(), whole.size(), {}), "discovery_budget", out_of_bytes);
  EXPECT_EQ(shared->used, 5u);
  EXPECT_EQ(files(), std::vector<std::string>());
  testing::PartialFile file(root_ / "part", whole.size(), {});
  EXPECT_FAILURE(file.fetch_rest(transport, "file"), "discovery_budget", out_of_bytes);
  EXPECT_EQ(file.content(), whole.substr(0, 5));
  EXPECT_EQ(file.told(), whole.substr(0, 5));
  EXPECT_EQ(shared->used, 10u);
}

// Makes a request in a clock that stands still, with so much time left.
class HttpsDeadline : public testing::ScriptedPlace {
 protected:
  void get_within(std::chrono::microseconds left, const ScriptedServer& server) const {
    const auto now = std::chrono::steady_clock::now();
    Transfer transfer;
    transfer.limit = whole.size();
    transfer.surroundings.now = [now] { return now; };
    transfer.budget = std::make_shared<HttpsBudget>();
    transfer.budget->limit = whole.size();
    transfer.budget->deadline = now + left;
    request(server.url() + "file", root_ / "authority.pem", transfer, 0, nullptr);
    EXPECT_EQ(transfer.body, whole);
  }
};

TEST_F(HttpsDeadline, IsAtMostThirtySecondsAwayAndAtLeastOneMillisecond) {
  using std::chrono::microseconds;
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  get_within(microseconds(30'000'000), server);
  get_within(microseconds(30'000'999), server);
  EXPECT_EQ(server.requests().size(), 2u);
  for (const microseconds left : {microseconds(30'001'000), microseconds(999), microseconds(0), microseconds(-1'000)}) {
    EXPECT_FAILURE(get_within(left, server), "discovery_timeout", "Optional update check exhausted its time budget");
  }
  EXPECT_EQ(server.requests().size(), 2u);
  const ScriptedServer silent(authority_.issue(), send_half);
  EXPECT_FAILURE(get_within(microseconds(1'000), silent), "discovery_timeout",
                 "Optional update check exhausted its time budget; use Check for updates when ready");
}

}  // namespace
}  // namespace ravok
