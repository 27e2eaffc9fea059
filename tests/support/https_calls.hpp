// Stands in for the requests of the HTTPS library: it notes the options that are set and then performs what a test says
// in place of a request, so that no connection is made. Linked into a test with the linker's wrapping of the calls'
// names. Without an object of HttpsCalls the library does its own work.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <curl/curl.h>

namespace ravok::testing {

// What the library does in a request: it calls back.
class Performance {
 public:
  // Hand over a header line and a piece of the body. Return whether it was taken.
  bool header(std::string_view line) const;
  bool body(std::string_view bytes) const;

  // Tells of the progress. Returns whether the request goes on.
  bool progress(curl_off_t download_total = 0, curl_off_t download_now = 0, curl_off_t upload_total = 0,
                curl_off_t upload_now = 0) const;

  // Asks for bytes to send, at most `room`. Returns them, or nothing when the request is to end.
  std::optional<std::string> send(std::size_t room) const;

  // Describe a buffer by numbers whose product does not fit. Return what the request answers.
  std::size_t too_large_header() const;
  std::size_t too_large_body() const;
  std::size_t too_large_room() const;
};

struct HttpsPlan {
  // The call that fails: "init", "status", "header 1" for the first line that is added to those of the request, or the
  // name of an option, such as "PROXY".
  std::string failing = {};
  // What happens in the request. By default nothing does, and it succeeds.
  std::function<CURLcode(const Performance&)> perform = {};
  long status = 200;
};

// Carries out a plan for as long as the object lives. One object at a time.
class HttpsCalls {
 public:
  explicit HttpsCalls(HttpsPlan plan = {});
  ~HttpsCalls();
  HttpsCalls(const HttpsCalls&) = delete;
  HttpsCalls& operator=(const HttpsCalls&) = delete;

  // The options of all requests in the order in which they were set: "TIMEOUT=30", "PROXY=''", "CAINFO=nothing",
  // "HTTPHEADER='Expect:' 'A: b'"; a callback and what it is given by their names alone.
  const std::vector<std::string>& options() const;

  // The text that was set as an option's value; empty when it was not set.
  std::string value(std::string_view option) const;

  // How many requests were performed, and how many handles were made and not released.
  int performed() const;
  int open_handles() const;
};

}  // namespace ravok::testing
