// Connections that end, cleanly or not, at every place of a request.

#include <array>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include "platform/file/handle.hpp"
#include "platform/posix/native.hpp"
#include "support/loopback_listener.hpp"
#include "support/scripted_server.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::chunked;
using testing::Conversation;
using testing::response;
using testing::ScriptedServer;
using testing::sized;
using testing::whole;

constexpr const char* not_received = "Failure when receiving data from the peer";
constexpr const char* no_tls = "SSL connect error";

// --- Before there is TLS ----------------------------------------------------------------------

// Takes one connection and deals with it below TLS.
class PlainServer {
 public:
  explicit PlainServer(std::function<void(int)> deal)
      : thread_([this, deal = std::move(deal)] {
          const Handle peer = listener_.next();
          deal(peer.get());
        }) {}
  ~PlainServer() { thread_.join(); }
  PlainServer(const PlainServer&) = delete;
  PlainServer& operator=(const PlainServer&) = delete;

  std::string url() const { return "https://localhost:" + std::to_string(listener_.port()) + "/"; }

 private:
  const testing::LoopbackListener listener_;
  std::thread thread_;
};

// Reads once, which takes the beginning of the client's handshake.
void read_some(int peer) {
  std::array<char, 65'536> buffer;
  EXPECT_GT(posix::retry_interrupted([&] { return recv(peer, buffer.data(), buffer.size(), 0); }), 0);
}

void read_to_the_end(int peer) {
  shutdown(peer, SHUT_WR);
  std::array<char, 65'536> buffer;
  while (posix::retry_interrupted([&] { return recv(peer, buffer.data(), buffer.size(), 0); }) > 0) {
  }
}

// Answers the beginning of the handshake with these bytes and ends the sending.
std::function<void(int)> answer_handshake(std::string bytes) {
  return [bytes = std::move(bytes)](int peer) {
    read_some(peer);
    if (!bytes.empty()) {
      EXPECT_EQ(send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    read_to_the_end(peer);
  };
}

struct PlainAnswer {
  const char* name;
  std::function<void(int)> deal;
  const char* message = no_tls;
};

void PrintTo(const PlainAnswer& given, std::ostream* out) { *out << given.name; }

class HttpsWithoutTls : public testing::ScriptedPlace, public ::testing::WithParamInterface<PlainAnswer> {};

TEST_P(HttpsWithoutTls, IsNoConnection) {
  {
    const PlainServer server(GetParam().deal);
    EXPECT_FAILURE(client(server.url()).get("file", 16), "network", GetParam().message);
  }
  const PlainServer server(GetParam().deal);
  EXPECT_FAILURE(client(server.url()).download("file", destination(), whole.size(), {}), "network", GetParam().message);
  EXPECT_EQ(files(), std::vector<std::string>());
}

const std::string refusal("\x15\x03\x01\x00\x02\x02\x28", 7);                          // an alert: no common ground
const std::string end_of_tls("\x15\x03\x03\x00\x02\x01\x00", 7);                       // an alert: nothing more comes
const std::string long_record = "\x16\x03\x03\xff\xff" + std::string(65'535, '\x02');  // longer than a record may be

INSTANTIATE_TEST_SUITE_P(
    Https, HttpsWithoutTls,
    ::testing::Values(PlainAnswer{"EndsAtOnce", read_to_the_end},
                      PlainAnswer{"EndsInTheHandshake", answer_handshake({})},
                      PlainAnswer{"EndsInARecord", answer_handshake(std::string("\x16\x03\x03\x00\x7a\x02", 6))},
                      PlainAnswer{"Refuses", answer_handshake(refusal)},
                      PlainAnswer{"SaysThatNothingComes", answer_handshake(end_of_tls)},
                      PlainAnswer{"SendsALongRecord", answer_handshake(long_record)},
                      PlainAnswer{"SpeaksHttp", answer_handshake("HTTP/1.1 400 Bad Request\r\n\r\n")},
                      PlainAnswer{"SendsAnything", answer_handshake(std::string(100, '\xff'))}),
    [](const auto& test) { return test.param.name; });

// --- In an answer ------------------------------------------------------------------------------

enum class Ending { said, cut, reset };

void end(Conversation& peer, Ending how) {
  if (how == Ending::cut) {
    peer.cut();
  } else if (how == Ending::reset) {
    peer.reset();
  }
}

ScriptedServer::Script ending(const std::string& bytes, Ending how) {
  return [=](Conversation& peer) {
    peer.read_request();
    peer.send(bytes);
    end(peer, how);
  };
}

class HttpsBreak : public testing::ScriptedPlace {
 protected:
  // Sends each beginning of the answer, and ends there. Less than `enough` bytes leave nothing. As many leave the
  // whole, but a reset may take back what the client has not read yet.
  void expect_whole_from(std::size_t enough, const std::string& sent, Ending how) {
    std::size_t size = 0;
    const ScriptedServer server(authority_.issue(),
                                [&](Conversation& peer) { ending(sent.substr(0, size), how)(peer); });
    HttpsTransport transport = client(server.url());
    std::size_t requests = 0;
    for (; size <= sent.size(); ++size) {
      const auto download = testing::failure_of([&] { transport.download("file", destination(), whole.size(), {}); });
      EXPECT_EQ(server.requests().size(), ++requests);
      EXPECT_TRUE(how == Ending::reset ? download || size >= enough : !download == (size >= enough))
          << size << " bytes: " << sent.substr(0, size);
      if (download) {
        EXPECT_EQ(files(), std::vector<std::string>());
        EXPECT_TRUE(download->code == "network" || download->code == "length_mismatch" ||
                    download->code == "download_headers")
            << download->code;
      } else {
        EXPECT_EQ(root_.read("files/file"), whole);
        std::filesystem::remove(destination());
      }
    }
  }
};

TEST_F(HttpsBreak, AtAnyByteOfAnAnswerWithALengthLeavesTheWholeOrNothing) {
  const std::string sent = sized(whole);
  for (const Ending how : {Ending::said, Ending::cut, Ending::reset}) {
    expect_whole_from(sent.size(), sent, how);
  }
}

TEST_F(HttpsBreak, AtAnyByteOfAnAnswerInChunksLeavesTheWholeOrNothing) {
  const std::string sent = chunked(whole);
  for (const Ending how : {Ending::said, Ending::cut, Ending::reset}) {
    expect_whole_from(sent.size(), sent, how);
  }
}

// Here the end of the body is the end of the connection. Unless TLS says that it is, somebody may have cut it.
TEST_F(HttpsBreak, AtAnyByteOfAnAnswerUpToItsEndLeavesTheWholeOnlyWhereTlsSaysSo) {
  const std::string sent = response("Connection: close\r\n", whole);
  expect_whole_from(sent.size(), sent, Ending::said);
  for (const Ending how : {Ending::cut, Ending::reset}) {
    expect_whole_from(sent.size() + 1, sent, how);
  }
}

TEST_F(HttpsBreak, OfAnAnswerInMemoryIsNoticedInEveryFraming) {
  const std::string endless = response("Connection: close\r\n", whole);
  const std::string old = response({}, whole, "HTTP/1.0 200 OK");
  for (const std::string& sent : {sized(whole), chunked(whole)}) {
    const ScriptedServer server(authority_.issue(), ending(sent, Ending::cut));
    EXPECT_EQ(client(server.url()).get("file", 16).body, whole) << sent;
  }
  for (const std::string& sent : {endless, old, sized(whole).substr(0, sized(whole).size() - 1),
                                  chunked(whole).substr(0, chunked(whole).size() - 5)}) {
    for (const Ending how : {Ending::cut, Ending::reset}) {
      const ScriptedServer server(authority_.issue(), ending(sent, how));
      EXPECT_FAILURE(client(server.url()).get("file", 16), "network", not_received) << sent;
      EXPECT_EQ(server.requests().size(), 1u);
    }
  }
}

// The prefix is true wherever the rest breaks off, and the next request goes on from there.
TEST_F(HttpsBreak, OfAPartKeepsWhatArrivedForTheNextRequest) {
  for (const Ending how : {Ending::said, Ending::cut}) {
    const ScriptedServer server(authority_.issue(), [&](Conversation& peer) {
      const std::string request = peer.read_request();
      const std::string sent = testing::rest_of(whole, request);
      const std::size_t left = whole.size() - testing::first_byte_of(request);
      peer.send(sent.substr(0, sent.size() - left + 3));
      end(peer, how);
    });
    HttpsTransport transport = client(server.url());
    testing::PartialFile file(root_ / "part", whole.size(), {});
    for (std::size_t arrived = 3; arrived < whole.size(); arrived += 3) {
      EXPECT_TRUE(testing::failure_of([&] { file.fetch_rest(transport, "file"); })) << arrived;
      EXPECT_EQ(file.content(), whole.substr(0, arrived));
      EXPECT_EQ(file.told(), whole.substr(0, arrived));
    }
    EXPECT_EQ(server.requests().size(), 5u);
  }
}

TEST_F(HttpsBreak, IsNotWhatNewKeysAre) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    const ScriptedServer server(
        authority_.issue(),
        [](Conversation& peer) {
          peer.read_request();
          peer.send(sized(whole).substr(0, 20));
          peer.renew_keys();
          peer.send(sized(whole).substr(20));
        },
        version);
    HttpsTransport transport = client(server.url());
    EXPECT_EQ(transport.get("file", 16).body, whole) << version;
    transport.download("file", destination(), whole.size(), {});
    EXPECT_EQ(root_.read("files/file"), whole);
    std::filesystem::remove(destination());
  }
}

}  // namespace
}  // namespace ravok
