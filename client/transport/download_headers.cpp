#include "transport/download_headers.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <system_error>

#include "domain/error.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_header_line_bytes = 8192;
constexpr std::uint64_t maximum_header_bytes = 65'536;
constexpr unsigned maximum_header_fields = 128;
constexpr unsigned maximum_responses = 8;

constexpr std::array<std::string_view, 5> framing_fields = {"content-length", "content-range", "content-encoding",
                                                            "transfer-encoding", "content-type"};

std::uint64_t decimal(std::string_view text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  require(result.ec == std::errc() && result.ptr == end, "download_headers", "Invalid download length or range");
  return number;
}

std::string_view without_line_end(std::string_view line) {
  require(line.ends_with('\n'), "download_headers", "Download header line is incomplete");
  line.remove_suffix(1);
  if (line.ends_with('\r')) {
    line.remove_suffix(1);
  }
  return line;
}

bool is_header_text(std::string_view content) {
  return std::none_of(content.begin(), content.end(), [](char c) { return is_control(c) && c != '\t'; });
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }

std::string_view without_blanks_around(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && is_blank(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

bool is_field_name(std::string_view name) {
  constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
  return std::all_of(name.begin(), name.end(), [&](char c) {
    return is_lower_letter(c) || is_digit(c) || marks.find(c) != std::string_view::npos;
  });
}

bool is_http_version(std::string_view text) {
  return text == "HTTP/1.0" || text == "HTTP/1.1" || text == "HTTP/2" || text == "HTTP/3";
}

// Returns the number of a status line, whose reason phrase means nothing.
unsigned read_status(std::string_view content) {
  constexpr std::size_t digits = 3;
  const std::size_t space = content.find(' ');
  require(space != std::string_view::npos && is_http_version(content.substr(0, space)), "download_headers",
          "Invalid download status line");
  const std::string_view rest = content.substr(space + 1);
  require(rest.size() == digits || (rest.size() > digits && rest[digits] == ' '), "download_headers",
          "Invalid download status line");
  const std::uint64_t status = decimal(rest.substr(0, digits));
  require(status >= 100 && status <= 599, "download_headers", "Invalid download status");
  return static_cast<unsigned>(status);
}

struct DownloadRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::uint64_t complete = 0;
};

DownloadRange read_content_range(std::string_view text) {
  const std::size_t space = text.find(' ');
  const std::size_t dash = text.find('-');
  const std::size_t slash = text.find('/');
  require(slash != std::string_view::npos && space < dash && dash < slash && lower(text.substr(0, space)) == "bytes",
          "download_range", "Invalid download content range");
  return {decimal(text.substr(space + 1, dash - space - 1)), decimal(text.substr(dash + 1, slash - dash - 1)),
          decimal(text.substr(slash + 1))};
}

}  // namespace

DownloadResponseHeaders::DownloadResponseHeaders(std::uint64_t expected, std::uint64_t offset, bool exact)
    : expected_(expected), requested_offset_(offset), offset_(offset), exact_(exact) {
  require(offset <= expected, "download_range", "Resume offset exceeds authenticated length");
}

void DownloadResponseHeaders::line(std::string_view text) {
  require(text.size() <= maximum_header_line_bytes && text.size() <= maximum_header_bytes - header_bytes_,
          "download_headers", "Download headers exceed their bounded format");
  header_bytes_ += text.size();
  const std::string_view content = without_line_end(text);
  require(is_header_text(content), "download_headers", "Download header contains control bytes");
  if (content.starts_with("HTTP/")) {
    begin_response(content);
    return;
  }
  require(status_ != 0, "download_headers", "Download headers precede their status");
  if (!content.empty()) {
    take_field(content);
  } else if (!admitted_) {
    admit();
  }
}

void DownloadResponseHeaders::begin_response(std::string_view content) {
  require(!body_started_ && responses_ < maximum_responses, "download_headers",
          "Unexpected download response sequence");
  ++responses_;
  status_ = read_status(content);
  admitted_ = false;
  fields_ = 0;
  content_length_.reset();
  content_range_.clear();
  content_encoding_.clear();
  transfer_encoding_.clear();
  content_type_.clear();
  seen_.clear();
}

void DownloadResponseHeaders::take_field(std::string_view content) {
  require(!is_blank(content.front()) && fields_ < maximum_header_fields, "download_headers",
          "Invalid or excessive download fields");
  ++fields_;
  const std::size_t colon = content.find(':');
  require(colon != std::string_view::npos && colon != 0, "download_headers", "Invalid download field");
  const std::string name = lower(content.substr(0, colon));
  require(is_field_name(name), "download_headers", "Invalid download field name");
  if (std::find(framing_fields.begin(), framing_fields.end(), name) == framing_fields.end()) {
    return;
  }
  require(!admitted_ && seen_.insert(name).second, "download_headers", "Duplicate or late download framing field");
  store(name, without_blanks_around(content.substr(colon + 1)));
}

void DownloadResponseHeaders::store(const std::string& name, std::string_view value) {
  if (name == "content-length") {
    content_length_ = decimal(value);
  } else if (name == "content-range") {
    content_range_ = value;
  } else if (name == "content-encoding") {
    content_encoding_ = lower(value);
  } else if (name == "transfer-encoding") {
    transfer_encoding_ = lower(value);
  } else {
    content_type_ = lower(value);
  }
}

void DownloadResponseHeaders::admit() {
  if (status_ < 200) {
    require(status_ != 101, "download_headers", "Download protocol upgrades are not supported");
    return;
  }
  require(status_ < 300 || status_ > 399, "redirect_rejected", "Server redirects are not permitted");
  require(status_ == 200 || status_ == 206, "http_status", "Download failed with status " + std::to_string(status_));
  require_bytes_as_they_are();
  offset_ = status_ == 200 ? full_offset() : partial_offset();
  require_fitting_length();
  admitted_ = true;
}

void DownloadResponseHeaders::require_bytes_as_they_are() const {
  require(!seen_.contains("content-encoding") || content_encoding_ == "identity", "download_headers",
          "Download content encoding changes authenticated bytes");
  require(!seen_.contains("transfer-encoding") || (transfer_encoding_ == "chunked" && !content_length_),
          "download_headers", "Unsupported download transfer framing");
  require(!content_type_.starts_with("multipart/byteranges"), "download_range",
          "Multipart download ranges are not supported");
}

std::uint64_t DownloadResponseHeaders::full_offset() const {
  require(!seen_.contains("content-range"), "download_range", "A full response contains an unexpected range");
  return 0;
}

std::uint64_t DownloadResponseHeaders::partial_offset() const {
  require(requested_offset_ != 0 && seen_.contains("content-range"), "download_range",
          "A partial response requires the requested single range");
  const DownloadRange range = read_content_range(content_range_);
  require(expected_ != 0 && range.first == requested_offset_ && range.last == expected_ - 1 &&
              range.complete == expected_ && range.first <= range.last,
          "download_range", "Server range differs from the authenticated remaining bytes");
  return range.first;
}

void DownloadResponseHeaders::require_fitting_length() const {
  if (!content_length_) {
    return;
  }
  require(exact_ ? *content_length_ == remaining() : *content_length_ <= remaining(), "length_mismatch",
          "Server length differs from the authenticated download bound");
}

void DownloadResponseHeaders::body(std::uint64_t bytes) {
  require(admitted_, "download_headers", "Download body precedes admitted headers");
  require(bytes <= remaining() - body_bytes_, "size_limit", "Download exceeds its authenticated length");
  require(!content_length_ || bytes <= *content_length_ - body_bytes_, "length_mismatch",
          "Download exceeds its declared response length");
  body_bytes_ += bytes;
  body_started_ = true;
}

void DownloadResponseHeaders::finish() const {
  require(admitted_, "download_headers", "Download has no admitted final response");
  require((!content_length_ || body_bytes_ == *content_length_) && (!exact_ || body_bytes_ == remaining()),
          "length_mismatch", "Download body is shorter than its authenticated response length");
}

}  // namespace ravok
