// Which addresses a service may have, and how a path becomes part of a URL.
#pragma once

#include <string>
#include <string_view>

namespace ravok {

// Returns the text with every byte but ASCII letters, digits, "-", ".", "_" and "~" written as "%" and two
// upper-case hexadecimal digits; "/" stands with `keep_slash`.
std::string quote_url(std::string_view text, bool keep_slash);

// Accepts only HTTPS, a host and perhaps a port and a path. The HTTPS library must have been started. Fails with
// "https_required" or "invalid_url".
void require_service_url(const std::string& base_url);

// Returns an accepted address up to the first "/" after its scheme.
std::string service_origin(const std::string& base_url);

}  // namespace ravok
