// Answers without an end cost a client neither time nor memory beyond their bounds.

#include <chrono>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/process_memory.hpp"
#include "support/scripted_server.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::Conversation;
using testing::response;
using testing::ScriptedServer;
using testing::whole;

constexpr std::uint64_t mebibyte = 1'048'576;

// The sanitizers keep what is given back, and books of their own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool measures_memory = false;
#else
constexpr bool measures_memory = true;
#endif

struct Refused {
  std::string code;
  std::string message;
};

struct Endless {
  const char* name;
  std::string beginning;
  std::string piece;  // comes again and again behind it
  Refused in_memory;
  Refused as_file;
};

void PrintTo(const Endless& endless, std::ostream* out) { *out << endless.name; }

class HttpsEndless : public testing::ScriptedPlace, public ::testing::WithParamInterface<Endless> {
 protected:
  static constexpr std::uint64_t limit = 16 * mebibyte;
  static constexpr std::uint64_t file_size = 24 * mebibyte;

  // Makes a request to a server in a process of its own, which takes at most so many bytes for both. Some 8 MiB of them
  // are the libraries' code and tables.
  void expect_bounded(std::uint64_t most, const std::function<void(HttpsTransport&)>& request) const {
    const auto begun = std::chrono::steady_clock::now();
    const std::uint64_t peak = testing::peak_of([&] {
      {
        const ScriptedServer server(authority_.issue(), [](Conversation& peer) {
          peer.read_request();
          peer.send(GetParam().beginning);
          while (peer.is_open()) {
            peer.send(GetParam().piece);
          }
        });
        HttpsTransport transport = client(server.url());
        request(transport);
        EXPECT_EQ(server.requests().size(), 1u);
      }
      if (HasFailure()) {
        _exit(1);
      }
    });
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::minutes(5));
    RecordProperty("peak_bytes", std::to_string(peak));
    if (measures_memory) {
      EXPECT_LT(peak, most);
    }
  }
};

TEST_P(HttpsEndless, IsBoundedInMemory) {
  expect_bounded(limit + 12 * mebibyte, [](HttpsTransport& transport) {
    EXPECT_FAILURE(transport.get("file", limit), GetParam().in_memory.code, GetParam().in_memory.message);
  });
}

TEST_P(HttpsEndless, IsBoundedAsAFile) {
  expect_bounded(12 * mebibyte, [this](HttpsTransport& transport) {
    EXPECT_FAILURE(transport.download("file", destination(), file_size, {}), GetParam().as_file.code,
                   GetParam().as_file.message);
    EXPECT_EQ(files(), std::vector<std::string>());
  });
}

const std::string kibibytes(16'384, 'x');
const std::string chunk_of_them = "4000\r\n" + kibibytes + "\r\n";
const std::string some_fields = [] {
  std::string fields;
  for (int at = 0; at < 100; ++at) {
    fields += "X-" + std::to_string(at) + ": " + std::string(100, 'x') + "\r\n";
  }
  return fields;
}();
const std::string in_chunks_from_here = response("Transfer-Encoding: chunked\r\n", {});
const std::string in_trailers = in_chunks_from_here + "10\r\n" + whole + "\r\n0\r\n";

const Refused too_large = {"size_limit", "Server sent more than the authenticated size limit"};
const Refused not_taken = {"network", "Failure when receiving data from the peer"};
const Refused line_too_large = {"network", "A value or data field grew larger than allowed"};
const Refused too_many_fields = {"download_headers", "Invalid or excessive download fields"};

INSTANTIATE_TEST_SUITE_P(
    Https, HttpsEndless,
    ::testing::Values(Endless{"Body", response({}, {}), kibibytes, too_large, too_large},
                      Endless{"BodyInChunks", in_chunks_from_here, chunk_of_them, too_large, too_large},
                      Endless{"BodyOfALargeLength",
                              response("Content-Length: 9223372036854775807\r\n", {}),
                              kibibytes,
                              too_large,
                              {"length_mismatch", "Server length differs from the authenticated download bound"}},
                      Endless{"BodyOfALengthThatDoesNotFit",
                              response("Content-Length: 18446744073709551616\r\n", {}),
                              kibibytes,
                              too_large,
                              {"download_headers", "Invalid download length or range"}},
                      Endless{"StatusLine", "HTTP/1.1 200 ", kibibytes, line_too_large, line_too_large},
                      Endless{"HeaderLine", "HTTP/1.1 200 OK\r\nX: ", kibibytes, line_too_large, line_too_large},
                      Endless{"HeaderLines", "HTTP/1.1 200 OK\r\n", some_fields, not_taken, too_many_fields},
                      Endless{"InterimAnswers",
                              {},
                              "HTTP/1.1 103 Early Hints\r\n\r\n",
                              not_taken,
                              {"download_headers", "Unexpected download response sequence"}},
                      Endless{"TrailerLine", in_trailers + "X: ", kibibytes, line_too_large, line_too_large},
                      Endless{"TrailerLines", in_trailers, some_fields, line_too_large, too_many_fields},
                      Endless{"ChunkSize", in_chunks_from_here, std::string(1'000, '0'), not_taken, not_taken}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace ravok
