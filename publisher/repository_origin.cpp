#include "publisher/repository_origin.hpp"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "domain/error.hpp"
#include "domain/text_rules.hpp"
#include "transport/https.hpp"

namespace ravok {
namespace {

constexpr std::string_view invalid_origin = "invalid_origin";
constexpr std::string_view https = "https://";
constexpr std::size_t maximum_port_digits = 5;
constexpr std::size_t maximum_name_characters = 63;
constexpr std::size_t maximum_host_characters = 253;
constexpr unsigned long maximum_port = 65'535;

void require_port(std::string_view port) {
  require(!port.empty(), invalid_origin, "The origin has a colon without a port behind it");
  const bool is_number = are_digits(port) && port.size() <= maximum_port_digits;
  const unsigned long number = is_number ? std::stoul(std::string(port)) : 0;
  require(number >= 1 && number <= maximum_port, invalid_origin,
          "The port of the origin must be a number from 1 to 65535");
}

bool is_host_name(std::string_view name) {
  return !name.empty() && name.size() <= maximum_name_characters && name.front() != '-' && name.back() != '-' &&
         std::all_of(name.begin(), name.end(), [](char c) { return is_letter_or_digit(c) || c == '-' || c == '_'; });
}

bool is_address(const std::vector<std::string_view>& numbers) {
  return numbers.size() == 4 && std::all_of(numbers.begin(), numbers.end(), [](std::string_view number) {
           return are_digits(number) && number.size() <= 3 && std::stoul(std::string(number)) <= 255;
         });
}

// The names of a host, of which the last is a number in an address alone. A dot may end them.
void require_names(std::string_view host) {
  std::vector<std::string_view> names;
  for (std::string_view rest = host.ends_with('.') ? host.substr(0, host.size() - 1) : host;;) {
    const std::size_t dot = rest.find('.');
    names.push_back(rest.substr(0, dot));
    if (dot == std::string_view::npos) {
      break;
    }
    rest.remove_prefix(dot + 1);
  }
  require(host.size() <= maximum_host_characters && std::all_of(names.begin(), names.end(), is_host_name),
          invalid_origin,
          "The host of the origin must be names of 1 to 63 letters, digits and hyphens between dots, 253 characters at "
          "most");
  require(!are_digits(names.back()) || is_address(names), invalid_origin,
          "The host of the origin ends in a number and is no address");
}

void require_host(std::string_view host) {
  require(std::none_of(host.begin(), host.end(), [](char c) { return static_cast<unsigned char>(c) > 127; }),
          invalid_origin,
          "The host of the origin must be ASCII; write an international name in its form that begins with xn--");
  require(std::any_of(host.begin(), host.end(), is_letter_or_digit), invalid_origin,
          "The host of the origin has no letter or digit");
  if (!host.starts_with('[')) {
    require_names(host);
  }
}

// Whether a text behind the scheme is not even the form of a host and a port.
bool has_more(std::string_view authority) {
  return authority.empty() || authority.find_first_of("/?#@") != std::string_view::npos ||
         authority.starts_with('[') != (authority.find(']') != std::string_view::npos);
}

}  // namespace

void require_reachable_origin(const std::string& origin) {
  const std::string_view text = origin;
  if (!text.starts_with(https) || has_more(text.substr(https.size()))) {
    require_plain_origin(origin);
    fail(invalid_origin, "The package origin must be a plain HTTPS origin");
  }
  require(text.find('%') == std::string_view::npos, invalid_origin, "The origin must not contain a percent sign");
  const std::string_view authority = text.substr(https.size());
  // The colons of an address in brackets begin no port.
  const std::size_t colon = authority.find(':', authority.starts_with('[') ? authority.find(']') : 0);
  if (colon != std::string_view::npos) {
    require_port(authority.substr(colon + 1));
  }
  require_host(authority.substr(0, colon));
  require_plain_origin(origin);
}

}  // namespace ravok
