// The last line of an input is a path or the name of a file, and all before it a service address. For an address that
// is accepted, the URL of a path is the address followed by the quoted path, and the path can be read from it again.
// The library that makes the request reads it in the same way, so every request goes to that address.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <curl/curl.h>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "property.hpp"
#include "transport/https.hpp"

namespace {

using ravok::fuzz::must_hold;

unsigned digit(char c) { return static_cast<unsigned>(c >= 'A' ? c - 'A' + 10 : c - '0'); }

std::string unquote(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      plain += static_cast<char>(digit(text[i + 1]) * 16 + digit(text[i + 2]));
      i += 2;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

bool is_quoted(std::string_view text, bool keep_slash) {
  for (const char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '.' ||
          c == '_' || c == '~' || c == '%' || (keep_slash && c == '/'))) {
      return false;
    }
  }
  return true;
}

void check_quoting(std::string_view text) {
  for (const bool keep_slash : {false, true}) {
    const std::string quoted = ravok::quote_url(text, keep_slash);
    must_hold(unquote(quoted) == text, "a quoted text can be read again");
    must_hold(is_quoted(quoted, keep_slash), "a quoted text holds nothing that a URL reads otherwise");
  }
}

// What the library takes for a part of a URL; nothing where the part is absent.
std::optional<std::string> part_of(const std::string& url, CURLUPart part) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
  must_hold(curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK, "the library takes the URL");
  char* text = nullptr;
  if (curl_url_get(parsed.get(), part, &text, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  std::string copy = text;
  curl_free(text);
  return copy;
}

// The library asks the server of the base for what lies below the base, and for nothing else.
void check_request(const std::string& base, const std::string& quoted) {
  const std::string url = base + quoted;
  for (const CURLUPart part : {CURLUPART_SCHEME, CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_HOST, CURLUPART_ZONEID,
                               CURLUPART_PORT, CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
    must_hold(part_of(url, part) == part_of(base, part), "a request goes to the service and asks nothing more");
  }
  must_hold(part_of(url, CURLUPART_PATH) == *part_of(base, CURLUPART_PATH) + quoted, "a request stays below the base");
}

void check_service(const ravok::HttpsTransport& service, const std::string& address, std::string_view path) {
  must_hold(address.starts_with("https://"), "only HTTPS is taken");
  must_hold(address.find_first_of(std::string_view("\0\n\r\t ", 5)) == std::string::npos, "an address is one word");
  const std::string base = address.ends_with('/') ? address : address + '/';
  must_hold(base.starts_with(service.origin() + '/'), "the address begins with its origin");
  const std::string origin = service.origin();
  must_hold(origin.find('/', 8) == std::string::npos && origin.find('@') == std::string::npos,
            "an origin holds neither path nor credentials");
  bool safe = true;
  try {
    ravok::validate_relative_path(path, false);
  } catch (const ravok::Error&) {
    safe = false;
  }
  std::optional<std::string> url;
  try {
    url = service.url(path);
  } catch (const ravok::Error& refusal) {
    must_hold(refusal.code == "unsafe_path", "only a path is refused");
  }
  must_hold(url.has_value() == safe, "every safe path has a URL, and no other");
  must_hold(!url || (url->starts_with(base) && unquote(std::string_view(*url).substr(base.size())) == path),
            "a URL is the address and the path");
  if (url) {
    const std::string quoted = url->substr(base.size());
    must_hold(is_quoted(quoted, true), "a path holds nothing that a URL reads otherwise");
    check_request(base, quoted);
  }
  // The names of files that can be asked for.
  if (!path.empty() && path != "." && path != "..") {
    check_request(base, ravok::quote_url(path, false));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::size_t end = text.rfind('\n');
  const std::string address(text.substr(0, end));
  const std::string_view path = end == std::string_view::npos ? "a" : text.substr(end + 1);
  check_quoting(text);
  try {
    const ravok::HttpsTransport service(address, {}, 0);
    check_service(service, address, path);
  } catch (const ravok::Error& refusal) {
    must_hold(refusal.code == "https_required" || refusal.code == "invalid_url",
              "an address is refused by its own codes");
  }
  return 0;
}
