// What is asked of a server, and which of its answers are taken.

#include <cstddef>
#include <filesystem>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "support/loopback_listener.hpp"
#include "support/scripted_server.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::answer;
using testing::answer_and_cut;
using testing::chunked;
using testing::Conversation;
using testing::head_of;
using testing::in_turn;
using testing::interim;
using testing::partial;
using testing::response;
using testing::ScriptedServer;
using testing::sized;
using testing::whole;
using testing::with_header_bytes;

constexpr const char* bad_encoding = "Unrecognized or bad HTTP Content or Transfer-Encoding";

class HttpsAnswer : public testing::ScriptedPlace {};

TEST_F(HttpsAnswer, ARequestSaysNoMoreThanItMust) {
  const ScriptedServer server(authority_.issue(), answer(sized(whole)));
  HttpsTransport transport = client(server.url() + "base");
  EXPECT_EQ(transport.get("a b/c.json", 16).body, whole);
  EXPECT_EQ(transport.get_component("a/b", 16).body, whole);
  transport.download("file", destination(), whole.size(), {});
  const std::vector<std::string> requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  const std::string host = host_of(server);
  const std::string agent = "User-Agent: Ravok/0.1";
  using Lines = std::vector<std::string>;
  EXPECT_EQ(head_of(requests[0]), (Lines{"GET /base/a%20b/c.json HTTP/1.1", "Accept: */*", host, agent}));
  EXPECT_EQ(head_of(requests[1]), (Lines{"GET /base/a%2Fb HTTP/1.1", "Accept: */*", host, agent}));
  EXPECT_EQ(head_of(requests[2]),
            (Lines{"GET /base/file HTTP/1.1", "Accept-Encoding: identity", "Accept: */*", host, agent}));
}

// An answer in memory is bounded and no more: what it means is for the caller to say.
TEST_F(HttpsAnswer, AnAnswerInMemoryIsTakenAsItIsSent) {
  for (const char* const lines : {"Content-Encoding: gzip\r\nContent-Length: 16\r\n",
                                  "Content-Range: bytes 0-15/99\r\n", "Transfer-Encoding: identity\r\n",
                                  "Content-Type: multipart/byteranges; boundary=x\r\n", "X-Folded: a\r\n b\r\n"}) {
    const ScriptedServer server(authority_.issue(), in_turn({response(lines, whole), response(lines, whole, partial)}));
    HttpsTransport transport = client(server.url());
    const TransportResponse got = transport.get("file", 16);
    EXPECT_EQ(got.status, 200) << lines;
    EXPECT_EQ(got.body, whole) << lines;
    const TransportResponse part = transport.get("file", 16);
    EXPECT_EQ(part.status, 206) << lines;
    EXPECT_EQ(part.body, whole) << lines;
    EXPECT_EQ(server.requests().size(), 2u);
  }
  const ScriptedServer server(authority_.issue(), answer(response("Transfer-Encoding: gzip\r\n", whole)));
  EXPECT_FAILURE(client(server.url()).get("file", 16), "network", bad_encoding);
}

TEST_F(HttpsAnswer, AnAnswerInMemoryKeepsToItsLimitInEveryFraming) {
  for (const std::string& sent : {sized(whole), chunked(whole), response("Connection: close\r\n", whole),
                                  response({}, whole, "HTTP/1.0 200 OK")}) {
    const ScriptedServer server(authority_.issue(), answer(sent));
    EXPECT_EQ(client(server.url()).get("file", 16).body, whole) << sent;
    EXPECT_FAILURE(client(server.url()).get("file", 15), "size_limit",
                   "Server sent more than the authenticated size limit")
        << sent;
  }
}

TEST_F(HttpsAnswer, ARedirectIsRefusedAndNobodyElseIsAsked) {
  const testing::LoopbackListener other;
  for (const char* const status : {"300", "301", "302", "303", "304", "307", "308", "399"}) {
    const std::string location = "Location: https://localhost:" + std::to_string(other.port()) + "/file\r\n";
    const ScriptedServer server(authority_.issue(), answer(response(location + "Content-Length: 0\r\n", "",
                                                                    std::string("HTTP/1.1 ") + status + " Elsewhere")));
    HttpsTransport transport = client(server.url());
    constexpr const char* message = "Server redirects are not permitted";
    EXPECT_FAILURE(transport.get("file", 100), "redirect_rejected", message) << status;
    EXPECT_FAILURE(transport.post_json("file", Json::object(), {}), "redirect_rejected", message) << status;
    EXPECT_FAILURE(transport.download("file", destination(), 16, {}), "redirect_rejected", message) << status;
    EXPECT_EQ(server.requests().size(), 3u);
  }
  EXPECT_FALSE(other.was_reached());
  EXPECT_EQ(files(), std::vector<std::string>());
}

struct Answer {
  const char* name;
  ScriptedServer::Script script;
  const char* code = "";
  std::string message = {};
};

void PrintTo(const Answer& given, std::ostream* out) { *out << given.name; }

constexpr auto name_of_answer = [](const auto& test) { return test.param.name; };

class HttpsGoodAnswer : public testing::ScriptedPlace, public ::testing::WithParamInterface<Answer> {};

TEST_P(HttpsGoodAnswer, GivesTheFile) {
  download_from(GetParam().script);
  EXPECT_EQ(root_.read("files/file"), whole);
}

INSTANTIATE_TEST_SUITE_P(
    Https, HttpsGoodAnswer,
    ::testing::Values(
        Answer{"WithALength", answer(sized(whole))}, Answer{"InChunks", answer(chunked(whole))},
        Answer{"InChunksWithATrailer", answer(chunked(whole, "X-Note: none\r\n"))},
        Answer{"UpToItsEnd", answer(response("Connection: close\r\n", whole))},
        Answer{"OfHttp10", answer(response({}, whole, "HTTP/1.0 200 OK"))},
        Answer{"WithIdentityAsItsEncoding",
               answer(response("Content-Encoding: Identity\r\nContent-Length: 16\r\n", whole))},
        Answer{"BehindSevenInterimOnes", answer(interim(7) + sized(whole))},
        Answer{"With65536BytesOfHeaders", answer(with_header_bytes(65'536))},
        Answer{"ThatBreaksBehindItsLength", answer_and_cut(sized(whole))},
        Answer{"ThatBreaksBehindItsChunks", answer_and_cut(chunked(whole))},
        Answer{"WithAnotherBehindItsLength", answer(sized(whole) + sized("more"))},
        Answer{"WithAnotherBehindItsChunks", answer(chunked(whole) + sized("more"))},
        Answer{"WithLineFeedsAlone", answer("HTTP/1.1 200 OK\nX-Note: a\nContent-Length: 16\n\n" + whole)},
        Answer{"InChunksWithExtensions",
               answer(response("Transfer-Encoding: chunked\r\n", "010;a=b;c\r\n" + whole + "\r\n00;a=\"0\"\r\n\r\n"))},
        Answer{"BeforeItsRequest",
               [](Conversation& peer) {
                 peer.send(sized(whole));
                 peer.read_request();
               }},
        Answer{"ByteByByte",
               [](Conversation& peer) {
                 peer.read_request();
                 for (const char byte : sized(whole)) {
                   peer.send(std::string_view(&byte, 1));
                 }
               }}),
    name_of_answer);

constexpr const char* other_length = "Server length differs from the authenticated download bound";
constexpr const char* other_framing = "Unsupported download transfer framing";
constexpr const char* short_file = "File data is shorter than its authenticated length";
constexpr const char* too_long = "Server sent more than the authenticated size limit";

// What stands between a machine and the network may answer each request with a page of its own, of so many bytes.
std::string page_body(std::size_t size) {
  std::string body = "<html><body>";
  body.resize(size, ' ');
  return body;
}

std::string page(std::size_t size) {
  return response("Content-Type: text/html\r\nContent-Length: " + std::to_string(size) + "\r\n", page_body(size));
}

std::string page_in_chunks(std::size_t size) { return chunked(page_body(size)); }

// The whole in one chunk behind these header lines.
std::string in_chunks(const std::string& lines) { return response(lines, "10\r\n" + whole + "\r\n0\r\n\r\n"); }

class HttpsBadAnswer : public testing::ScriptedPlace, public ::testing::WithParamInterface<Answer> {};

TEST_P(HttpsBadAnswer, IsRefusedAndLeavesNoFile) {
  EXPECT_FAILURE(download_from(GetParam().script), GetParam().code, GetParam().message);
  EXPECT_EQ(files(), std::vector<std::string>());
}

INSTANTIATE_TEST_SUITE_P(
    Https, HttpsBadAnswer,
    ::testing::Values(
        Answer{"Compressed", answer(response("Content-Encoding: gzip\r\nContent-Length: 16\r\n", whole)),
               "download_headers", "Download content encoding changes authenticated bytes"},
        Answer{"APartThatNobodyAskedFor",
               answer(response("Content-Range: bytes 0-15/16\r\nContent-Length: 16\r\n", whole,
                               "HTTP/1.1 206 Partial Content")),
               "download_range", "A partial response requires the requested single range"},
        Answer{"AnUnexpectedRange", answer(response("Content-Range: bytes 0-15/16\r\nContent-Length: 16\r\n", whole)),
               "download_range", "A full response contains an unexpected range"},
        Answer{"AFoldedHeader", answer(response("X-Note: a\r\n b\r\nContent-Length: 16\r\n", whole)),
               "download_headers", "Invalid or excessive download fields"},
        Answer{"TwoLengths", answer(response("Content-Length: 16\r\nContent-Length: 16\r\n", whole)),
               "download_headers", "Duplicate or late download framing field"},
        Answer{"ANulInAHeader", answer(response(std::string("X-Note: a\0b\r\n", 13) + "Content-Length: 16\r\n", whole)),
               "network", "Weird server reply"},
        Answer{"ANulInItsStatusLine", answer(sized(whole, std::string("HTTP/1.1 200 O\0K", 17))), "network",
               "Weird server reply"},
        Answer{"ALongPage", answer(page(4'000)), "length_mismatch", other_length},
        Answer{"AShortPage", answer(page(15)), "length_mismatch", short_file},
        Answer{"ALongPageInChunks", answer(page_in_chunks(20)), "size_limit", too_long},
        Answer{"AShortPageInChunks", answer(page_in_chunks(15)), "length_mismatch", short_file},
        Answer{"AShortPageUpToItsEnd", answer(response("Content-Type: text/html\r\n", page_body(15))),
               "length_mismatch", short_file},
        Answer{"OneByteLessUpToItsEnd", answer(response("Connection: close\r\n", whole.substr(1))), "length_mismatch",
               short_file},
        Answer{"OtherProtocols",
               answer(response("Connection: Upgrade\r\nUpgrade: other\r\n", whole, "HTTP/1.1 101 Switching Protocols")),
               "download_headers", "Download protocol upgrades are not supported"},
        Answer{"CompressedOnItsWay", answer(response("Transfer-Encoding: gzip\r\n", whole)), "network", bad_encoding},
        Answer{"CompressedInChunks", answer(in_chunks("Transfer-Encoding: gzip, chunked\r\n")), "network",
               bad_encoding},
        Answer{"ChunksInChunks", answer(in_chunks("Transfer-Encoding: chunked, chunked\r\n")), "download_headers",
               other_framing},
        Answer{"TwoFramings", answer(in_chunks("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n")),
               "download_headers", "Duplicate or late download framing field"},
        Answer{"ChunksAndALength", answer(in_chunks("Content-Length: 16\r\nTransfer-Encoding: chunked\r\n")),
               "download_headers", other_framing},
        Answer{"IdentityAsItsFraming", answer(response("Transfer-Encoding: identity\r\nContent-Length: 16\r\n", whole)),
               "download_headers", other_framing},
        Answer{"ChunksWithoutASize", answer(response("Transfer-Encoding: chunked\r\n", "x\r\n" + whole)), "network",
               "Failure when receiving data from the peer"},
        Answer{"ChunksOfANegativeSize", answer(response("Transfer-Encoding: chunked\r\n", "-10\r\n" + whole)),
               "network", "Failure when receiving data from the peer"},
        Answer{"ChunksOfAHugeSize", answer(response("Transfer-Encoding: chunked\r\n", "10000000000000000\r\n" + whole)),
               "network", "Failure when receiving data from the peer"},
        Answer{"ARangeInTheTrailers", answer(chunked(whole, "Content-Range: bytes 0-15/16\r\n")), "download_headers",
               "Duplicate or late download framing field"},
        Answer{"AnEncodingInTheTrailers", answer(chunked(whole, "content-encoding: gzip\r\n")), "download_headers",
               "Duplicate or late download framing field"},
        Answer{"AFramingInTheTrailers", answer(chunked(whole, "Transfer-Encoding: chunked\r\n")), "download_headers",
               "Duplicate or late download framing field"},
        Answer{"ATypeInTheTrailers", answer(chunked(whole, "Content-Type: text/html\r\n")), "download_headers",
               "Duplicate or late download framing field"},
        Answer{"AStatusInTheTrailers", answer(chunked(whole, "HTTP/1.1 200 OK\r\n")), "network",
               "A libcurl function was given a bad argument"},
        Answer{"NineStatusLines", answer(interim(8) + sized(whole)), "download_headers",
               "Unexpected download response sequence"},
        Answer{"TooManyFields",
               answer(
                   response(
                       [] {
                         std::string lines;
                         for (int at = 0; at < 129; ++at) {
                           lines += "X: y\r\n";
                         }
                         return lines;
                       }(),
                       whole)),
               "download_headers", "Invalid or excessive download fields"},
        Answer{"ALongHeaderLine", answer(response("X: " + std::string(8'188, 'x') + "\r\n", whole)), "download_headers",
               "Download headers exceed their bounded format"},
        Answer{"With65537BytesOfHeaders", answer(with_header_bytes(65'537)), "download_headers",
               "Download headers exceed their bounded format"},
        Answer{"ALengthInTheTrailers", answer(chunked(whole, "Content-Length: 16\r\n")), "download_headers",
               "Duplicate or late download framing field"},
        Answer{"ALongerLength", answer(sized(whole + "x")), "length_mismatch",
               "Server length differs from the authenticated download bound"},
        Answer{"OneByteMoreInChunks", answer(chunked(whole + "x")), "size_limit",
               "Server sent more than the authenticated size limit"},
        Answer{"OneByteMoreUpToItsEnd", answer(response("Connection: close\r\n", whole + "x")), "size_limit",
               "Server sent more than the authenticated size limit"},
        Answer{"OneByteLessThanItsLength", answer(response("Content-Length: 16\r\n", whole.substr(1))), "network",
               "Transferred a partial file"},
        Answer{"ThatBreaksBeforeItsLength", answer_and_cut(response("Content-Length: 16\r\n", whole.substr(1))),
               "network", "Failure when receiving data from the peer"},
        Answer{"ThatBreaksInItsHeaders", answer_and_cut("HTTP/1.1 200 OK\r\nContent-Le"), "network",
               "Failure when receiving data from the peer"},
        Answer{"ThatEndsInItsHeaders", answer("HTTP/1.1 200 OK\r\nContent-Le"), "download_headers",
               "Download has no admitted final response"},
        Answer{"ThatBreaksBetweenChunks", answer_and_cut(chunked(whole).substr(0, chunked(whole).size() - 5)),
               "network", "Failure when receiving data from the peer"},
        Answer{"ThatEndsBetweenChunks", answer(chunked(whole).substr(0, chunked(whole).size() - 5)), "network",
               "Transferred a partial file"},
        // Only TLS tells a body up to the connection's end from one that somebody has cut.
        Answer{"ThatBreaksUpToItsEnd", answer_and_cut(response("Connection: close\r\n", whole)), "network",
               "Failure when receiving data from the peer"},
        Answer{"OfHttp09", answer(whole), "network", "Unsupported protocol"},
        Answer{"OfAnotherProtocol", answer("SSH-2.0-OpenSSH_9.2\r\n"), "network", "Unsupported protocol"},
        Answer{"Nothing", answer({}), "network", "Server returned nothing (no headers, no data)"},
        Answer{"NothingAndABreak", answer_and_cut({}), "network", "Failure when receiving data from the peer"}),
    name_of_answer);

// Whether bytes of the right number are the right bytes is for the caller to say, who is given all of them.
TEST_F(HttpsAnswer, OtherBytesOfTheSameLengthAreHandedOnAsTheyAreWritten) {
  const std::string other = "Of another day!!";
  const std::string stale = "Age: 86400\r\nWarning: 110 - \"Response is Stale\"\r\nETag: \"old\"\r\nX-Cache: HIT\r\n";
  for (const std::string& sent : {response(stale + "Content-Length: 16\r\n", other), page(16)}) {
    const ScriptedServer server(authority_.issue(), answer(sent));
    HttpsTransport transport = client(server.url());
    testing::PartialFile file(root_ / "part", whole.size(), {});
    file.fetch_rest(transport, "file");
    EXPECT_EQ(file.content(), sent.substr(sent.size() - 16));
    EXPECT_EQ(file.told(), file.content());
    transport.download("file", destination(), whole.size(), {});
    EXPECT_EQ(root_.read("files/file"), sent.substr(sent.size() - 16));
    std::filesystem::remove(destination());
    EXPECT_EQ(server.requests().size(), 2u);
  }
}

}  // namespace
}  // namespace ravok
