#include "transport/download_headers.hpp"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::download_headers_test {
namespace {

using Lines = std::initializer_list<std::string_view>;

constexpr const char* out_of_bounds = "Download headers exceed their bounded format";
constexpr const char* incomplete = "Download header line is incomplete";
constexpr const char* control_bytes = "Download header contains control bytes";
constexpr const char* no_status_yet = "Download headers precede their status";
constexpr const char* bad_fields = "Invalid or excessive download fields";
constexpr const char* bad_field = "Invalid download field";
constexpr const char* bad_name = "Invalid download field name";
constexpr const char* duplicate_or_late = "Duplicate or late download framing field";
constexpr const char* bad_number = "Invalid download length or range";
constexpr const char* bad_sequence = "Unexpected download response sequence";
constexpr const char* bad_status_line = "Invalid download status line";
constexpr const char* bad_status = "Invalid download status";
constexpr const char* upgrade = "Download protocol upgrades are not supported";
constexpr const char* redirect = "Server redirects are not permitted";
constexpr const char* encoding = "Download content encoding changes authenticated bytes";
constexpr const char* framing = "Unsupported download transfer framing";
constexpr const char* multipart = "Multipart download ranges are not supported";
constexpr const char* range_on_full = "A full response contains an unexpected range";
constexpr const char* no_range = "A partial response requires the requested single range";
constexpr const char* bad_range = "Invalid download content range";
constexpr const char* other_range = "Server range differs from the authenticated remaining bytes";
constexpr const char* other_length = "Server length differs from the authenticated download bound";
constexpr const char* too_early = "Download body precedes admitted headers";
constexpr const char* too_long = "Download exceeds its authenticated length";
constexpr const char* beyond_declared = "Download exceeds its declared response length";
constexpr const char* nothing_admitted = "Download has no admitted final response";
constexpr const char* too_short = "Download body is shorter than its authenticated response length";

constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();

void feed(DownloadResponseHeaders& headers, Lines lines) {
  for (const std::string_view line : lines) {
    headers.line(std::string(line) + "\r\n");
  }
}

// A request for a whole file of 1000 bytes, whose body may be shorter, and what has been answered so far.
DownloadResponseHeaders whole(Lines lines) {
  DownloadResponseHeaders headers(1000, 0, false);
  feed(headers, lines);
  return headers;
}

// A request for the bytes of that file from 100 on, all of which must come.
DownloadResponseHeaders rest(Lines lines) {
  DownloadResponseHeaders headers(1000, 100, true);
  feed(headers, lines);
  return headers;
}

std::string field_line(std::size_t bytes) { return "x:" + std::string(bytes - 4, 'a') + "\r\n"; }

std::string text_of(int byte) { return std::string(1, static_cast<char>(byte)); }

struct Place {
  std::uint64_t expected;
  std::uint64_t offset;
};

TEST(DownloadRequest, AsksForAPlaceInTheFile) {
  for (const Place place : {Place{0, 0}, Place{10, 0}, Place{10, 9}, Place{10, 10}, Place{most, most}}) {
    const DownloadResponseHeaders headers(place.expected, place.offset, true);
    EXPECT_EQ(headers.offset(), place.offset);
    EXPECT_FALSE(headers.admitted());
  }
  for (const Place place : {Place{0, 1}, Place{10, 11}, Place{0, most}, Place{most - 1, most}}) {
    EXPECT_FAILURE(DownloadResponseHeaders(place.expected, place.offset, false), "download_range",
                   "Resume offset exceeds authenticated length");
  }
}

TEST(DownloadLine, HasAtMost8192BytesWithItsEnd) {
  DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK"});
  EXPECT_NO_THROW(headers.line(field_line(8192)));
  EXPECT_FAILURE(headers.line(field_line(8193)), "download_headers", out_of_bounds);
  EXPECT_FALSE(headers.admitted());

  const std::string status = "HTTP/1.1 200 ";
  EXPECT_NO_THROW(whole({status + std::string(8192 - 2 - status.size(), 'a')}));
  EXPECT_FAILURE(whole({status + std::string(8193 - 2 - status.size(), 'a')}), "download_headers", out_of_bounds);
}

TEST(DownloadLine, IsMeasuredBeforeItIsRead) {
  DownloadResponseHeaders headers(1000, 0, false);
  EXPECT_FAILURE(headers.line(std::string(8193, '\x01')), "download_headers", out_of_bounds);
  EXPECT_FAILURE(DownloadResponseHeaders(headers).line(std::string(8192, '\x01')), "download_headers", incomplete);
}

// Seven lines of the full length, and one that fills what is left with the status lines around them.
DownloadResponseHeaders full_of_headers() {
  DownloadResponseHeaders headers(1000, 0, false);
  const std::string_view status = "HTTP/1.1 100\n";
  headers.line(status);
  for (int i = 0; i < 4; ++i) {
    headers.line(field_line(8192));
  }
  headers.line("\r\n");
  headers.line(status);
  for (int i = 0; i < 3; ++i) {
    headers.line(field_line(8192));
  }
  headers.line(field_line(8192 - 2 * status.size() - 2));
  return headers;
}

TEST(DownloadLine, HasItsShareOf65536BytesOfAllResponses) {
  EXPECT_FAILURE(full_of_headers().line("\n"), "download_headers", out_of_bounds);
  EXPECT_FAILURE(full_of_headers().line("HTTP/1.1 200 OK\r\n"), "download_headers", out_of_bounds);
  // Nothing is left of the bound but a line of no bytes, which is no line.
  EXPECT_FAILURE(full_of_headers().line(""), "download_headers", incomplete);
}

TEST(DownloadLine, MayFillTheBoundWithTheLastByteOfTheTrailers) {
  DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", ""});
  headers.body(10);
  std::uint64_t left = 65'536 - 17 - 2;
  for (; left > 8192; left -= 8192) {
    headers.line(field_line(8192));
  }
  DownloadResponseHeaders longer = headers;
  EXPECT_NO_THROW(headers.line(field_line(left)));
  EXPECT_NO_THROW(headers.finish());
  EXPECT_FAILURE(longer.line(field_line(left + 1)), "download_headers", out_of_bounds);
}

TEST(DownloadLine, EndsInALineFeed) {
  for (const char* line : {"", "HTTP/1.1 200 OK", "HTTP/1.1 200 OK\r", "\r", "a: b", "\x01"}) {
    DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK"});
    EXPECT_FAILURE(headers.line(line), "download_headers", incomplete) << line;
  }
  DownloadResponseHeaders headers(1000, 0, false);
  headers.line("HTTP/1.1 200\n");
  headers.line("Content-Length: 10\n");
  headers.line("\n");
  EXPECT_TRUE(headers.admitted());
}

TEST(DownloadLine, HoldsNoControlBytesButTabs) {
  for (int byte = 0; byte < 256; ++byte) {
    const bool allowed = byte == '\t' || (byte >= 32 && byte != 127);
    for (const std::string& line :
         {"a:b" + text_of(byte) + "c", "a:" + text_of(byte), "HTTP/1.1 200 " + text_of(byte)}) {
      DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK"});
      if (allowed) {
        EXPECT_NO_THROW(headers.line(line + "\r\n")) << byte;
      } else if (byte == '\r' && !line.ends_with('c')) {
        EXPECT_NO_THROW(headers.line(line + "\n")) << "a carriage return before the line feed is part of the end";
        EXPECT_FAILURE(headers.line(line + "\r\n"), "download_headers", control_bytes);
      } else {
        EXPECT_FAILURE(headers.line(line + "\r\n"), "download_headers", control_bytes) << byte;
      }
    }
  }
}

TEST(DownloadLine, IsCheckedForControlBytesBeforeItsPlace) {
  EXPECT_FAILURE(whole({"a\x7f"}), "download_headers", control_bytes);
  EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "\x01"}), "download_headers", control_bytes);
  DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", ""});
  headers.body(1);
  EXPECT_FAILURE(feed(headers, {"HTTP/1.1 200 \x1b"}), "download_headers", control_bytes);
}

TEST(DownloadLine, ComesBehindAStatus) {
  for (const char* line : {"", "a: b", "\tfolded", "nothing", "HTTP", "http/1.1 200 OK", " HTTP/1.1 200 OK"}) {
    EXPECT_FAILURE(whole({line}), "download_headers", no_status_yet) << line;
  }
}

TEST(StatusLine, NamesAVersionAndAStatus) {
  for (const std::string version : {"HTTP/1.0", "HTTP/1.1", "HTTP/2", "HTTP/3"}) {
    for (const char* status : {" 200", " 200 ", " 200 OK", " 200  all  is well: \xff\t"}) {
      EXPECT_TRUE(whole({version + status, ""}).admitted()) << version << status;
    }
  }
  for (const char* line : {"HTTP/",
                           "HTTP/1.1",
                           "HTTP/1.1 ",
                           "HTTP/1.1 2",
                           "HTTP/1.1 20",
                           "HTTP/1.1 2000",
                           "HTTP/1.1 2000 X",
                           "HTTP/1.1  200",
                           "HTTP/1.1  200 OK",
                           "HTTP/1.1 200\tOK",
                           "HTTP/1.1\t200 OK",
                           "HTTP/1.1 200OK",
                           "HTTP/1.2 200",
                           "HTTP/0.9 200",
                           "HTTP/2.0 200",
                           "HTTP/4 200",
                           "HTTP/11 200",
                           "HTTP/ 200",
                           "HTTP/1.1: 200",
                           "HTTP/1.10 200 OK",
                           "HTTP/\xff 200"}) {
    EXPECT_FAILURE(whole({line}), "download_headers", bad_status_line) << line;
  }
}

TEST(StatusLine, HasAStatusOfDigits) {
  for (const char* line : {"HTTP/1.1 2x0 OK", "HTTP/1.1 abc", "HTTP/1.1  20 OK", "HTTP/1.1 +20", "HTTP/1.1 -20",
                           "HTTP/1.1 20\t", "HTTP/1.1    ", "HTTP/1.1 2.0 OK"}) {
    EXPECT_FAILURE(whole({line}), "download_headers", bad_number) << line;
  }
}

// Goes through every status that three digits can say.
TEST(StatusLine, DecidesWhetherTheResponseIsAdmitted) {
  for (int status = 0; status < 1000; ++status) {
    const std::string digits = std::to_string(1000 + status).substr(1);
    DownloadResponseHeaders headers(1000, 0, false);
    if (status < 100 || status > 599) {
      EXPECT_FAILURE(feed(headers, {"HTTP/1.1 " + digits}), "download_headers", bad_status) << status;
      continue;
    }
    EXPECT_NO_THROW(feed(headers, {"HTTP/1.1 " + digits + " Words"})) << status;
    EXPECT_FALSE(headers.admitted()) << status;
    const auto end_block = [&] { headers.line("\r\n"); };
    if (status == 101) {
      EXPECT_FAILURE(end_block(), "download_headers", upgrade);
    } else if (status < 200 || status == 200) {
      EXPECT_NO_THROW(end_block()) << status;
    } else if (status == 206) {
      EXPECT_FAILURE(end_block(), "download_range", no_range);
    } else if (status >= 300 && status < 400) {
      EXPECT_FAILURE(end_block(), "redirect_rejected", redirect) << status;
    } else {
      EXPECT_FAILURE(end_block(), "http_status", "Download failed with status " + digits) << status;
    }
    EXPECT_EQ(headers.admitted(), status == 200) << status;
    EXPECT_EQ(headers.offset(), 0u);
  }
}

TEST(StatusLine, ComesAtMostEightTimes) {
  DownloadResponseHeaders headers(1000, 0, false);
  for (int i = 0; i < 7; ++i) {
    feed(headers, {"HTTP/1.1 100 Continue", ""});
  }
  feed(headers, {"HTTP/1.1 200 OK", ""});
  EXPECT_TRUE(headers.admitted());
  // Even one that is malformed is the ninth.
  DownloadResponseHeaders malformed = headers;
  EXPECT_FAILURE(feed(malformed, {"HTTP/?"}), "download_headers", bad_sequence);
  EXPECT_FAILURE(feed(headers, {"HTTP/1.1 200 OK"}), "download_headers", bad_sequence);
}

TEST(StatusLine, MayFollowAnAdmittedResponseThatHasNoBodyYet) {
  DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", "Content-Length: 10", ""});
  feed(headers, {"HTTP/1.1 200 OK"});
  EXPECT_FALSE(headers.admitted());
  EXPECT_FAILURE(headers.body(1), "download_headers", too_early);
  EXPECT_FAILURE(headers.finish(), "download_headers", nothing_admitted);
  feed(headers, {"Content-Length: 20", ""});
  EXPECT_TRUE(headers.admitted());
  headers.body(20);
  EXPECT_NO_THROW(headers.finish());
}

TEST(StatusLine, NeverFollowsTheBody) {
  for (const std::uint64_t bytes : {0u, 1u, 1000u}) {
    for (const char* line : {"HTTP/1.1 200 OK", "HTTP/1.1 100", "HTTP/?"}) {
      DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", ""});
      headers.body(bytes);
      EXPECT_FAILURE(feed(headers, {line}), "download_headers", bad_sequence) << line;
      EXPECT_TRUE(headers.admitted());
    }
  }
}

// Each of the five fields of the first response would have the second refused.
TEST(StatusLine, ForgetsTheFieldsOfTheResponseBefore) {
  for (const char* field : {"Content-Length: 11", "Content-Range: bytes 0-9/10", "Content-Encoding: gzip",
                            "Transfer-Encoding: gzip", "Content-Type: multipart/byteranges"}) {
    DownloadResponseHeaders headers(10, 0, true);
    feed(headers, {"HTTP/1.1 100 Continue", field, "", "HTTP/1.1 200 OK", ""});
    EXPECT_TRUE(headers.admitted()) << field;
    headers.body(10);
    EXPECT_NO_THROW(headers.finish()) << field;
  }
  EXPECT_TRUE(whole({"HTTP/1.1 100", "Content-Length: 10", "HTTP/1.1 200", "Content-Length: 10", ""}).admitted());
}

TEST(InterimResponse, LeavesTheNextStatusToDecide) {
  DownloadResponseHeaders headers = whole({"HTTP/1.1 100 Continue", ""});
  EXPECT_FALSE(headers.admitted());
  EXPECT_FAILURE(headers.body(1), "download_headers", too_early);
  EXPECT_FAILURE(headers.finish(), "download_headers", nothing_admitted);
  feed(headers, {"HTTP/1.1 103 Early Hints", "Link: </a>", "", "HTTP/1.1 200 OK", ""});
  EXPECT_TRUE(headers.admitted());
}

TEST(InterimResponse, KeepsItsBlockUntilTheNextStatus) {
  DownloadResponseHeaders headers = whole({"HTTP/1.1 100 Continue", "Content-Length: 1", "", "Content-Type: a", ""});
  EXPECT_FALSE(headers.admitted());
  EXPECT_FAILURE(feed(headers, {"Content-Length: 1"}), "download_headers", duplicate_or_late);
}

TEST(InterimResponse, MayHoldFieldsThatNoFinalResponseMay) {
  EXPECT_NO_THROW(whole({"HTTP/1.1 199", "Content-Encoding: gzip", "Transfer-Encoding: gzip", "Content-Length: 5000",
                         "Content-Range: x", "Content-Type: multipart/byteranges", ""}));
}

TEST(DownloadField, ComesAtMost128TimesInAResponse) {
  DownloadResponseHeaders headers = whole({"HTTP/1.1 100 Continue"});
  for (int i = 0; i < 128; ++i) {
    feed(headers, {"a: b"});
  }
  DownloadResponseHeaders other = headers;
  EXPECT_FAILURE(feed(other, {"a: b"}), "download_headers", bad_fields);
  // The bound comes before the form of the field.
  other = headers;
  EXPECT_FAILURE(feed(other, {"no field"}), "download_headers", bad_fields);
  feed(headers, {"", "HTTP/1.1 200 OK"});
  for (int i = 0; i < 127; ++i) {
    feed(headers, {"a: b"});
  }
  feed(headers, {"", "Trailer: 128"});
  EXPECT_TRUE(headers.admitted());
  EXPECT_FAILURE(feed(headers, {"Trailer: 129"}), "download_headers", bad_fields);
}

TEST(DownloadField, IsNotFolded) {
  for (const char* line : {" ", "\t", " a: b", "\ta: b", "  Content-Length: 1"}) {
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", line}), "download_headers", bad_fields) << line;
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "", line}), "download_headers", bad_fields) << line;
  }
}

TEST(DownloadField, HasANameBeforeAColon) {
  for (const char* line : {":", ": b", "a", "nothing to see", "HTTP", "Content-Length 10", "\xff"}) {
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", line}), "download_headers", bad_field) << line;
  }
  EXPECT_NO_THROW(whole({"HTTP/1.1 200 OK", "a:", "a::", "a: b: c", "a:b"}));
}

TEST(DownloadField, HasANameOfTokenBytes) {
  constexpr std::string_view allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!#$%&'*+-.^_`|~";
  for (int byte = 32; byte < 256; ++byte) {
    if (byte == 127 || byte == ':') {
      continue;
    }
    for (const std::string& name : {text_of(byte) + "a", "a" + text_of(byte) + "b", "a" + text_of(byte)}) {
      if (allowed.find(text_of(byte)) != std::string_view::npos) {
        EXPECT_NO_THROW(whole({"HTTP/1.1 200 OK", name + ": c"})) << byte;
      } else if (name[0] != ' ') {
        EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", name + ": c"}), "download_headers", bad_name) << byte;
      }
    }
  }
  EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "a\t: c"}), "download_headers", bad_name);
  EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "Content-Length : 10"}), "download_headers", bad_name);
}

constexpr const char* framing_lines[] = {"Content-Length: 10", "Content-Range: bytes 0-9/10",
                                         "Content-Encoding: identity", "Transfer-Encoding: chunked",
                                         "Content-Type: text/plain"};

TEST(FramingField, ComesOnceInAResponse) {
  for (const std::string line : framing_lines) {
    std::string other_case = line;
    other_case[0] = other_case[0] == 'C' ? 'c' : 't';
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", line, line}), "download_headers", duplicate_or_late) << line;
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", line, other_case}), "download_headers", duplicate_or_late) << line;
  }
  // Neither an empty value nor a malformed one makes room for a second.
  EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "Content-Type:", "Content-Type:"}), "download_headers", duplicate_or_late);
  EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "Content-Length: 1", "Content-Length: x"}), "download_headers",
                 duplicate_or_late);
}

TEST(FramingField, NeverComesBehindTheBlock) {
  for (const char* line : framing_lines) {
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "", line}), "download_headers", duplicate_or_late) << line;
    DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", ""});
    headers.body(5);
    EXPECT_FAILURE(feed(headers, {line}), "download_headers", duplicate_or_late) << line;
    EXPECT_TRUE(headers.admitted());
  }
}

TEST(OtherField, MayComeAnywhereAndSayAnything) {
  DownloadResponseHeaders headers = whole(
      {"HTTP/1.1 200 OK", "Location: http://other.test/", "X-Content-Length: x", "Content-Lengths: 1", "a:", "a:", ""});
  EXPECT_TRUE(headers.admitted());
  feed(headers, {"a: b", "a: b", "", "", "a: b"});
  headers.body(10);
  feed(headers, {"Digest: x", "Digest: x", "", "a:", ""});
  EXPECT_TRUE(headers.admitted());
  EXPECT_EQ(headers.offset(), 0u);
  EXPECT_NO_THROW(headers.finish());
}

TEST(ContentLength, IsOneDecimalNumber) {
  for (const char* value : {"+10", "-10", "1 0", "", " ", "\t", "10,10", "0x10", "1e2", "10.0", "ten", "10 ;", "-0",
                            "18446744073709551616", "99999999999999999999999", "\xd9\xa1"}) {
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "Content-Length:" + std::string(value)}), "download_headers", bad_number)
        << value;
  }
}

TEST(ContentLength, MayBePaddedWithBlanksAndZeros) {
  for (const char* line : {"Content-Length:10", "content-length: 10", "CONTENT-LENGTH:\t 10 \t", "Content-Length: 0010",
                           "Content-Length: 00000000000000000000000000000000010"}) {
    DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", line, ""});
    EXPECT_FAILURE(DownloadResponseHeaders(headers).body(11), "length_mismatch", beyond_declared) << line;
    headers.body(10);
    EXPECT_NO_THROW(headers.finish()) << line;
  }
}

TEST(ContentLength, FitsWhatIsLeftOfTheFile) {
  for (const std::uint64_t length : {0u, 1u, 999u, 1000u}) {
    EXPECT_TRUE(whole({"HTTP/1.1 200 OK", "Content-Length: " + std::to_string(length), ""}).admitted()) << length;
  }
  for (const std::uint64_t length : {std::uint64_t{1001}, most}) {
    DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", "Content-Length: " + std::to_string(length)});
    EXPECT_FAILURE(headers.line("\r\n"), "length_mismatch", other_length) << length;
    EXPECT_FALSE(headers.admitted());
  }
}

TEST(ContentLength, IsExactlyWhatIsLeftWhereAllMustCome) {
  constexpr std::string_view range = "Content-Range: bytes 100-999/1000";
  EXPECT_TRUE(rest({"HTTP/1.1 206 Partial Content", range, "Content-Length: 900", ""}).admitted());
  EXPECT_TRUE(rest({"HTTP/1.1 200 OK", "Content-Length: 1000", ""}).admitted());
  for (const char* length : {"0", "899", "901", "1000"}) {
    EXPECT_FAILURE(rest({"HTTP/1.1 206", range, "Content-Length: " + std::string(length), ""}), "length_mismatch",
                   other_length)
        << length;
  }
  for (const char* length : {"0", "900", "999", "1001"}) {
    EXPECT_FAILURE(rest({"HTTP/1.1 200", "Content-Length: " + std::string(length), ""}), "length_mismatch",
                   other_length)
        << length;
  }
}

TEST(ContentLength, OfAPartMayBeShorterWhereNotAllMustCome) {
  DownloadResponseHeaders headers(1000, 100, false);
  feed(headers, {"HTTP/1.1 206", "Content-Range: bytes 100-999/1000", "Content-Length: 899", ""});
  EXPECT_TRUE(headers.admitted());
  headers = DownloadResponseHeaders(1000, 100, false);
  feed(headers, {"HTTP/1.1 206", "Content-Range: bytes 100-999/1000", "Content-Length: 901"});
  EXPECT_FAILURE(headers.line("\n"), "length_mismatch", other_length);
  EXPECT_FALSE(headers.admitted());
}

TEST(ContentEncoding, IsIdentityOrAbsent) {
  for (const char* value : {"identity", " Identity ", "\tIDENTITY\t"}) {
    EXPECT_TRUE(whole({"HTTP/1.1 200 OK", "Content-Encoding:" + std::string(value), ""}).admitted()) << value;
  }
  for (const char* value : {"", " ", "gzip", "br", "identity, gzip", "identity,identity", "identity;q=1", "none"}) {
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "Content-Encoding:" + std::string(value), ""}), "download_headers",
                   encoding)
        << value;
  }
}

TEST(TransferEncoding, IsChunkedWithoutALengthOrAbsent) {
  for (const char* value : {"chunked", " Chunked ", "\tCHUNKED\t"}) {
    const std::string line = "Transfer-Encoding:" + std::string(value);
    EXPECT_TRUE(whole({"HTTP/1.1 200 OK", line, ""}).admitted()) << value;
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", line, "Content-Length: 10", ""}), "download_headers", framing) << value;
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "Content-Length: 0", line, ""}), "download_headers", framing) << value;
  }
  for (const char* value : {"", " ", "identity", "gzip", "gzip, chunked", "chunked, chunked", "chunked;a=b"}) {
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "Transfer-Encoding:" + std::string(value), ""}), "download_headers",
                   framing)
        << value;
  }
}

TEST(ContentType, IsAnythingButManyRanges) {
  for (const char* value : {"", "text/plain", "multipart/byterange", "multipart/mixed", "x-multipart/byteranges"}) {
    EXPECT_TRUE(whole({"HTTP/1.1 200 OK", "Content-Type:" + std::string(value), ""}).admitted()) << value;
  }
  for (const char* value : {"multipart/byteranges", "Multipart/ByteRanges", " multipart/byteranges; boundary=a",
                            "multipart/byterangesque"}) {
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "Content-Type:" + std::string(value), ""}), "download_range", multipart)
        << value;
    EXPECT_FAILURE(
        rest({"HTTP/1.1 206", "Content-Range: bytes 100-999/1000", "Content-Type:" + std::string(value), ""}),
        "download_range", multipart)
        << value;
  }
}

TEST(FullResponse, HoldsTheFileFromItsStart) {
  DownloadResponseHeaders headers = rest({"HTTP/1.1 200 OK"});
  EXPECT_EQ(headers.offset(), 100u);
  headers.line("\r\n");
  EXPECT_TRUE(headers.admitted());
  EXPECT_EQ(headers.offset(), 0u);
  headers.body(1000);
  EXPECT_NO_THROW(headers.finish());
}

TEST(FullResponse, HoldsNoRange) {
  for (const char* value : {"", "bytes 0-999/1000", "bytes 100-999/1000", "bytes */1000", "x"}) {
    const std::string line = "Content-Range: " + std::string(value);
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", line, ""}), "download_range", range_on_full) << value;
    DownloadResponseHeaders headers = rest({"HTTP/1.1 200 OK", line});
    EXPECT_FAILURE(headers.line("\r\n"), "download_range", range_on_full) << value;
    EXPECT_EQ(headers.offset(), 100u);
    EXPECT_FALSE(headers.admitted());
  }
}

TEST(PartialResponse, HoldsTheRestOfTheFile) {
  for (const char* value :
       {"bytes 100-999/1000", "BYTES 100-999/1000", "Bytes 0100-0999/001000", "\tbytes 100-999/1000 \t"}) {
    DownloadResponseHeaders headers = rest({"HTTP/1.1 206 Partial Content", "Content-Range:" + std::string(value), ""});
    EXPECT_TRUE(headers.admitted()) << value;
    EXPECT_EQ(headers.offset(), 100u);
    headers.body(900);
    EXPECT_NO_THROW(headers.finish());
  }
}

TEST(PartialResponse, NeedsTheRangeThatWasAskedFor) {
  EXPECT_FAILURE(rest({"HTTP/1.1 206 Partial Content", ""}), "download_range", no_range);
  EXPECT_FAILURE(whole({"HTTP/1.1 206 Partial Content", ""}), "download_range", no_range);
  EXPECT_FAILURE(whole({"HTTP/1.1 206 Partial Content", "Content-Range: bytes 0-999/1000", ""}), "download_range",
                 no_range);
  EXPECT_FAILURE(whole({"HTTP/1.1 206 Partial Content", "Content-Range: x", ""}), "download_range", no_range);
}

TEST(PartialResponse, NeedsARangeOfBytes) {
  for (const char* value :
       {"", "bytes", "bytes 100", "bytes 100-999", "bytes 100/1000", "bytes 100/999-1000", "100-999/1000",
        "bytes=100-999/1000", "bytes\t100-999/1000", "by-tes 100-999/1000", "by/tes 100-999/1000", "items 100-999/1000",
        "bytesx 100-999/1000", "bytes */1000", "bytes100-999/1000 ", "/- bytes"}) {
    DownloadResponseHeaders headers = rest({"HTTP/1.1 206", "Content-Range: " + std::string(value)});
    EXPECT_FAILURE(headers.line("\r\n"), "download_range", bad_range) << value;
    EXPECT_EQ(headers.offset(), 100u);
    EXPECT_FALSE(headers.admitted());
  }
}

TEST(PartialResponse, NeedsNumbersOfItsRange) {
  for (const char* value :
       {"bytes 100-999/*", "bytes 100-*/1000", "bytes -999/1000", "bytes 100-/1000", "bytes 100-999/",
        "bytes  100-999/1000", "bytes 100 -999/1000", "bytes 100- 999/1000", "bytes 100-999 /1000",
        "bytes 100-999/ 1000", "bytes 100-999/1000, 0-1/1000", "bytes 100--999/1000", "bytes 100-999//1000",
        "bytes 100-999/1000/1000", "bytes +100-999/1000", "bytes 100-999/18446744073709551616"}) {
    EXPECT_FAILURE(rest({"HTTP/1.1 206", "Content-Range: " + std::string(value), ""}), "download_headers", bad_number)
        << value;
  }
}

TEST(PartialResponse, RunsFromTheRequestedByteToTheLast) {
  for (const char* value :
       {"bytes 99-999/1000", "bytes 101-999/1000", "bytes 0-999/1000", "bytes 100-998/1000", "bytes 100-1000/1000",
        "bytes 100-1000/1001", "bytes 100-999/999", "bytes 100-999/1001", "bytes 100-99/1000", "bytes 999-100/1000",
        "bytes 100-999/0", "bytes 100-18446744073709551615/0", "bytes 0-0/0"}) {
    DownloadResponseHeaders headers = rest({"HTTP/1.1 206", "Content-Range: " + std::string(value)});
    EXPECT_FAILURE(headers.line("\r\n"), "download_range", other_range) << value;
    EXPECT_EQ(headers.offset(), 100u);
    EXPECT_FALSE(headers.admitted());
  }
}

TEST(PartialResponse, NeverAnswersForTheEndOfTheFile) {
  for (const char* value : {"bytes 1000-999/1000", "bytes 1000-1000/1000", "bytes 999-999/1000"}) {
    DownloadResponseHeaders headers(1000, 1000, true);
    feed(headers, {"HTTP/1.1 206", "Content-Range: " + std::string(value)});
    EXPECT_FAILURE(headers.line("\r\n"), "download_range", other_range) << value;
  }
  DownloadResponseHeaders headers(1000, 1000, true);
  feed(headers, {"HTTP/1.1 200 OK", ""});
  headers.body(1000);
  EXPECT_NO_THROW(headers.finish());
}

TEST(PartialResponse, BehindAFullOneBeginsAtTheRequestedByteAgain) {
  DownloadResponseHeaders headers = rest({"HTTP/1.1 200 OK", ""});
  feed(headers, {"HTTP/1.1 206"});
  EXPECT_EQ(headers.offset(), 0u);
  feed(headers, {"Content-Range: bytes 100-999/1000", ""});
  EXPECT_EQ(headers.offset(), 100u);
  EXPECT_FAILURE(headers.body(901), "size_limit", too_long);
}

// Each answer has the fault that it is refused for and all those that are looked for later.
TEST(DownloadAdmission, ChecksInOrder) {
  const auto refuse = [](int status, const std::vector<std::string>& fields, std::uint64_t offset) {
    DownloadResponseHeaders headers(1000, offset, true);
    feed(headers, {"HTTP/1.1 " + std::to_string(status)});
    for (const std::string& field : fields) {
      feed(headers, {field});
    }
    headers.line("\r\n");
  };
  std::vector<std::string> fields = {"Content-Encoding: gzip", "Transfer-Encoding: gzip",
                                     "Content-Type: multipart/byteranges", "Content-Range: x", "Content-Length: 1"};
  EXPECT_NO_THROW(refuse(102, fields, 0));
  EXPECT_FAILURE(refuse(101, fields, 0), "download_headers", upgrade);
  EXPECT_FAILURE(refuse(301, fields, 0), "redirect_rejected", redirect);
  EXPECT_FAILURE(refuse(404, fields, 0), "http_status", "Download failed with status 404");
  EXPECT_FAILURE(refuse(200, fields, 0), "download_headers", encoding);
  EXPECT_FAILURE(refuse(206, fields, 0), "download_headers", encoding);
  fields[0] = "Content-Encoding: identity";
  EXPECT_FAILURE(refuse(200, fields, 0), "download_headers", framing);
  EXPECT_FAILURE(refuse(206, fields, 0), "download_headers", framing);
  fields[1] = "a: b";
  EXPECT_FAILURE(refuse(200, fields, 0), "download_range", multipart);
  EXPECT_FAILURE(refuse(206, fields, 0), "download_range", multipart);
  fields[2] = "Content-Type: a/b";
  EXPECT_FAILURE(refuse(200, fields, 0), "download_range", range_on_full);
  EXPECT_FAILURE(refuse(206, fields, 0), "download_range", no_range);
  EXPECT_FAILURE(refuse(206, fields, 100), "download_range", bad_range);
  fields[3] = "Content-Range: bytes 0-x/y";
  EXPECT_FAILURE(refuse(206, fields, 100), "download_headers", bad_number);
  fields[3] = "Content-Range: bytes 0-0/0";
  EXPECT_FAILURE(refuse(206, fields, 100), "download_range", other_range);
  fields[3] = "Content-Range: bytes 100-999/1000";
  EXPECT_FAILURE(refuse(206, fields, 100), "length_mismatch", other_length);
  fields[4] = "Content-Length: 900";
  EXPECT_NO_THROW(refuse(206, fields, 100));
}

TEST(DownloadBody, NeedsAnAdmittedResponse) {
  for (const std::uint64_t bytes : {std::uint64_t{0}, std::uint64_t{1}, most}) {
    EXPECT_FAILURE(whole({}).body(bytes), "download_headers", too_early);
    EXPECT_FAILURE(whole({"HTTP/1.1 200 OK"}).body(bytes), "download_headers", too_early);
    EXPECT_FAILURE(whole({"HTTP/1.1 102", ""}).body(bytes), "download_headers", too_early);
  }
}

TEST(DownloadBody, EndsWithTheFile) {
  DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", "Transfer-Encoding: chunked", ""});
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(1001), "size_limit", too_long);
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(most), "size_limit", too_long);
  headers.body(1);
  headers.body(0);
  headers.body(998);
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(2), "size_limit", too_long);
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(most), "size_limit", too_long);
  headers.body(1);
  headers.body(0);
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(1), "size_limit", too_long);
  EXPECT_NO_THROW(headers.finish());
}

TEST(DownloadBody, EndsWithTheDeclaredLength) {
  DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", "Content-Length: 10", ""});
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(11), "length_mismatch", beyond_declared);
  // Beyond the file as well, and that is told first.
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(1001), "size_limit", too_long);
  headers.body(9);
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(2), "length_mismatch", beyond_declared);
  headers.body(1);
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(1), "length_mismatch", beyond_declared);
  EXPECT_NO_THROW(headers.finish());
}

TEST(DownloadBody, OfAPartEndsWithTheFileToo) {
  DownloadResponseHeaders headers = rest({"HTTP/1.1 206", "Content-Range: bytes 100-999/1000", ""});
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(901), "size_limit", too_long);
  headers.body(900);
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(1), "size_limit", too_long);
  EXPECT_NO_THROW(headers.finish());
}

TEST(DownloadBody, OfAnEmptyFileIsEmpty) {
  for (const bool exact : {false, true}) {
    DownloadResponseHeaders headers(0, 0, exact);
    feed(headers, {"HTTP/1.1 200 OK", "Content-Length: 0", ""});
    EXPECT_FAILURE(DownloadResponseHeaders(headers).body(1), "size_limit", too_long);
    EXPECT_NO_THROW(DownloadResponseHeaders(headers).finish());
    headers.body(0);
    EXPECT_NO_THROW(headers.finish());
  }
}

TEST(DownloadFinish, NeedsAnAdmittedResponse) {
  EXPECT_FAILURE(whole({}).finish(), "download_headers", nothing_admitted);
  EXPECT_FAILURE(whole({"HTTP/1.1 200 OK", "Content-Length: 0"}).finish(), "download_headers", nothing_admitted);
  EXPECT_FAILURE(whole({"HTTP/1.1 100 Continue", ""}).finish(), "download_headers", nothing_admitted);
}

TEST(DownloadFinish, NeedsAllOfTheDeclaredLength) {
  for (const std::uint64_t bytes : {0u, 1u, 9u}) {
    DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", "Content-Length: 10", ""});
    headers.body(bytes);
    EXPECT_FAILURE(headers.finish(), "length_mismatch", too_short) << bytes;
    EXPECT_TRUE(headers.admitted());
  }
}

TEST(DownloadFinish, NeedsAllThatIsLeftWhereAllMustCome) {
  for (const std::uint64_t bytes : {0u, 1u, 899u}) {
    DownloadResponseHeaders headers = rest({"HTTP/1.1 206", "Content-Range: bytes 100-999/1000", ""});
    headers.body(bytes);
    EXPECT_FAILURE(headers.finish(), "length_mismatch", too_short) << bytes;
  }
  DownloadResponseHeaders headers = rest({"HTTP/1.1 200 OK", "Transfer-Encoding: chunked", ""});
  headers.body(900);
  EXPECT_FAILURE(headers.finish(), "length_mismatch", too_short);
  headers.body(100);
  EXPECT_NO_THROW(headers.finish());
}

TEST(DownloadFinish, TakesAShortBodyWhereNeitherSideSaidItsLength) {
  for (const std::uint64_t bytes : {0u, 1u, 999u, 1000u}) {
    DownloadResponseHeaders headers = whole({"HTTP/1.1 200 OK", ""});
    headers.body(bytes);
    EXPECT_NO_THROW(headers.finish()) << bytes;
  }
  EXPECT_NO_THROW(whole({"HTTP/1.1 200 OK", ""}).finish());
}

TEST(LargestFile, IsTakenWhole) {
  for (const bool exact : {false, true}) {
    DownloadResponseHeaders headers(most, 0, exact);
    feed(headers, {"HTTP/1.1 200 OK", "Content-Length: 18446744073709551615", ""});
    headers.body(1);
    EXPECT_FAILURE(DownloadResponseHeaders(headers).body(most), "size_limit", too_long);
    headers.body(most - 1);
    EXPECT_FAILURE(DownloadResponseHeaders(headers).body(1), "size_limit", too_long);
    EXPECT_NO_THROW(headers.finish());
  }
}

TEST(LargestFile, IsTakenFromItsLastByte) {
  DownloadResponseHeaders headers(most, most - 1, true);
  feed(headers, {"HTTP/1.1 206", "Content-Range: bytes 18446744073709551614-18446744073709551614/18446744073709551615",
                 "Content-Length: 1", ""});
  EXPECT_EQ(headers.offset(), most - 1);
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(2), "size_limit", too_long);
  EXPECT_FAILURE(DownloadResponseHeaders(headers).body(most), "size_limit", too_long);
  headers.body(1);
  EXPECT_NO_THROW(headers.finish());
}

TEST(LargestFile, IsNotTakenFromBehindItsEnd) {
  for (const char* range : {"18446744073709551615-18446744073709551614/18446744073709551615",
                            "18446744073709551615-18446744073709551615/18446744073709551615",
                            "18446744073709551615-18446744073709551615/0"}) {
    DownloadResponseHeaders headers(most, most, true);
    feed(headers, {"HTTP/1.1 206", "Content-Range: bytes " + std::string(range)});
    EXPECT_FAILURE(headers.line("\r\n"), "download_range", other_range) << range;
  }
}

}  // namespace
}  // namespace ravok::download_headers_test
