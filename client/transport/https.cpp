#include "transport/https.hpp"

#include <array>
#include <cstddef>
#include <memory>
#include <utility>

#include <curl/curl.h>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t maximum_rate = 1'073'741'824;
constexpr std::string_view scheme = "https://";

struct Release {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
  void operator()(char* text) const { curl_free(text); }
};
using Url = std::unique_ptr<CURLU, Release>;

void require_library() {
  static const CURLcode started = curl_global_init(CURL_GLOBAL_ALL);
  require(started == CURLE_OK, "transport", "Cannot initialize HTTPS library");
}

bool has_part(const CURLU* url, CURLUPart part) {
  char* text = nullptr;
  const CURLUcode answer = curl_url_get(url, part, &text, 0);
  const std::unique_ptr<char, Release> owner(text);
  return answer == CURLUE_OK && text != nullptr;
}

constexpr const char* no_more = "Service URL must not contain credentials, query, or fragment";

void require_service_url(const std::string& base_url) {
  require(base_url.starts_with(scheme), "https_required", "Ravok service URLs must use HTTPS");
  // The library would read the text only up to its first NUL.
  require(base_url.find('\0') == std::string::npos, "invalid_url", "Invalid service URL");
  const Url url(curl_url());
  require(url && curl_url_set(url.get(), CURLUPART_URL, base_url.c_str(), 0) == CURLUE_OK, "invalid_url",
          "Invalid service URL");
  // The library would skip any number of slashes to find a host.
  require(base_url[scheme.size()] != '/' && has_part(url.get(), CURLUPART_HOST), "invalid_url",
          "URL must contain a hostname");
  for (const CURLUPart part : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
    require(!has_part(url.get(), part), "invalid_url", no_more);
  }
  // The library does not report an empty query or fragment, but its "?" or "#" would still stand between the base and a
  // path.
  require(base_url.find_first_of("?#") == std::string::npos, "invalid_url", no_more);
}

bool is_unreserved(char c) { return is_letter_or_digit(c) || c == '-' || c == '.' || c == '_' || c == '~'; }

}  // namespace

std::string quote_url(std::string_view text, bool keep_slash) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string quoted;
  for (const char c : text) {
    if (is_unreserved(c) || (keep_slash && c == '/')) {
      quoted += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      quoted += {'%', digits[byte >> 4], digits[byte & 15]};
    }
  }
  return quoted;
}

void require_plain_origin(const std::string& origin) {
  const HttpsTransport transport(origin + "/tuf/metadata/", {}, 0);
  require(transport.origin() == origin, "invalid_origin", "The package origin must be a plain HTTPS origin");
}

HttpsTransport::HttpsTransport(std::string base_url, std::filesystem::path ca_bundle, std::uint64_t bytes_per_second)
    : base_url_(std::move(base_url)), ca_bundle_(std::move(ca_bundle)), bytes_per_second_(bytes_per_second) {
  initialize_client_runtime();
  require(bytes_per_second_ <= maximum_rate, "download_limit", "Download limit exceeds 1 GiB/s");
  require_library();
  require_service_url(base_url_);
  origin_ = base_url_.substr(0, base_url_.find('/', scheme.size()));
  if (!base_url_.ends_with('/')) {
    base_url_ += '/';
  }
}

std::string HttpsTransport::url(std::string_view path) const {
  validate_relative_path(path, false);
  return base_url_ + quote_url(path, true);
}

}  // namespace ravok
