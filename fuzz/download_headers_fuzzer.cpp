// However a server answers, the bytes that are admitted never exceed what is left of the file from the admitted offset
// on, and a response is refused with an error and its code.
//
// The first line of an input is the request: the file's length, the offset, and "exact" where all must come. Each
// further line is a header line with its end, but one that begins with "@" is the size of a piece of the body.

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "domain/error.hpp"
#include "property.hpp"
#include "transport/download_headers.hpp"

namespace {

using ravok::DownloadResponseHeaders;
using ravok::fuzz::must_hold;

// Cuts the first line with its end off the text.
std::string_view next_line(std::string_view& text) {
  const std::size_t end = text.find('\n');
  const std::string_view line = text.substr(0, end == std::string_view::npos ? end : end + 1);
  text.remove_prefix(line.size());
  return line;
}

// Cuts a number and the byte behind it off the text; what is no number counts as 0.
std::uint64_t next_number(std::string_view& text) {
  std::uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  const auto size = static_cast<std::size_t>(result.ptr - text.data());
  text.remove_prefix(size < text.size() ? size + 1 : size);
  return number;
}

struct Answer {
  DownloadResponseHeaders headers;
  std::uint64_t expected;
  std::uint64_t requested;
  bool exact;
  std::uint64_t header_bytes = 0;
  std::uint64_t body_bytes = 0;
  bool has_body = false;
};

void take_line(Answer& answer, std::string_view line) {
  const std::uint64_t before = answer.headers.offset();
  answer.headers.line(line);
  answer.header_bytes += line.size();
  must_hold(line.size() <= 8192 && answer.header_bytes <= 65'536, "what is read of headers is bounded");
  must_hold(!answer.has_body || (answer.headers.admitted() && answer.headers.offset() == before),
            "a response does not change under its body");
}

void take_piece(Answer& answer, std::uint64_t bytes) {
  answer.headers.body(bytes);
  must_hold(answer.headers.admitted(), "only an admitted response has a body");
  must_hold(bytes <= answer.expected - answer.headers.offset() - answer.body_bytes,
            "no byte is admitted beyond the end of the file");
  answer.body_bytes += bytes;
  answer.has_body = true;
}

void take_end(const Answer& answer) {
  answer.headers.finish();
  must_hold(answer.headers.admitted(), "only an admitted response ends well");
  must_hold(!answer.exact || answer.body_bytes == answer.expected - answer.headers.offset(),
            "all that is left has come where it must");
}

void take_all(Answer& answer, std::string_view rest) {
  while (!rest.empty()) {
    std::string_view line = next_line(rest);
    if (line.starts_with('@')) {
      line.remove_prefix(1);
      take_piece(answer, next_number(line));
    } else {
      take_line(answer, line);
    }
    must_hold(answer.headers.offset() == 0 || answer.headers.offset() == answer.requested,
              "a body begins where it was asked to, or at the file's start");
  }
  take_end(answer);
}

bool is_known(std::string_view code) {
  return code == "download_headers" || code == "download_range" || code == "length_mismatch" || code == "size_limit" ||
         code == "http_status" || code == "redirect_rejected";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  std::string_view request = next_line(rest);
  const std::uint64_t expected = next_number(request);
  const std::uint64_t offset = next_number(request);
  const bool exact = request.starts_with("exact");
  try {
    Answer answer{DownloadResponseHeaders(expected, offset, exact), expected, offset, exact};
    must_hold(offset <= expected, "no request begins beyond the file");
    take_all(answer, rest);
  } catch (const ravok::Error& refusal) {
    must_hold(is_known(refusal.code) && refusal.what()[0] != '\0', "a refusal has a known code and words");
  }
  return 0;
}
