#include "transport/service_url.hpp"

#include <array>
#include <memory>

#include <curl/curl.h>

#include "domain/error.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::string_view scheme = "https://";

struct Release {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
  void operator()(char* text) const { curl_free(text); }
};
using Url = std::unique_ptr<CURLU, Release>;

// Asks for a part of a URL. The library's answer says also that there is no such part, or that there is no memory.
CURLUcode look_for(const CURLU* url, CURLUPart part) {
  char* text = nullptr;
  const CURLUcode answer = curl_url_get(url, part, &text, 0);
  const std::unique_ptr<char, Release> owner(text);
  return answer;
}

struct UnwantedPart {
  CURLUPart part;
  CURLUcode absent;  // the answer where a URL lacks it
};

constexpr std::array<UnwantedPart, 4> unwanted_parts = {{{CURLUPART_USER, CURLUE_NO_USER},
                                                         {CURLUPART_PASSWORD, CURLUE_NO_PASSWORD},
                                                         {CURLUPART_QUERY, CURLUE_NO_QUERY},
                                                         {CURLUPART_FRAGMENT, CURLUE_NO_FRAGMENT}}};

constexpr const char* no_more = "Service URL must not contain credentials, query, or fragment";

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

void require_service_url(const std::string& base_url) {
  require(base_url.starts_with(scheme), "https_required", "Ravok service URLs must use HTTPS");
  // The library would read the text only up to its first NUL.
  require(!has_nul(base_url), "invalid_url", "Invalid service URL");
  const Url url(curl_url());
  require(url && curl_url_set(url.get(), CURLUPART_URL, base_url.c_str(), 0) == CURLUE_OK, "invalid_url",
          "Invalid service URL");
  // The library would skip any number of slashes to find a host.
  require(base_url[scheme.size()] != '/' && look_for(url.get(), CURLUPART_HOST) == CURLUE_OK, "invalid_url",
          "URL must contain a hostname");
  // Only the answer that there is no such part counts, so that one that could not be looked for is not taken for
  // absent.
  for (const UnwantedPart& unwanted : unwanted_parts) {
    require(look_for(url.get(), unwanted.part) == unwanted.absent, "invalid_url", no_more);
  }
  // The library does not report an empty query or fragment, but its "?" or "#" would still stand between the base and a
  // path.
  require(base_url.find_first_of("?#") == std::string::npos, "invalid_url", no_more);
}

std::string service_origin(const std::string& base_url) {
  return base_url.substr(0, base_url.find('/', scheme.size()));
}

}  // namespace ravok
