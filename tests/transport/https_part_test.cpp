// A file that goes on where it ends.

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "support/scripted_server.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::answer;
using testing::chunked;
using testing::Conversation;
using testing::head_of;
using testing::interim;
using testing::partial;
using testing::response;
using testing::ScriptedServer;
using testing::sized;
using testing::whole;

// A part from byte 4 on with this range.
std::string part_of(const std::string& range, const std::string& body = whole.substr(4)) {
  return response("Content-Range: " + range + "\r\n", body, partial);
}

class HttpsPart : public testing::ScriptedPlace {};

TEST_F(HttpsPart, AFileGoesOnWhereItEnds) {
  const ScriptedServer server(
      authority_.issue(),
      answer(response("Content-Range: bytes 4-15/16\r\nContent-Length: 12\r\n", whole.substr(4), partial)));
  testing::PartialFile file(root_ / "part", whole.size(), whole.substr(0, 4));
  HttpsTransport transport = client(server.url());
  file.fetch_rest(transport, "file");
  EXPECT_EQ(file.content(), whole);
  EXPECT_EQ(file.told(), whole.substr(4));
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(head_of(server.requests()[0]),
            (std::vector<std::string>{"GET /file HTTP/1.1", "Accept-Encoding: identity", "Accept: */*", host_of(server),
                                      "Range: bytes=4-15", "User-Agent: Ravok/0.1"}));
}

TEST_F(HttpsPart, AFileBeginsAgainOnceWhenTheRangeIsIgnored) {
  const ScriptedServer server(authority_.issue(), answer(chunked(whole)));
  testing::PartialFile file(root_ / "part", whole.size(), "xxxx");
  HttpsTransport transport = client(server.url());
  file.fetch_rest(transport, "file");
  EXPECT_EQ(file.content(), whole);
  EXPECT_EQ(file.told(), "[restart]" + whole);
}

TEST_F(HttpsPart, MayFollowInterimAnswersAndHaveTrailers) {
  const std::string rest = response("Content-Range: bytes 4-15/16\r\nTransfer-Encoding: chunked\r\n",
                                    "c\r\n" + whole.substr(4) + "\r\n0\r\nX-Note: none\r\n\r\n", partial);
  for (const std::string& sent : {interim(7) + part_of("bytes 4-15/16"), rest, part_of("BYTES 4-15/16"),
                                  response("Content-Length: 12\r\nContent-Range: bytes 004-0015/16\r\n",
                                           whole.substr(4) + "behind it", partial)}) {
    const ScriptedServer server(authority_.issue(), answer(sent));
    HttpsTransport transport = client(server.url());
    testing::PartialFile file(root_ / "part", whole.size(), whole.substr(0, 4));
    file.fetch_rest(transport, "file");
    EXPECT_EQ(file.content(), whole);
    EXPECT_EQ(file.told(), whole.substr(4));
    EXPECT_EQ(server.requests().size(), 1u);
  }
}

struct Part {
  const char* name;
  std::string answer;
  const char* code;
  const char* message;
  std::string written = whole.substr(0, 4);
};

void PrintTo(const Part& part, std::ostream* out) { *out << part.name; }

class HttpsBadPart : public testing::ScriptedPlace, public ::testing::WithParamInterface<Part> {};

TEST_P(HttpsBadPart, IsRefusedAndWhatWasThereStays) {
  const ScriptedServer server(authority_.issue(), answer(GetParam().answer));
  testing::PartialFile file(root_ / "part", whole.size(), whole.substr(0, 4));
  HttpsTransport transport = client(server.url());
  EXPECT_FAILURE(file.fetch_rest(transport, "file"), GetParam().code, GetParam().message);
  EXPECT_EQ(file.content(), GetParam().written);
  EXPECT_EQ(file.told(), GetParam().written.substr(4));
}

constexpr const char* other_range = "Server range differs from the authenticated remaining bytes";

INSTANTIATE_TEST_SUITE_P(
    Https, HttpsBadPart,
    ::testing::Values(
        Part{"OfTheWholeFile", part_of("bytes 0-15/16", whole), "download_range", other_range},
        Part{"ThatBeginsEarly", part_of("bytes 3-15/16"), "download_range", other_range},
        Part{"ThatBeginsLate", part_of("bytes 5-15/16"), "download_range", other_range},
        Part{"ThatEndsEarly", part_of("bytes 4-14/16"), "download_range", other_range},
        Part{"ThatEndsLate", part_of("bytes 4-16/16"), "download_range", other_range},
        Part{"OfAShorterFile", part_of("bytes 4-15/15"), "download_range", other_range},
        Part{"ThatEndsBeforeItBegins", part_of("bytes 4-3/16"), "download_range", other_range},
        Part{"OfNumbersThatDoNotFit", part_of("bytes 18446744073709551620-15/16"), "download_headers",
             "Invalid download length or range"},
        Part{"OfNegativeNumbers", part_of("bytes 4--15/16"), "download_headers", "Invalid download length or range"},
        Part{"OfTwoRanges", part_of("bytes 4-9/16, 10-15/16"), "download_headers", "Invalid download length or range"},
        Part{"WithALengthThatIsNotItsRanges",
             response("Content-Range: bytes 4-15/16\r\nContent-Length: 11\r\n", whole.substr(4, 11), partial),
             "length_mismatch", "Server length differs from the authenticated download bound"},
        Part{"CutBeforeItsLength",
             response("Content-Range: bytes 4-15/16\r\nContent-Length: 12\r\n", whole.substr(4, 5), partial), "network",
             "Transferred a partial file", whole.substr(0, 9)},
        Part{"AsWholeButCompressed", response("Content-Encoding: gzip\r\n", whole), "download_headers",
             "Download content encoding changes authenticated bytes"},
        Part{"AsAShortWhole", sized("short"), "length_mismatch",
             "Server length differs from the authenticated download bound"},
        Part{"AsALongWhole", sized(whole + "x"), "length_mismatch",
             "Server length differs from the authenticated download bound"},
        Part{"OfALongerFile", part_of("bytes 4-15/17"), "download_range", other_range},
        Part{"OfAFileOfUnknownLength", part_of("bytes 4-15/*"), "download_headers", "Invalid download length or range"},
        Part{"InOtherUnits", part_of("lines 4-15/16"), "download_range", "Invalid download content range"},
        Part{"WithoutItsRange", response({}, whole.substr(4), partial), "download_range",
             "A partial response requires the requested single range"},
        Part{"InSeveralParts",
             response("Content-Type: multipart/byteranges; boundary=x\r\nContent-Range: bytes 4-15/16\r\n",
                      whole.substr(4), partial),
             "download_range", "Multipart download ranges are not supported"},
        Part{"NotSatisfiable", response("Content-Range: bytes */16\r\n", "", "HTTP/1.1 416 Range Not Satisfiable"),
             "http_status", "Download failed with status 416"},
        Part{"OneByteShort", part_of("bytes 4-15/16", whole.substr(4, 11)), "length_mismatch",
             "Download body is shorter than its authenticated response length", whole.substr(0, 15)},
        Part{"OneByteLong", part_of("bytes 4-15/16", whole.substr(4) + "x"), "size_limit",
             "Server sent more than the authenticated size limit"}),
    name_of_answer);

// The whole is admitted, so what was there is given up before it turns out to be short.
TEST_F(HttpsPart, AWholeThatEndsEarlyHasReplacedWhatWasThere) {
  const ScriptedServer server(authority_.issue(), answer(response("Connection: close\r\n", "another")));
  HttpsTransport transport = client(server.url());
  testing::PartialFile file(root_ / "part", whole.size(), whole.substr(0, 4));
  EXPECT_FAILURE(file.fetch_rest(transport, "file"), "length_mismatch",
                 "Download body is shorter than its authenticated response length");
  EXPECT_EQ(file.content(), "another");
  EXPECT_EQ(file.told(), "[restart]another");
}

TEST_F(HttpsPart, BytesAreHandedOnAsTheyCome) {
  ScriptedServer server(authority_.issue(), [](Conversation& peer) {
    peer.read_request();
    peer.send(response("Content-Length: 16\r\n", whole.substr(0, 9)));
    peer.wait();
    peer.send(whole.substr(9));
  });
  AllocatedFile file(root_ / "part", whole.size(), {});
  std::vector<std::string> pieces;
  client(server.url())
      .download_into("file", file, 0, {},
                     [&](std::string_view bytes) {
                       pieces.emplace_back(bytes);
                       server.release();
                     },
                     {});
  EXPECT_EQ(pieces, (std::vector<std::string>{whole.substr(0, 9), whole.substr(9)}));
  EXPECT_EQ(file.written(), whole.size());
}

}  // namespace
}  // namespace ravok
