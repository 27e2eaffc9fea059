#include "platform/network/trust_store.hpp"

namespace ravok {

// The families of systems each have a place of their own.
std::vector<std::filesystem::path> os::trust_bundle_places() {
  return {
      "/etc/ssl/certs/ca-certificates.crt",                 // Debian, Ubuntu, Arch, Gentoo
      "/etc/pki/tls/certs/ca-bundle.crt",                   // Fedora, Red Hat
      "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",  // the same, later
      "/var/lib/ca-certificates/ca-bundle.pem",             // SUSE
      "/etc/ssl/ca-bundle.pem",                             // the same, earlier
      "/etc/ssl/cert.pem",                                  // Alpine
  };
}

}  // namespace ravok
