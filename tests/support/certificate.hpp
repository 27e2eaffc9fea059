// Certificates for tests.
#pragma once

#include <memory>
#include <string>

namespace ravok::testing {

// A fresh certificate that is its own authority and lasts so many days, in PEM form.
std::string certificate(int days = 1);

// The private key of such a one, in PEM form.
std::string private_key();

// What a TLS server shows and proves, in PEM form.
struct ServerCertificate {
  std::string chain;  // its certificate, and behind it those that lead to its authority
  std::string key;
};

// What is wrong with a server's certificate. All else about it is right.
enum class Flaw {
  none,
  expired,
  not_yet_valid,
  other_name,
  other_purpose,         // for a client, not for a server
  self_signed,           // vouched for by itself alone
  missing_intermediate,  // the server does not show who vouches for it
  issued_by_a_server,    // vouched for by one that is no authority
  small_key,             // RSA of 1,024 bits
  weak_digest,           // signed over SHA-1
};

// An authority that vouches for servers of this machine, through an intermediate authority.
class CertificateAuthority {
 public:
  CertificateAuthority();
  ~CertificateAuthority();
  CertificateAuthority(const CertificateAuthority&) = delete;
  CertificateAuthority& operator=(const CertificateAuthority&) = delete;

  // Its own certificate, in PEM form.
  std::string root() const;

  // Returns a fresh certificate for "localhost" and 127.0.0.1.
  ServerCertificate issue(Flaw flaw = Flaw::none) const;

 private:
  struct Implementation;

  const std::unique_ptr<const Implementation> implementation_;
};

}  // namespace ravok::testing
