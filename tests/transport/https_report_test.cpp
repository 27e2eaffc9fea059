// Documents and files that a service is sent.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/scripted_server.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::answer;
using testing::body_of;
using testing::Conversation;
using testing::head_of;
using testing::response;
using testing::ScriptedServer;
using testing::sized;
using testing::whole;

class HttpsDocument : public testing::ScriptedPlace {};

TEST_F(HttpsDocument, ADocumentIsPostedAsItIs) {
  const ScriptedServer server(authority_.issue(), answer(sized(whole, "HTTP/1.1 201 Created")));
  const TransportResponse got = client(server.url()).post_json("tickets", {{"size", 16}, {"what", "a report"}}, {});
  EXPECT_EQ(got.status, 201);
  EXPECT_EQ(got.body, whole);
  ASSERT_EQ(server.requests().size(), 1u);
  const std::string request = server.requests()[0];
  EXPECT_EQ(head_of(request),
            (std::vector<std::string>{"POST /tickets HTTP/1.1", "Accept: */*", "Content-Length: 29",
                                      "Content-Type: application/json", host_of(server), "User-Agent: Ravok/0.1"}));
  EXPECT_EQ(body_of(request), R"({"size":16,"what":"a report"})");
}

TEST_F(HttpsDocument, AnAnswerToADocumentHasAtMost16Kib) {
  for (const std::size_t size : {16'384u, 16'385u}) {
    const ScriptedServer server(authority_.issue(), answer(sized(std::string(size, 'x'))));
    HttpsTransport transport = client(server.url());
    if (size == 16'384u) {
      EXPECT_EQ(transport.post_json("tickets", Json::object(), {}).body.size(), size);
    } else {
      EXPECT_FAILURE(transport.post_json("tickets", Json::object(), {}), "size_limit",
                     "Server sent more than the authenticated size limit");
    }
  }
}

TEST_F(HttpsDocument, ADocumentHasAtMost4Kib) {
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  HttpsTransport transport = client(server.url());
  const std::string longest(4'094, 'x');  // between quotation marks
  EXPECT_EQ(transport.post_json("tickets", longest, {}).body, whole);
  EXPECT_FAILURE(transport.post_json("tickets", longest + "x", {}), "size_limit", "Ticket request exceeds 4 KiB");
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(body_of(server.requests()[0]), '"' + longest + '"');
}

class HttpsReport : public testing::ScriptedPlace {
 protected:
  const std::string token_ = std::string(32, 'a') + std::string(32, '7');
};

TEST_F(HttpsReport, IsSentWholeWithItsToken) {
  std::string report;
  for (int at = 0; at < 2'000'000; ++at) {
    report += static_cast<char>(at % 65'521 % 251);
  }
  root_.write("report", report);
  const ScriptedServer server(authority_.issue(), answer(sized(whole, "HTTP/1.1 202 Accepted")));
  const TransportResponse got =
      client(server.url()).upload_report("reports/one", root_ / "report", report.size(), token_, {});
  EXPECT_EQ(got.status, 202);
  EXPECT_EQ(got.body, whole);
  ASSERT_EQ(server.requests().size(), 1u);
  const std::string request = server.requests()[0];
  EXPECT_EQ(head_of(request),
            (std::vector<std::string>{"POST /reports/one HTTP/1.1", "Accept: */*", "Authorization: Bearer " + token_,
                                      "Content-Length: 2000000", "Content-Type: application/octet-stream",
                                      host_of(server), "User-Agent: Ravok/0.1"}));
  EXPECT_EQ(body_of(request), report);
}

TEST_F(HttpsReport, IsRefusedByTheServerWithAStatusThatIsTheCallersToJudge) {
  root_.write("report", whole);
  for (const int status : {400, 403, 408, 413, 429, 503}) {
    const ScriptedServer server(authority_.issue(),
                                answer(sized("no", "HTTP/1.1 " + std::to_string(status) + " Refused")));
    EXPECT_EQ(client(server.url()).upload_report("one", root_ / "report", whole.size(), token_, {}).status, status);
    EXPECT_EQ(server.requests().size(), 1u) << status;
  }
}

// A server need not read what it does not want.
TEST_F(HttpsReport, MayBeRefusedBeforeAllOfItIsSent) {
  const std::filesystem::path report = root_.write("report", std::string(20'000'000, 'x'));
  for (const int status : {401, 413, 503}) {
    const std::string line = "HTTP/1.1 " + std::to_string(status) + " Refused";
    const ScriptedServer server(authority_.issue(), [&](Conversation& peer) { peer.send(sized("no", line)); });
    std::uint64_t sent = 0;
    const TransportResponse got =
        client(server.url())
            .upload_report("one", report, 20'000'000, token_, [&](std::uint64_t done, std::uint64_t /*total*/) {
              sent = done;
              return true;
            });
    EXPECT_EQ(got.status, status);
    EXPECT_EQ(got.body, "no");
    EXPECT_LT(sent, 20'000'000u);
  }
}

// Who says that a report has arrived before all of it was sent has not got it.
TEST_F(HttpsReport, IsNotTakenBeforeAllOfItIsSent) {
  const std::filesystem::path report = root_.write("report", std::string(20'000'000, 'x'));
  const ScriptedServer server(authority_.issue(), [](Conversation& peer) {
    peer.send(response("Connection: close\r\nContent-Length: 0\r\n", {}));
    peer.reset();
  });
  const auto failure =
      testing::failure_of([&] { client(server.url()).upload_report("one", report, 20'000'000, token_, {}); });
  ASSERT_TRUE(failure);
  EXPECT_TRUE(failure->code == "crash_changed" || failure->code == "network") << failure->code;
}

TEST_F(HttpsReport, MayBeAnsweredInSteps) {
  const std::filesystem::path report = root_.write("report", whole);
  const std::string steps = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 102 Processing\r\n\r\n";
  const ScriptedServer server(authority_.issue(), answer(steps + sized("yes", "HTTP/1.1 201 Created")));
  const TransportResponse got = client(server.url()).upload_report("one", report, whole.size(), token_, {});
  EXPECT_EQ(got.status, 201);
  EXPECT_EQ(got.body, "yes");
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(body_of(server.requests()[0]), whole);
}

TEST_F(HttpsReport, ThatGrowsMeanwhileIsNoneThatWasReviewed) {
  const std::filesystem::path report = root_.write("report", std::string(300'000, 'x'));
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  bool grown = false;
  const auto grow = [&](std::uint64_t /*done*/, std::uint64_t /*total*/) {
    if (!grown) {
      std::ofstream(report, std::ios::binary | std::ios::app) << 'x';
      grown = true;
    }
    return true;
  };
  EXPECT_FAILURE(client(server.url()).upload_report("one", report, 300'000, token_, grow), "crash_changed",
                 "Frozen upload snapshot changed during transfer");
}

TEST_F(HttpsReport, IsCancelledOnTheWay) {
  const std::filesystem::path report = root_.write("report", std::string(5'000'000, 'x'));
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  EXPECT_FAILURE(client(server.url())
                     .upload_report("one", report, 5'000'000, token_,
                                    [](std::uint64_t done, std::uint64_t /*total*/) { return done == 0; }),
                 "cancelled", "Transfer cancelled at a safe boundary");
}

TEST_F(HttpsReport, ThatMayNotBeSentIsNotSent) {
  const std::filesystem::path report = root_.write("report", whole);
  const std::filesystem::path link = root_ / "link";
  std::filesystem::create_symlink(report, link);
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  HttpsTransport transport = client(server.url());
  const auto upload = [&](const std::filesystem::path& file, std::uint64_t size, const std::string& token) {
    return transport.upload_report("one", file, size, token, {});
  };
  for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{104'857'601}, ~std::uint64_t{0}}) {
    EXPECT_FAILURE(upload(report, size, token_), "size_limit", "Report upload exceeds 100 MiB");
  }
  for (const std::string& token : {std::string(), token_.substr(1), token_ + "a", "A" + token_.substr(1),
                                   "g" + token_.substr(1), "\n" + token_.substr(1)}) {
    EXPECT_FAILURE(upload(report, 16, token), "crash_ticket", "Upload capability is invalid") << token;
  }
  for (const std::filesystem::path& file : {link, root_.path(), root_ / "missing"}) {
    EXPECT_FAILURE(upload(file, 16, token_), "crash_changed", "Frozen upload snapshot is invalid") << file;
  }
  EXPECT_FAILURE(upload(report, 15, token_), "crash_changed", "Frozen upload snapshot is invalid");
  EXPECT_FAILURE(upload(report, 17, token_), "crash_changed", "Frozen upload snapshot is invalid");
  EXPECT_EQ(server.requests(), std::vector<std::string>());
}

}  // namespace
}  // namespace ravok
