// What a status means for a request, and that none of them makes a client ask again.

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/scripted_server.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::answer;
using testing::answer_and_cut;
using testing::Conversation;
using testing::in_turn;
using testing::response;
using testing::ScriptedServer;
using testing::sized;
using testing::whole;

// The answers with a status: with and without a body, and with a time after which a client may ask again.
std::vector<std::string> answers_with(int status) {
  const std::string line = "HTTP/1.1 " + std::to_string(status) + " Told";
  std::vector<std::string> answers = {sized(whole, line), sized("", line)};
  for (const char* const time : {"0", "1", "Thu, 01 Jan 1970 00:00:00 GMT", "soon"}) {
    answers.push_back(response("Retry-After: " + std::string(time) + "\r\nContent-Length: 16\r\n", whole, line));
  }
  return answers;
}

// Sends each answer three times.
ScriptedServer::Script thrice(const std::vector<std::string>& answers) {
  std::vector<std::string> each;
  for (const std::string& sent : answers) {
    each.insert(each.end(), 3, sent);
  }
  return in_turn(each);
}

class HttpsStatus : public testing::ScriptedPlace, public ::testing::WithParamInterface<int> {
 protected:
  // Asks for a whole file, and for the rest of one.
  void expect_refused(HttpsTransport& transport, const std::string& code, const std::string& message) {
    EXPECT_FAILURE(transport.download("file", destination(), whole.size(), {}), code, message);
    EXPECT_EQ(files(), std::vector<std::string>());
    testing::PartialFile part(root_ / "part", whole.size(), whole.substr(0, 4));
    EXPECT_FAILURE(part.fetch_rest(transport, "file"), code, message);
    EXPECT_EQ(part.content(), whole.substr(0, 4));
    EXPECT_EQ(part.told(), "");
  }
};

class HttpsOtherStatus : public HttpsStatus {};

TEST_P(HttpsOtherStatus, IsTheCallersToJudgeInMemoryAndRefusedForAFile) {
  const int status = GetParam();
  const bool has_body = status != 204;  // by its meaning
  const std::vector<std::string> answers = answers_with(status);
  const ScriptedServer server(authority_.issue(), thrice(answers));
  HttpsTransport transport = client(server.url());
  for (std::size_t at = 0; at < answers.size(); ++at) {
    const TransportResponse got = transport.get("file", 16);
    EXPECT_EQ(got.status, status);
    EXPECT_EQ(got.body, has_body && at != 1 ? whole : "");
    expect_refused(transport, "http_status", "Download failed with status " + std::to_string(status));
    EXPECT_EQ(server.requests().size(), 3 * (at + 1)) << answers[at];
  }
}

INSTANTIATE_TEST_SUITE_P(Https, HttpsOtherStatus,
                         ::testing::Values(201, 202, 203, 204, 205, 299, 400, 401, 403, 404, 407, 408, 409, 410, 412,
                                           413, 416, 418, 425, 429, 451, 500, 501, 502, 503, 504, 511, 599),
                         ::testing::PrintToStringParamName());

class HttpsRedirection : public HttpsStatus {};

TEST_P(HttpsRedirection, IsRefused) {
  const std::vector<std::string> answers = answers_with(GetParam());
  const ScriptedServer server(authority_.issue(), thrice(answers));
  HttpsTransport transport = client(server.url());
  constexpr const char* message = "Server redirects are not permitted";
  for (std::size_t at = 0; at < answers.size(); ++at) {
    EXPECT_FAILURE(transport.get("file", 16), "redirect_rejected", message);
    expect_refused(transport, "redirect_rejected", message);
    EXPECT_EQ(server.requests().size(), 3 * (at + 1)) << answers[at];
  }
}

INSTANTIATE_TEST_SUITE_P(Https, HttpsRedirection, ::testing::Values(300, 301, 303, 304, 305, 307, 308, 399),
                         ::testing::PrintToStringParamName());

// A client that asks again would hide from its caller how often it asked.
class HttpsSilence : public testing::ScriptedPlace {
 protected:
  // Makes each kind of request to a server that ends every connection in the same way.
  void expect_one_connection_each(const ScriptedServer::Script& script, const std::string& message) {
    std::atomic<int> connections = 0;
    const ScriptedServer server(authority_.issue(), [&](Conversation& peer) {
      ++connections;
      script(peer);
    });
    HttpsTransport transport = client(server.url());
    EXPECT_FAILURE(transport.get("file", 16), "network", message);
    EXPECT_EQ(connections, 1);
    EXPECT_FAILURE(transport.download("file", destination(), whole.size(), {}), "network", message);
    EXPECT_EQ(connections, 2);
    EXPECT_EQ(files(), std::vector<std::string>());
    testing::PartialFile part(root_ / "part", whole.size(), whole.substr(0, 4));
    EXPECT_FAILURE(part.fetch_rest(transport, "file"), "network", message);
    EXPECT_EQ(connections, 3);
    EXPECT_EQ(part.content(), whole.substr(0, 4));
    EXPECT_FAILURE(transport.post_json("file", Json::object(), {}), "network", message);
    EXPECT_EQ(connections, 4);
    EXPECT_FAILURE(transport.upload_report("file", root_.write("report", whole), 16, std::string(64, 'a'), {}),
                   "network", message);
    EXPECT_EQ(connections, 5);
    EXPECT_EQ(server.requests().size(), 5u);
  }
};

TEST_F(HttpsSilence, IsNoReasonToAskAgain) {
  expect_one_connection_each(answer({}), "Server returned nothing (no headers, no data)");
}

TEST_F(HttpsSilence, OfABrokenConnectionIsNoReasonEither) {
  expect_one_connection_each(answer_and_cut({}), "Failure when receiving data from the peer");
  expect_one_connection_each(
      [](Conversation& peer) {
        peer.read_request();
        peer.reset();
      },
      "Failure when receiving data from the peer");
}

}  // namespace
}  // namespace ravok
