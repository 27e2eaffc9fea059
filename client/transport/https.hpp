// The one road to the network: which service addresses it takes, and how a path becomes a URL.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace ravok {

// Returns the text with every byte but ASCII letters, digits, "-", ".", "_" and "~" written as "%" and two
// upper-case hexadecimal digits; "/" stands with `keep_slash`.
std::string quote_url(std::string_view text, bool keep_slash);

// Accepts only the origin of a service: HTTPS, a host and perhaps a port. Fails with "invalid_origin", and with
// "https_required", "invalid_url" or "transport" as the constructor of HttpsTransport does.
void require_plain_origin(const std::string& origin);

class HttpsTransport {
 public:
  // `base_url` is a service's root: HTTPS, with a host, perhaps a port and a path, and nothing else.
  // `ca_bundle` is a PEM file, or empty for the system's own trust. `bytes_per_second` limits downloads, at
  // most 1 GiB; 0 means no limit. Fails with "download_limit", "transport", "https_required" or
  // "invalid_url".
  HttpsTransport(std::string base_url, std::filesystem::path ca_bundle, std::uint64_t bytes_per_second);

  // The base URL up to the first "/" after its scheme.
  const std::string& origin() const { return origin_; }

  // Returns the URL of a relative path below the base. Fails with "unsafe_path" as validate_relative_path does.
  std::string url(std::string_view path) const;

 private:
  std::string base_url_;  // ends in "/"
  std::string origin_;
  std::filesystem::path ca_bundle_;
  std::uint64_t bytes_per_second_;
};

}  // namespace ravok
