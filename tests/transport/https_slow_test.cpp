// Servers that let a client wait. The time without a byte that a request allows is one second here.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/scripted_server.hpp"
#include "transport/https_request.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::Conversation;
using testing::response;
using testing::ScriptedServer;
using testing::whole;

struct SlowServer {
  const char* name;
  std::string beginning;
  std::string piece;  // comes now and then behind it
};

const std::vector<SlowServer> slow_servers = {
    {"says nothing", {}, {}},
    {"trickles its headers", "HTTP/1.1 200 OK\r\nX: ", "x"},
    {"trickles header lines", "HTTP/1.1 200 OK\r\n", "X: y\r\n"},
    {"trickles interim answers", {}, "HTTP/1.1 103 Early Hints\r\n\r\n"},
    {"says nothing behind its headers", response("Content-Length: 16\r\n", {}), {}},
    {"trickles an extension of a chunk", response("Transfer-Encoding: chunked\r\n", "10;"), "x"},
    {"stays silent after a byte of the body", response("Content-Length: 16\r\n", whole.substr(0, 1)), {}},
};

class HttpsSlow : public testing::ScriptedPlace {
 protected:
  struct Run {
    std::string name;
    std::optional<Error> failure;
    std::size_t requests = 0;
  };

  // Makes this request to each of the servers, all at the same time.
  std::vector<Run> run_all(const std::function<void(Transfer&, std::size_t)>& prepare) const {
    std::vector<Run> runs(slow_servers.size());
    std::vector<std::thread> threads;
    for (std::size_t at = 0; at < runs.size(); ++at) {
      threads.emplace_back([&, at] {
        const SlowServer& slow = slow_servers[at];
        ScriptedServer server(authority_.issue(), [&slow](Conversation& peer) {
          peer.read_request();
          peer.send(slow.beginning);
          if (slow.piece.empty()) {
            peer.wait();
          }
          while (!slow.piece.empty() && peer.is_open()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            peer.send(slow.piece);
          }
        });
        Transfer transfer;
        transfer.limit = whole.size();
        transfer.surroundings.low_speed_seconds = 1;
        prepare(transfer, at);
        runs[at].name = slow.name;
        runs[at].failure =
            testing::failure_of([&] { request(server.url() + "file", root_ / "authority.pem", transfer, 0, nullptr); });
        runs[at].requests = server.requests().size();
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    return runs;
  }

  static void expect_all(const std::vector<Run>& runs, const std::string& code, const std::string& message) {
    for (const Run& run : runs) {
      ASSERT_TRUE(run.failure) << run.name;
      EXPECT_EQ(run.failure->code, code) << run.name;
      EXPECT_EQ(run.failure->what(), message) << run.name;
      EXPECT_LE(run.requests, 1u) << run.name;
    }
  }
};

TEST_F(HttpsSlow, EndARequestInMemory) {
  expect_all(run_all([](Transfer&, std::size_t) {}), "network", "Timeout was reached");
}

TEST_F(HttpsSlow, EndARequestForAFile) {
  std::vector<std::unique_ptr<AllocatedFile>> partial_files;
  for (std::size_t at = 0; at < slow_servers.size(); ++at) {
    partial_files.push_back(std::make_unique<AllocatedFile>(root_ / std::to_string(at), whole.size(), nullptr));
  }
  const auto receive_file = [&](Transfer& transfer, std::size_t at) {
    transfer.file = partial_files[at].get();
    transfer.total = whole.size();
    transfer.headers.emplace(whole.size(), 0, true);
  };
  // So many interim answers are refused sooner.
  std::vector<Run> runs = run_all(receive_file);
  std::erase_if(runs, [](const Run& run) { return run.name == "trickles interim answers"; });
  expect_all(runs, "network", "Timeout was reached");
  for (std::size_t at = 0; at < slow_servers.size(); ++at) {
    EXPECT_LE(partial_files[at]->written(), at + 1 == slow_servers.size() ? 1u : 0u) << slow_servers[at].name;
  }
}

// The time of a check may be shorter than the time without a byte. It counts however many bytes come.
TEST_F(HttpsSlow, EndAnOptionalCheckAtItsDeadline) {
  const auto give_budget = [](Transfer& transfer, std::size_t) {
    transfer.surroundings.low_speed_seconds = 30;
    transfer.budget = std::make_shared<HttpsBudget>();
    transfer.budget->limit = 100;
    // Time stands still here, so that only the library's own clock ends the request.
    const auto now = std::chrono::steady_clock::now();
    transfer.surroundings.now = [now] { return now; };
    transfer.budget->deadline = now + std::chrono::milliseconds(400);
  };
  expect_all(run_all(give_budget), "discovery_timeout",
             "Optional update check exhausted its time budget; use Check for updates when ready");
}

TEST_F(HttpsSlow, EndAnOptionalCheckThatGetsNothing) {
  const auto give_budget = [](Transfer& transfer, std::size_t) {
    transfer.budget = std::make_shared<HttpsBudget>();
    transfer.budget->limit = 100;
    transfer.budget->deadline = std::chrono::steady_clock::now() + std::chrono::seconds(29);
  };
  expect_all(run_all(give_budget), "discovery_timeout",
             "Optional update check exhausted its time budget; use Check for updates when ready");
}

// A server that sends a byte now and then is not silent, but an answer in memory has a time of its own.
TEST_F(HttpsSlow, HaveABoundOnAllOfTheirTimeWhereTheAnswerIsInMemory) {
  ScriptedServer server(authority_.issue(), [](Conversation& peer) {
    peer.read_request();
    peer.send(response("Connection: close\r\n", {}));
    while (peer.is_open()) {
      peer.send("x");
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  Transfer transfer;
  transfer.limit = 1'000'000;
  transfer.surroundings.low_speed_seconds = 1;
  transfer.budget = std::make_shared<HttpsBudget>();
  transfer.budget->limit = 1'000'000;
  // Time stands still here, so that only the library's own clock ends the request.
  const auto now = std::chrono::steady_clock::now();
  transfer.surroundings.now = [now] { return now; };
  // On a busy machine the first byte may come later than the first of these.
  for (std::chrono::milliseconds time(1'500); transfer.body.empty() && time < std::chrono::seconds(30); time *= 2) {
    transfer.budget->deadline = now + time;
    EXPECT_FAILURE(request(server.url() + "file", root_ / "authority.pem", transfer, 0, nullptr), "discovery_timeout",
                   "Optional update check exhausted its time budget; use Check for updates when ready");
  }
  EXPECT_FALSE(transfer.body.empty());
  EXPECT_EQ(transfer.budget->used, transfer.body.size());
}

}  // namespace
}  // namespace ravok
