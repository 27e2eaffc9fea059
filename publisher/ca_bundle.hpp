// The certificates that a client is to trust for its repository, proved before they are sealed into a package.
#pragma once

#include <string_view>

namespace ravok {

// Accepts only a text in PEM form that holds certificates, at least one and each readable, and otherwise nothing but
// lines of text around them. Fails with "invalid_ca_bundle", and names the line.
void require_certificates(std::string_view pem);

}  // namespace ravok
