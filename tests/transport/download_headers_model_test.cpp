// Compares the admission of responses with a second, slow form of the same rules, on many answers that chance makes up.
// The second form keeps nothing but what has arrived, and looks through all of it for every question.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "transport/download_headers.hpp"

namespace ravok::download_headers_model_test {
namespace {

using Fields = std::map<std::string, std::string>;

constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();

// What a step ends with: a code and a message, or nothing.
using Outcome = std::string;
const Outcome accepted;

Outcome refused(const std::string& code, const std::string& message) { return code + ": " + message; }
Outcome malformed(const std::string& message) { return refused("download_headers", message); }
const Outcome bad_number = malformed("Invalid download length or range");

std::optional<std::uint64_t> number_of(std::string text) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  while (text.size() > 1 && text[0] == '0') {
    text.erase(0, 1);
  }
  const std::string largest = "18446744073709551615";
  if (text.size() > largest.size() || (text.size() == largest.size() && text > largest)) {
    return std::nullopt;
  }
  return std::stoull(text);
}

std::string in_lower_case(std::string text) {
  for (char& c : text) {
    const std::size_t letter = std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZ").find(c);
    c = letter == std::string::npos ? c : "abcdefghijklmnopqrstuvwxyz"[letter];
  }
  return text;
}

std::string content_of(const std::string& line) {
  const std::string content = line.substr(0, line.size() - 1);
  return content.ends_with("\r") ? content.substr(0, content.size() - 1) : content;
}

bool is_status_line(const std::string& content) { return content.substr(0, 5) == "HTTP/"; }

std::string name_of(const std::string& content) { return in_lower_case(content.substr(0, content.find(':'))); }

std::string value_of(const std::string& content) {
  const std::string value = content.substr(content.find(':') + 1);
  const std::size_t first = value.find_first_not_of(" \t");
  return first == std::string::npos ? "" : value.substr(first, value.find_last_not_of(" \t") - first + 1);
}

bool matters(const std::string& name) {
  return std::set<std::string>{"content-length", "content-range", "content-encoding", "transfer-encoding",
                               "content-type"}
      .contains(name);
}

// Whether the parts together are no more than the whole, however large they are.
bool fits(std::uint64_t whole, const std::vector<std::uint64_t>& parts) {
  for (const std::uint64_t part : parts) {
    if (part > whole) {
      return false;
    }
    whole -= part;
  }
  return true;
}

class Model {
 public:
  Model(std::uint64_t expected, std::uint64_t offset, bool exact)
      : expected_(expected), requested_(offset), exact_(exact) {}

  Outcome line(const std::string& text) {
    Outcome outcome = judge_line(text);
    if (outcome == accepted) {
      lines_.push_back(content_of(text));
      bytes_.push_back(text.size());
    }
    return outcome;
  }

  Outcome body(std::uint64_t bytes) {
    if (!admitted()) {
      return malformed("Download body precedes admitted headers");
    }
    if (!fits(expected_, {offset(), arrived(), bytes})) {
      return refused("size_limit", "Download exceeds its authenticated length");
    }
    if (length() && !fits(*length(), {arrived(), bytes})) {
      return refused("length_mismatch", "Download exceeds its declared response length");
    }
    pieces_.push_back(bytes);
    return accepted;
  }

  Outcome finish() const {
    if (!admitted()) {
      return malformed("Download has no admitted final response");
    }
    const bool is_short = (length() && arrived() < *length()) || (exact_ && offset() + arrived() < expected_);
    return is_short ? refused("length_mismatch", "Download body is shorter than its authenticated response length")
                    : accepted;
  }

  // Whatever could not be admitted was refused at its empty line, and a refusal ends the transfer. So an empty line is
  // all that it takes.
  bool admitted() const {
    bool admitted = false;
    std::uint64_t status = 0;
    for (const std::string& line : lines_) {
      if (is_status_line(line)) {
        status = status_of(line);
        admitted = false;
      }
      admitted = admitted || (line.empty() && (status == 200 || status == 206));
    }
    return admitted;
  }

  std::uint64_t offset() const {
    std::uint64_t offset = requested_;
    std::uint64_t status = 0;
    for (const std::string& line : lines_) {
      status = is_status_line(line) ? status_of(line) : status;
      if (line.empty() && (status == 200 || status == 206)) {
        offset = status == 200 ? 0 : requested_;
      }
    }
    return offset;
  }

 private:
  // Returns the lines from the last status line on.
  static std::vector<std::string> block(const std::vector<std::string>& lines) {
    std::vector<std::string> block;
    for (const std::string& line : lines) {
      if (is_status_line(line)) {
        block.clear();
      }
      block.push_back(line);
    }
    return block;
  }

  static std::uint64_t status_of(const std::string& line) { return *number_of(line.substr(line.find(' ') + 1, 3)); }

  Fields framing() const {
    Fields fields;
    for (const std::string& line : block(lines_)) {
      if (!is_status_line(line) && matters(name_of(line))) {
        fields[name_of(line)] = value_of(line);
      }
    }
    return fields;
  }

  std::optional<std::uint64_t> length() const {
    const Fields fields = framing();
    return fields.contains("content-length") ? number_of(fields.at("content-length")) : std::nullopt;
  }

  std::uint64_t arrived() const {
    std::uint64_t sum = 0;
    for (const std::uint64_t piece : pieces_) {
      sum += piece;
    }
    return sum;
  }

  Outcome judge_line(const std::string& text) const {
    std::size_t header_bytes = text.size();
    for (const std::size_t bytes : bytes_) {
      header_bytes += bytes;
    }
    if (text.size() > 8192 || header_bytes > 65536) {
      return malformed("Download headers exceed their bounded format");
    }
    if (text.empty() || text[text.size() - 1] != '\n') {
      return malformed("Download header line is incomplete");
    }
    const std::string content = content_of(text);
    for (const char c : content) {
      const int byte = static_cast<unsigned char>(c);
      if (byte != 9 && (byte < 32 || byte == 127)) {
        return malformed("Download header contains control bytes");
      }
    }
    if (is_status_line(content)) {
      return judge_status_line(content);
    }
    if (lines_.empty()) {
      return malformed("Download headers precede their status");
    }
    if (content.empty()) {
      return admitted() ? accepted : judge_block();
    }
    return judge_field(content);
  }

  Outcome judge_status_line(const std::string& content) const {
    int before = 0;
    for (const std::string& line : lines_) {
      before += is_status_line(line) ? 1 : 0;
    }
    if (!pieces_.empty() || before == 8) {
      return malformed("Unexpected download response sequence");
    }
    for (const std::string version : {"HTTP/1.0 ", "HTTP/1.1 ", "HTTP/2 ", "HTTP/3 "}) {
      const std::string rest = content.starts_with(version) ? content.substr(version.size()) + " " : "";
      if (rest.size() >= 4 && rest[3] == ' ') {
        const auto status = number_of(rest.substr(0, 3));
        if (!status) {
          return bad_number;
        }
        return *status >= 100 && *status < 600 ? accepted : malformed("Invalid download status");
      }
    }
    return malformed("Invalid download status line");
  }

  Outcome judge_field(const std::string& content) const {
    int fields = 1;
    for (const std::string& line : block(lines_)) {
      fields += line.empty() || is_status_line(line) ? 0 : 1;
    }
    if (content[0] == ' ' || content[0] == '\t' || fields > 128) {
      return malformed("Invalid or excessive download fields");
    }
    if (content.find(':') == std::string::npos || content[0] == ':') {
      return malformed("Invalid download field");
    }
    const std::string name = name_of(content);
    if (name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789!#$%&'*+-.^_`|~") != std::string::npos) {
      return malformed("Invalid download field name");
    }
    if (!matters(name)) {
      return accepted;
    }
    if (admitted() || framing().contains(name)) {
      return malformed("Duplicate or late download framing field");
    }
    return name == "content-length" && !number_of(value_of(content)) ? bad_number : accepted;
  }

  Outcome judge_block() const {
    const std::uint64_t status = status_of(block(lines_).front());
    Fields fields = framing();
    if (status == 101) {
      return malformed("Download protocol upgrades are not supported");
    }
    if (status <= 199) {
      return accepted;
    }
    if (status / 100 == 3) {
      return refused("redirect_rejected", "Server redirects are not permitted");
    }
    if (status != 200 && status != 206) {
      return refused("http_status", "Download failed with status " + std::to_string(status));
    }
    if (fields.contains("content-encoding") && in_lower_case(fields["content-encoding"]) != "identity") {
      return malformed("Download content encoding changes authenticated bytes");
    }
    if (fields.contains("transfer-encoding") &&
        (in_lower_case(fields["transfer-encoding"]) != "chunked" || fields.contains("content-length"))) {
      return malformed("Unsupported download transfer framing");
    }
    if (in_lower_case(fields["content-type"]).substr(0, 20) == "multipart/byteranges") {
      return refused("download_range", "Multipart download ranges are not supported");
    }
    if (status == 200 && fields.contains("content-range")) {
      return refused("download_range", "A full response contains an unexpected range");
    }
    const Outcome range = status == 206 ? judge_range(fields) : accepted;
    return range == accepted ? judge_length(status == 200 ? 0 : requested_) : range;
  }

  Outcome judge_range(const Fields& fields) const {
    if (requested_ == 0 || !fields.contains("content-range")) {
      return refused("download_range", "A partial response requires the requested single range");
    }
    const std::string range = fields.at("content-range");
    const std::size_t space = range.find(' ');
    const std::size_t dash = range.find('-');
    const std::size_t slash = range.find('/');
    const std::set<std::size_t> marks = {space, dash, slash};
    if (marks.size() < 3 || marks.contains(std::string::npos) || *marks.begin() != space || *marks.rbegin() != slash ||
        in_lower_case(range.substr(0, space)) != "bytes") {
      return refused("download_range", "Invalid download content range");
    }
    const auto first = number_of(range.substr(space + 1, dash - space - 1));
    const auto last = number_of(range.substr(dash + 1, slash - dash - 1));
    const auto complete = number_of(range.substr(slash + 1));
    if (!first || !last || !complete) {
      return bad_number;
    }
    const bool fits =
        *first == requested_ && *last == expected_ - 1 && *complete == expected_ && requested_ < expected_;
    return fits ? accepted : refused("download_range", "Server range differs from the authenticated remaining bytes");
  }

  Outcome judge_length(std::uint64_t offset) const {
    if (!length() || *length() == expected_ - offset || (!exact_ && *length() < expected_ - offset)) {
      return accepted;
    }
    return refused("length_mismatch", "Server length differs from the authenticated download bound");
  }

  std::uint64_t expected_;
  std::uint64_t requested_;
  bool exact_;
  // What was accepted.
  std::vector<std::string> lines_;  // without their ends
  std::vector<std::size_t> bytes_;  // of the lines with their ends
  std::vector<std::uint64_t> pieces_;
};

class Chance {
 public:
  explicit Chance(unsigned seed) : random_(seed) {}

  std::uint64_t below(std::uint64_t bound) { return random_() % bound; }
  bool one_in(std::uint64_t count) { return below(count) == 0; }
  template <typename Value>
  Value one_of(const std::vector<Value>& values) {
    return values[below(values.size())];
  }

 private:
  std::mt19937_64 random_;
};

struct Request {
  std::uint64_t expected;
  std::uint64_t offset;
  bool exact;
};

Request make_request(Chance& chance) {
  const auto expected = chance.one_of<std::uint64_t>({0, 1, 10, 1000, most / 2 + 1, most});
  const auto offset = chance.one_of<std::uint64_t>({0, expected / 2, expected - (expected > 0 ? 1u : 0u), expected});
  return {expected, offset, chance.one_in(2)};
}

// A number of the request, or one beside it.
std::string make_number(Chance& chance, std::uint64_t right) {
  if (!chance.one_in(12)) {
    return chance.one_in(12) ? "00" + std::to_string(right) : std::to_string(right);
  }
  return chance.one_of<std::string>({std::to_string(right + 1), std::to_string(right - 1), "0", "1",
                                     "18446744073709551615", "18446744073709551616", "", "+1", " 1", "-1", "*", "x"});
}

std::string make_status(Chance& chance, const Request& request) {
  if (chance.one_in(30)) {
    return chance.one_of<std::string>({"HTTP/1.1", "HTTP/1.1 20", "HTTP/1.1 2000", "HTTP/1.2 200", "HTTP/2.0 200",
                                       "HTTP/1.1 2x0 OK", "HTTP/1.1 099", "HTTP/1.1 600", "HTTP/", "HTTP/2  20 OK",
                                       "HTTP/2\t200 OK"});
  }
  const std::string version = chance.one_of<std::string>({"HTTP/1.0", "HTTP/1.1", "HTTP/2", "HTTP/3"});
  const std::string phrase = chance.one_of<std::string>({"", " ", " OK", " a phrase of \xff"});
  if (chance.one_in(8)) {
    return version + chance.one_of<std::string>({" 101", " 201", " 301", " 399", " 404", " 416", " 599"}) + phrase;
  }
  if (chance.one_in(3)) {
    return version + chance.one_of<std::string>({" 100", " 102", " 199"}) + phrase;
  }
  return version + ((request.offset > 0) != chance.one_in(5) ? " 206" : " 200") + phrase;
}

std::string make_range(Chance& chance, const Request& request) {
  if (chance.one_in(15)) {
    return chance.one_of<std::string>({"", "bytes", "bytes 1-2", "bytes */3", "1-2/3", "bytes 1/2-3", "bytes=1-2/3",
                                       "b-y 1-2/3", "b/y 1-2/3", "items 1-2/3", "bytes 1 -2 /3/4", "bytes 1-2/3-4"});
  }
  return chance.one_of<std::string>({"bytes ", "bytes ", "BYTES "}) + make_number(chance, request.offset) + "-" +
         make_number(chance, request.expected - 1) + "/" + make_number(chance, request.expected);
}

std::string make_field(Chance& chance, const Request& request, bool partial) {
  if (chance.one_in(25)) {
    return chance.one_of<std::string>({" a: b", "\ta: b", "a", ":", ": a", "a b: c", "\xff: a", "a\x01: b", "a: \x7f",
                                       "Content-Length : 1", "a: b\r"});
  }
  const std::string name = chance.one_of<std::string>({"content-", "Content-", "CONTENT-"});
  const std::string blank = chance.one_of<std::string>({"", " ", "\t ", " "});
  const std::uint64_t left = request.expected - (partial ? request.offset : 0);
  switch (chance.below(7)) {
    case 0:
      return name + "Length:" + blank + make_number(chance, left) + blank;
    case 1:
      return chance.one_in(5) ? name + "Range:" + blank + make_range(chance, request) + blank : "a: b";
    case 2:
      return name + "Encoding:" + blank + (chance.one_in(6) ? "gzip" : "Identity") + blank;
    case 3:
      return "Transfer-Encoding:" + blank + (chance.one_in(6) ? "gzip, chunked" : "Chunked") + blank;
    case 4:
      return name + "Type:" + blank + (chance.one_in(6) ? "Multipart/ByteRanges; a=b" : "text/plain");
    default:
      return chance.one_of<std::string>({"a: b", "Location: /a", "X-Content-Length: 1", "a:", "b::", "!~: c"});
  }
}

std::string with_end(Chance& chance, const std::string& content) {
  if (chance.one_in(200)) {
    return content + chance.one_of<std::string>({"", "\r", "\r\r\n", "\n\n"});
  }
  return content + (chance.one_in(4) ? "\n" : "\r\n");
}

std::uint64_t make_piece(Chance& chance, std::uint64_t left) {
  return chance.one_of<std::uint64_t>({left, left, left, left / 2, left / 2, 1, 0, left + 1, left - 1, most});
}

// One transfer, told to both, up to its first refusal or its end.
class Transfer {
 public:
  Transfer(Chance& chance, const Request& request)
      : chance_(chance),
        request_(request),
        headers_(request.expected, request.offset, request.exact),
        model_(request.expected, request.offset, request.exact) {}

  // Returns what the last step ended with.
  Outcome run() {
    while (outcome_ == accepted) {
      if (chance_.one_in(200)) {
        flood();
      } else if (in_body_ || chance_.one_in(60)) {
        body();
        if (chance_.one_in(3)) {
          return finish();
        }
      } else {
        block();
      }
      if (outcome_ == accepted && chance_.one_in(25)) {
        return finish();
      }
    }
    return outcome_;
  }

 private:
  void block() {
    if (!chance_.one_in(40)) {
      const std::string status = make_status(chance_, request_);
      partial_ = status.find(" 206") != std::string::npos;
      line(with_end(chance_, status));
    }
    if (partial_ && !chance_.one_in(8)) {
      line(with_end(chance_, "Content-Range: " + make_range(chance_, request_)));
    }
    for (std::uint64_t count = chance_.below(5); count > 0; --count) {
      line(with_end(chance_, make_field(chance_, request_, partial_)));
    }
    if (!chance_.one_in(40)) {
      line(with_end(chance_, ""));
    }
    in_body_ = model_.admitted() && !chance_.one_in(10);
  }

  void body() {
    const std::uint64_t left = request_.expected - model_.offset();
    const std::uint64_t bytes = make_piece(chance_, left > arrived_ ? left - arrived_ : 0);
    step([&] { headers_.body(bytes); }, [&] { return model_.body(bytes); });
    arrived_ += bytes;
    if (chance_.one_in(4)) {
      // A trailer, or what would begin another response.
      line(with_end(chance_,
                    chance_.one_in(8) ? make_status(chance_, request_) : make_field(chance_, request_, partial_)));
    }
  }

  // Goes to one of the bounds on lines.
  void flood() {
    const bool wide = chance_.one_in(2);
    const std::uint64_t count = wide ? 5 + chance_.below(6) : 125 + chance_.below(6);
    for (std::uint64_t i = 0; i < count && outcome_ == accepted; ++i) {
      line(wide ? "a:" + std::string(8188 + (chance_.one_in(60) ? chance_.below(3) : 0), 'b') + "\r\n" : "a: b\n");
    }
  }

  Outcome finish() {
    step([&] { headers_.finish(); }, [&] { return model_.finish(); });
    return outcome_;
  }

  void line(const std::string& text) {
    step([&] { headers_.line(text); }, [&] { return model_.line(text); });
  }

  template <typename Real, typename Modelled>
  void step(Real real, Modelled modelled) {
    if (outcome_ != accepted) {
      return;
    }
    const std::optional<Error> failure = testing::failure_of(real);
    const Outcome expected = modelled();
    outcome_ = failure ? refused(failure->code, failure->what()) : accepted;
    ASSERT_EQ(outcome_, expected);
    if (outcome_ == accepted) {
      ASSERT_EQ(headers_.admitted(), model_.admitted());
      ASSERT_EQ(headers_.offset(), model_.offset());
    }
  }

  Chance& chance_;
  Request request_;
  DownloadResponseHeaders headers_;
  Model model_;
  Outcome outcome_;
  bool partial_ = false;
  bool in_body_ = false;
  std::uint64_t arrived_ = 0;
};

TEST(DownloadHeadersModel, AgreesOnWhateverChanceSends) {
  std::map<Outcome, int> outcomes;
  for (unsigned seed = 1; seed <= 10'000; ++seed) {
    SCOPED_TRACE(seed);
    Chance chance(seed);
    const Request request = make_request(chance);
    ++outcomes[Transfer(chance, request).run()];
    if (::testing::Test::HasFailure()) {
      return;
    }
  }
  // All the ways in which a transfer ends have come up, so that the comparison was one.
  EXPECT_GT(outcomes[accepted], 500);
  std::map<std::string, int> messages;
  for (const auto& [outcome, count] : outcomes) {
    messages[outcome.substr(0, outcome.find(" with status "))] += count;
  }
  EXPECT_EQ(messages.size(), 29u);
  for (const auto& [message, count] : messages) {
    EXPECT_GE(count, 3) << message;
  }
}

}  // namespace
}  // namespace ravok::download_headers_model_test
