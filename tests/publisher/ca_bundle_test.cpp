#include "publisher/ca_bundle.hpp"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "support/certificate.hpp"
#include "support/failure.hpp"

namespace ravok {
namespace {

const std::string none = "The CA bundle holds no certificate in PEM form";

void expect_refused(const std::string& pem, const std::string& message) {
  EXPECT_FAILURE(require_certificates(pem), "invalid_ca_bundle", message) << pem;
}

std::string out_of_place(int line) {
  return "Line " + std::to_string(line) +
         " of the CA bundle is out of place: each certificate begins and ends with a line of its own";
}

std::string cannot_be_read(int line) {
  return "The certificate that begins in line " + std::to_string(line) + " of the CA bundle cannot be read";
}

std::string begins_a(int line, const std::string& label) {
  return "The CA bundle may hold nothing but certificates, and line " + std::to_string(line) + " begins a block of " +
         label;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

class CaBundle : public ::testing::Test {
 protected:
  const std::string one = testing::certificate();
  const std::string two = testing::certificate();
};

TEST_F(CaBundle, MayHoldAnyNumberOfCertificatesAndTextAroundThem) {
  require_certificates(one);
  require_certificates(one + two);
  require_certificates("Authority of a studio\n=====================\n\n" + one + "\n\tM\xc3\xbcller\n" + two + "end");
  require_certificates(
      "\xef\xbb\xbf"
      "Authority\n" +
      one);
}

TEST_F(CaBundle, MayHaveAnyEndsOfLines) {
  require_certificates(replaced(one + two, "\n", "\r\n"));
  require_certificates(replaced(one, "-----\n", "----- \t\n"));
  require_certificates(one.substr(0, one.size() - 1));
}

TEST_F(CaBundle, HoldsAtLeastOne) {
  for (const char* const text : {"", "\n", "certificates", "-----", "CERTIFICATE"}) {
    expect_refused(text, none);
  }
}

TEST_F(CaBundle, HoldsNoKeyAndNothingElse) {
  const std::string key = testing::private_key();
  expect_refused(key, begins_a(1, "PRIVATE KEY"));
  expect_refused("Authority\n" + key + one, begins_a(2, "PRIVATE KEY"));
  const auto line_behind = static_cast<int>(std::count(one.begin(), one.end(), '\n')) + 1;
  expect_refused(one + key, begins_a(line_behind, "PRIVATE KEY"));
  for (const char* const label : {"X509 CRL", "TRUSTED CERTIFICATE", "CERTIFICATE REQUEST", "RSA PRIVATE KEY"}) {
    expect_refused(replaced(one, "CERTIFICATE", label), begins_a(1, label));
  }
  expect_refused(replaced(one, "CERTIFICATE", "certificate"), begins_a(1, "another kind"));
  expect_refused(replaced(one, "CERTIFICATE", "\x1b\xff"), "Line 1 of the CA bundle is not text");
  expect_refused(replaced(one, "CERTIFICATE", "\xff"), begins_a(1, "another kind"));
  expect_refused(replaced(one, "CERTIFICATE", std::string(41, 'A')), begins_a(1, "another kind"));
}

TEST_F(CaBundle, HoldsNothingThatIsNoText) {
  for (const char byte : {'\0', '\x01', '\x1b', '\x7f', '\r', '\v'}) {
    expect_refused(one + "a" + byte + "b\n", "Line " + std::to_string(std::count(one.begin(), one.end(), '\n') + 1) +
                                                 " of the CA bundle is not text");
  }
  expect_refused(std::string("0\x82\x01\x0a\0", 5), "Line 1 of the CA bundle is not text");
}

TEST_F(CaBundle, HoldsEachCertificateWhole) {
  const std::size_t first_line_end = one.find('\n');
  const std::size_t last_line = one.rfind("-----END");
  const std::string begin = one.substr(0, first_line_end + 1);
  const std::string end = one.substr(last_line);
  expect_refused(begin + end, cannot_be_read(1));
  expect_refused("a\n\n" + begin + "AAAA\n" + end, cannot_be_read(3));
  expect_refused(one.substr(0, last_line), "The CA bundle ends within the certificate that begins in line 1");
  expect_refused(begin + one, out_of_place(2));
  expect_refused(one + end, out_of_place(static_cast<int>(std::count(one.begin(), one.end(), '\n')) + 1));
  expect_refused(end, out_of_place(1));
  for (const char* const before : {" ", "\xef\xbb\xbf", "-", "x"}) {
    expect_refused(before + one, out_of_place(1));
  }
  expect_refused(replaced(one, "CERTIFICATE-----\n", "CERTIFICATE----\n"), out_of_place(1));
  expect_refused(replaced(one, "-----BEGIN CERTIFICATE-----", "-----BEGIN -----"), out_of_place(1));
  expect_refused(replaced(one, "-----END CERTIFICATE-----", "-----END CERTIFICATES-----"),
                 out_of_place(static_cast<int>(std::count(one.begin(), one.end(), '\n'))));
}

// Every byte of the body counts: there is no other that could stand in its place, but a few in the last digits.
TEST_F(CaBundle, HoldsNoCertificateThatIsCut) {
  const std::size_t body = one.find('\n') + 1;
  const std::size_t end = one.rfind("-----END");
  for (std::size_t size = 0; body + size + 1 < end; ++size) {
    std::string cut = one;
    cut.erase(body + size, end - 1 - body - size);
    expect_refused(cut, cannot_be_read(1));
  }
  std::string longer = one;
  longer.insert(body, "MAA=\n");
  expect_refused(longer, cannot_be_read(1));
}

TEST_F(CaBundle, HoldsNoEncryptedCertificate) {
  std::string encrypted = one;
  encrypted.insert(one.find('\n') + 1,
                   "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-256-CBC,00112233445566778899AABBCCDDEEFF\n\n");
  expect_refused(encrypted, cannot_be_read(1));
}

}  // namespace
}  // namespace ravok
