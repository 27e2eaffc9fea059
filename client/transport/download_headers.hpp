// Admission of a download's response: whether the bytes behind its header lines may be written to a file whose length
// was signed elsewhere. Knows the lines and the sizes alone, and nothing of the network.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace ravok {

// Judges one transfer, whose header lines and pieces of body it is told of in the order in which they arrive. It admits
// a 200 with the whole file, and a 206 with exactly the range that was asked for. It passes over interim responses,
// and over trailers that do not touch the framing. The bytes admitted never exceed what is left of the file from
// offset() on. Every failure is an Error. After a failure, and after finish(), the transfer is over, and no function
// that changes the object may be called.
class DownloadResponseHeaders {
 public:
  // `expected` is the signed length of the whole file, in bytes. `offset` is the position of the byte that the request
  // asks to begin with, at most `expected`; 0 asks for the whole file. With `exact` the body must fill the file to its
  // end; without, it may be shorter. Fails with "download_range" for an offset beyond the file.
  DownloadResponseHeaders(std::uint64_t expected, std::uint64_t offset, bool exact);

  // Takes one whole header line with its line end: a status line, a field, or the empty line that ends a block of them
  // and on which a response is admitted. A status line begins a new response, which must be admitted by itself.
  // A line has at most 8192 bytes with its end, all lines together 65,536, a response at most 128 fields, and there are
  // at most 8 status lines. Fails with
  // - "download_headers" beyond those bounds, for a line that is malformed or not in its place, for an upgrade, and for
  //   a content encoding or a transfer framing that would change the bytes;
  // - "redirect_rejected" for a status from 300 to 399, and "http_status" for any other but 1xx, 200 and 206;
  // - "download_range" for a range that was not asked for or is not exactly the rest of the file;
  // - "length_mismatch" for a content length that does not fit what is left of the file.
  void line(std::string_view text);

  // Takes the size of the next piece of the body, before the piece is written. No status line may follow, not even
  // behind an empty piece. Fails with "download_headers" where no response is admitted, "size_limit" beyond the end of
  // the file, and "length_mismatch" beyond the response's own content length.
  void body(std::uint64_t bytes);

  // Accepts the end of a transfer that did not fail. Fails with "download_headers" where no response is admitted, and
  // with "length_mismatch" for a body that is shorter than its content length or, with `exact`, than the rest of the
  // file.
  void finish() const;

  // Whether the response that the last status line began is admitted.
  bool admitted() const { return admitted_; }

  // The position in the file of the first byte of the body, as the last response that was admitted has it: 0 for a 200,
  // with which a server that ignores the range sends the whole file. Before, it is the requested offset.
  std::uint64_t offset() const { return offset_; }

 private:
  void begin_response(std::string_view content);
  void take_field(std::string_view content);
  void store(const std::string& name, std::string_view value);
  void admit();
  void require_bytes_as_they_are() const;
  std::uint64_t full_offset() const;
  std::uint64_t partial_offset() const;
  void require_fitting_length() const;
  std::uint64_t remaining() const { return expected_ - offset_; }

  std::uint64_t expected_;
  std::uint64_t requested_offset_;
  std::uint64_t offset_;
  std::uint64_t header_bytes_ = 0;  // of all responses
  std::uint64_t body_bytes_ = 0;
  unsigned responses_ = 0;
  bool exact_;
  bool body_started_ = false;

  // Of the current response.
  unsigned status_ = 0;  // 0 before the first status line
  unsigned fields_ = 0;
  bool admitted_ = false;
  std::optional<std::uint64_t> content_length_;
  std::string content_range_;
  std::string content_encoding_;  // in lower case, as the two below
  std::string transfer_encoding_;
  std::string content_type_;
  std::set<std::string> seen_;  // the names of the five fields that matter, in lower case
};

}  // namespace ravok
