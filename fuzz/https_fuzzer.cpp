// The last line of an input is a path, and all before it a service address. For an address that is accepted, the URL of
// a path is the address followed by the quoted path, and the path can be read from it again. So every request goes to
// that address.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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

void check_quoting(std::string_view text) {
  for (const bool keep_slash : {false, true}) {
    const std::string quoted = ravok::quote_url(text, keep_slash);
    must_hold(unquote(quoted) == text, "a quoted text can be read again");
    for (const char c : quoted) {
      must_hold((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '.' ||
                    c == '_' || c == '~' || c == '%' || (keep_slash && c == '/'),
                "a quoted text holds nothing that a URL reads otherwise");
    }
  }
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
