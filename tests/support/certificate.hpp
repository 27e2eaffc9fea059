// Certificates for tests.
#pragma once

#include <string>

namespace ravok::testing {

// A fresh certificate that is its own authority, in PEM form.
std::string certificate();

// The private key of such a one, in PEM form.
std::string private_key();

}  // namespace ravok::testing
