// Requests that their caller ends on the way.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "support/scripted_server.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::Conversation;
using testing::rest_of;
using testing::ScriptedServer;
using testing::send_half;
using testing::sized;
using testing::whole;

constexpr const char* at_safe_boundary = "Transfer cancelled at a safe boundary";

bool goes_on(std::uint64_t done, std::uint64_t /*total*/) { return done < 8; }

// Answers so often that it is to go on, and then never again. Tells whether it was asked that often.
class Patience {
 public:
  explicit Patience(int calls) : calls_(calls) {}

  ProgressCallback progress() {
    return [this](std::uint64_t done, std::uint64_t total) {
      EXPECT_TRUE(total == 0 || done <= total);
      return ++asked_ <= calls_;
    };
  }
  bool ended() const { return asked_ > calls_; }

 private:
  int calls_;
  int asked_ = 0;
};

class HttpsCancel : public testing::ScriptedPlace {
 protected:
  static constexpr int most_calls = 10'000;

  const std::string content_ = testing::large_content(150'001);

  // Sends what is left of the content in pieces, as slowly as the client reads.
  ScriptedServer::Script content_in_pieces() const {
    return [this](Conversation& peer) {
      const std::string sent = rest_of(content_, peer.read_request());
      for (std::size_t at = 0; at < sent.size(); at += 10'000) {
        peer.send(std::string_view(sent).substr(at, 10'000));
      }
    };
  }
};

TEST_F(HttpsCancel, ADownloadIsCancelledOnTheWayAndLeavesNoFile) {
  const ScriptedServer server(authority_.issue(), send_half);
  EXPECT_FAILURE(client(server.url()).download("file", destination(), whole.size(), goes_on), "cancelled",
                 "Transfer cancelled at a safe boundary");
  EXPECT_EQ(files(), std::vector<std::string>());
}

TEST_F(HttpsCancel, AFileKeepsWhatCameBeforeItWasCancelled) {
  const ScriptedServer server(authority_.issue(), send_half);
  testing::PartialFile file(root_ / "part", whole.size(), {});
  HttpsTransport transport = client(server.url());
  EXPECT_FAILURE(file.fetch_rest(transport, "file", goes_on), "cancelled", "Transfer cancelled at a safe boundary");
  EXPECT_EQ(file.content(), whole.substr(0, 8));
  EXPECT_EQ(file.told(), whole.substr(0, 8));
}

TEST_F(HttpsCancel, WhatAFunctionOfTheCallerThrowsEndsTheRequestAndGoesOn) {
  const ScriptedServer server(authority_.issue(), send_half);
  const auto refuse = [](std::uint64_t done, std::uint64_t total) {
    require(goes_on(done, total), "of_the_caller", "Half is enough");
    return true;
  };
  EXPECT_FAILURE(client(server.url()).download("file", destination(), whole.size(), refuse), "of_the_caller",
                 "Half is enough");
  EXPECT_EQ(files(), std::vector<std::string>());
}

TEST_F(HttpsCancel, AtAnyTickOfADownloadLeavesNoFile) {
  const ScriptedServer server(authority_.issue(), content_in_pieces());
  HttpsTransport transport = client(server.url());
  int calls = 0;
  for (bool done = false; !done; ++calls) {
    ASSERT_LT(calls, most_calls);
    Patience patience(calls);
    const auto failure =
        testing::failure_of([&] { transport.download("file", destination(), content_.size(), patience.progress()); });
    done = !patience.ended();
    ASSERT_EQ(failure.has_value(), !done) << calls;
    if (failure) {
      EXPECT_EQ(failure->code, "cancelled");
      EXPECT_STREQ(failure->what(), at_safe_boundary);
      EXPECT_EQ(files(), std::vector<std::string>());
    }
  }
  EXPECT_GT(calls, 3);
  EXPECT_EQ(root_.read("files/file"), content_);
}

TEST_F(HttpsCancel, AtAnyTickOfAPartKeepsATruePrefixToGoOnFrom) {
  const ScriptedServer server(authority_.issue(), content_in_pieces());
  HttpsTransport transport = client(server.url());
  int calls = 0;
  for (bool done = false; !done; ++calls) {
    ASSERT_LT(calls, most_calls);
    testing::PartialFile file(root_ / "part", content_.size(), {});
    Patience patience(calls);
    const auto failure = testing::failure_of([&] { file.fetch_rest(transport, "file", patience.progress()); });
    done = !patience.ended();
    ASSERT_EQ(failure.has_value(), !done) << calls;
    if (failure) {
      EXPECT_EQ(failure->code, "cancelled");
      EXPECT_STREQ(failure->what(), at_safe_boundary);
    }
    EXPECT_TRUE(content_.starts_with(file.content()));
    EXPECT_TRUE(file.told() == file.content());
    if (file.content().size() < content_.size()) {
      file.fetch_rest(transport, "file");
    }
    EXPECT_TRUE(file.content() == content_);
    EXPECT_TRUE(file.told() == content_);
  }
  EXPECT_GT(calls, 3);
}

// A request that carries a document or a report, ended at each of its ticks.
TEST_F(HttpsCancel, AtAnyTickOfWhatIsSentSaysSo) {
  const ScriptedServer server(authority_.issue(), testing::answer(sized(whole)));
  HttpsTransport transport = client(server.url());
  const std::filesystem::path report = root_.write("report", content_);
  const std::vector<std::function<TransportResponse(const ProgressCallback&)>> requests = {
      [&](const ProgressCallback& progress) { return transport.post_json("file", Json::object(), progress); },
      [&](const ProgressCallback& progress) {
        return transport.upload_report("file", report, content_.size(), std::string(64, 'a'), progress);
      }};
  for (const auto& request : requests) {
    int calls = 0;
    for (bool done = false; !done; ++calls) {
      ASSERT_LT(calls, most_calls);
      Patience patience(calls);
      TransportResponse got;
      const auto failure = testing::failure_of([&] { got = request(patience.progress()); });
      done = !patience.ended();
      ASSERT_EQ(failure.has_value(), !done) << calls;
      if (failure) {
        EXPECT_EQ(failure->code, "cancelled");
        EXPECT_STREQ(failure->what(), at_safe_boundary);
      } else {
        EXPECT_EQ(got.body, whole);
      }
    }
    EXPECT_GT(calls, 3);
  }
  EXPECT_EQ(root_.read("report"), content_);
}

// A check is called off between any two looks at it.
TEST_F(HttpsCancel, OfAnOptionalCheckEndsAnyRequestAtAnyLook) {
  const ScriptedServer server(authority_.issue(), testing::answer(sized(whole)));
  int calls = 0;
  for (bool done = false; !done; ++calls) {
    ASSERT_LT(calls, most_calls);
    int asked = 0;
    const auto budget = std::make_shared<HttpsBudget>();
    budget->deadline = std::chrono::steady_clock::now() + std::chrono::seconds(29);
    budget->limit = 16;
    budget->cancel = [&] { return ++asked > calls; };
    HttpsTransport transport(server.url(), root_ / "authority.pem", 0, budget);
    const auto failure = testing::failure_of([&] { EXPECT_EQ(transport.get("file", 16).body, whole); });
    done = asked <= calls;
    ASSERT_EQ(failure.has_value(), !done) << calls;
    if (failure) {
      EXPECT_EQ(failure->code, "cancelled");
      EXPECT_STREQ(failure->what(), calls == 0 ? "Optional update check cancelled" : at_safe_boundary);
    }
    EXPECT_TRUE(budget->used == 0 || budget->used == 16) << budget->used;
  }
  EXPECT_GT(calls, 3);
}

}  // namespace
}  // namespace ravok
