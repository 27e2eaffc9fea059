#include "domain/encryption.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include "domain/crypto.hpp"
#include "support/failure.hpp"

namespace ravok::encryption_test {
namespace {

constexpr const char* out_of_bounds = "AEAD record or associated data exceeds its bound";
constexpr const char* not_authentic = "Encrypted chunk authentication failed";
constexpr const char* derivation_bound = "Key derivation input exceeds its bound";
constexpr std::size_t tag_bytes = 16;

std::string bytes(std::string_view hexadecimal) {
  const std::vector<std::uint8_t> read = unhex(hexadecimal, 1 << 20);
  return {read.begin(), read.end()};
}

template <std::size_t size>
std::array<std::uint8_t, size> array(const std::string& hexadecimal) {
  const std::vector<std::uint8_t> read = unhex(hexadecimal, 2 * size);
  std::array<std::uint8_t, size> value{};
  EXPECT_EQ(read.size(), size);
  std::copy_n(read.begin(), std::min(read.size(), size), value.begin());
  return value;
}

// Everything that a decryption is given, and what it should return.
struct Sealed {
  std::array<std::uint8_t, 32> key;
  std::array<std::uint8_t, 12> nonce;
  std::string associated;
  std::string record;
  std::string plaintext;

  std::string open(std::uint64_t limit) const {
    std::vector<std::uint8_t> output(plaintext.size(), 0xee);
    const std::size_t size = decrypt_chacha20_poly1305(key, nonce, associated, record, output, limit);
    EXPECT_EQ(size, record.size() - tag_bytes);
    return {output.begin(), output.end()};
  }
  std::string open() const { return open(plaintext.size()); }
};

// RFC 8439, section 2.8.2.
Sealed sunscreen() {
  return {array<32>("808182838485868788898a8b8c8d8e8f909192939495969798999a9b9c9d9e9f"),
          array<12>("070000004041424344454647"), bytes("50515253c0c1c2c3c4c5c6c7"),
          bytes("d31a8d34648e60db7b86afbc53ef7ec2a4aded51296e08fea9e2b5a736ee62d6"
                "3dbea45e8ca9671282fafb69da92728b1a71de0a9e060b2905d6a5b67ecd3b36"
                "92ddbd7f2d778b8c9803aee328091b58fab324e4fad675945585808b4831d7bc"
                "3ff4def08e4b7a9de576d26586cec64b6116"
                "1ae10b594f09e26a7e902ecbd0600691"),
          "Ladies and Gentlemen of the class of '99: If I could offer you only one tip for the future, sunscreen would "
          "be it."};
}

// RFC 8439, appendix A.5.
Sealed internet_draft() {
  return {array<32>("1c9240a5eb55d38af333888604f6b5f0473917c1402b80099dca5cbc207075c0"),
          array<12>("000000000102030405060708"), bytes("f33388860000000000004e91"),
          bytes("64a0861575861af460f062c79be643bd5e805cfd345cf389f108670ac76c8cb2"
                "4c6cfc18755d43eea09ee94e382d26b0bdb7b73c321b0100d4f03b7f355894cf"
                "332f830e710b97ce98c8a84abd0b948114ad176e008d33bd60f982b1ff37c855"
                "9797a06ef4f0ef61c186324e2b3506383606907b6a7c02b0f9f6157b53c867e4"
                "b9166c767b804d46a59b5216cde7a4e99040c5a40433225ee282a1b0a06c523e"
                "af4534d7f83fa1155b0047718cbc546a0d072b04b3564eea1b422273f548271a"
                "0bb2316053fa76991955ebd63159434ecebb4e466dae5a1073a6727627097a10"
                "49e617d91d361094fa68f0ff77987130305beaba2eda04df997b714d6c6f2c29"
                "a6ad5cb4022b02709b"
                "eead9d67890cbb22392336fea1851f38"),
          "Internet-Drafts are draft documents valid for a maximum of six months and may be updated, replaced, or "
          "obsoleted by other documents at any time. It is inappropriate to use Internet-Drafts as reference material "
          "or to cite them other than as /\xe2\x80\x9cwork in progress./\xe2\x80\x9d"};
}

const unsigned char* raw(const std::string& text) { return reinterpret_cast<const unsigned char*>(text.data()); }

Sealed seal(const std::string& associated, const std::string& plaintext) {
  Sealed sealed{{1, 2, 3}, {4, 5, 6}, associated, std::string(plaintext.size() + tag_bytes, '\0'), plaintext};
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                EVP_CIPHER_CTX_free);
  auto* const record = reinterpret_cast<unsigned char*>(sealed.record.data());
  int size = 0;
  EXPECT_EQ(
      EVP_EncryptInit_ex2(context.get(), EVP_chacha20_poly1305(), sealed.key.data(), sealed.nonce.data(), nullptr), 1);
  EXPECT_EQ(EVP_EncryptUpdate(context.get(), nullptr, &size, raw(associated), static_cast<int>(associated.size())), 1);
  EXPECT_EQ(EVP_EncryptUpdate(context.get(), record, &size, raw(plaintext), static_cast<int>(plaintext.size())), 1);
  EXPECT_EQ(EVP_EncryptFinal_ex(context.get(), record + plaintext.size(), &size), 1);
  EXPECT_EQ(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, tag_bytes, record + plaintext.size()), 1);
  return sealed;
}

// The decryption fails in this way, and leaves neither plaintext nor anything else in the output.
void expect_refused(const Sealed& sealed, std::size_t output_size, std::uint64_t limit, const char* code,
                    const char* message) {
  std::vector<std::uint8_t> output(output_size, 0xee);
  EXPECT_FAILURE(decrypt_chacha20_poly1305(sealed.key, sealed.nonce, sealed.associated, sealed.record, output, limit),
                 code, message);
  EXPECT_EQ(output, std::vector<std::uint8_t>(output_size));
  EXPECT_EQ(ERR_peek_error(), 0U);
}

void expect_not_authentic(const Sealed& sealed) {
  expect_refused(sealed, sealed.plaintext.size() + 7, sealed.plaintext.size(), "authentication_failed", not_authentic);
}

template <typename Bytes>
void flip(Bytes& bytes, std::size_t bit) {
  bytes[bit / 8] = static_cast<typename Bytes::value_type>(bytes[bit / 8] ^ (1 << (bit % 8)));
}

TEST(Decrypt, OpensThePublishedRecords) {
  EXPECT_EQ(sunscreen().open(), sunscreen().plaintext);
  EXPECT_EQ(internet_draft().open(), internet_draft().plaintext);
}

TEST(Decrypt, LeavesTheOutputAfterThePlaintextAsItWas) {
  for (const std::string plaintext : {"", "content"}) {
    const Sealed sealed = seal("a", plaintext);
    std::vector<std::uint8_t> output(plaintext.size() + 100, 0xee);
    EXPECT_EQ(decrypt_chacha20_poly1305(sealed.key, sealed.nonce, sealed.associated, sealed.record, output, 7),
              plaintext.size());
    EXPECT_EQ(std::string(output.begin(), output.end()), plaintext + std::string(100, '\xee'));
  }
}

TEST(Decrypt, RefusesEveryFlippedBitOfTheNonce) {
  for (std::size_t bit = 0; bit < 96; ++bit) {
    Sealed sealed = sunscreen();
    flip(sealed.nonce, bit);
    expect_not_authentic(sealed);
  }
}

TEST(Decrypt, RefusesEveryFlippedBitOfTheKey) {
  for (std::size_t bit = 0; bit < 256; ++bit) {
    Sealed sealed = sunscreen();
    flip(sealed.key, bit);
    expect_not_authentic(sealed);
  }
}

TEST(Decrypt, RefusesEveryFlippedBitOfTheAssociatedData) {
  for (std::size_t bit = 0; bit < 96; ++bit) {
    Sealed sealed = sunscreen();
    flip(sealed.associated, bit);
    expect_not_authentic(sealed);
  }
}

TEST(Decrypt, RefusesEveryFlippedBitOfCiphertextAndTag) {
  for (const Sealed& whole : {sunscreen(), internet_draft()}) {
    for (std::size_t bit = 0; bit < 8 * whole.record.size(); ++bit) {
      Sealed sealed = whole;
      flip(sealed.record, bit);
      expect_not_authentic(sealed);
    }
  }
}

TEST(Decrypt, RefusesARecordThatIsCutOrLonger) {
  Sealed shorter = sunscreen();
  shorter.record.pop_back();
  expect_not_authentic(shorter);
  Sealed longer = sunscreen();
  longer.record += '\0';
  expect_refused(longer, longer.record.size(), longer.record.size(), "authentication_failed", not_authentic);
  Sealed other = sunscreen();
  other.associated += '\0';
  expect_not_authentic(other);
  other.associated.clear();
  expect_not_authentic(other);
}

TEST(Decrypt, OpensARecordOfNothing) {
  Sealed sealed = seal("where it stands", "");
  EXPECT_EQ(sealed.open(0), "");
  std::vector<std::uint8_t> output(5);
  EXPECT_EQ(decrypt_chacha20_poly1305(sealed.key, sealed.nonce, sealed.associated, sealed.record, output, 0), 0U);
  flip(sealed.record, 0);
  expect_refused(sealed, 0, 0, "authentication_failed", not_authentic);
  expect_refused(sealed, 5, 0, "authentication_failed", not_authentic);
}

TEST(Decrypt, OpensARecordWithoutAssociatedData) {
  const Sealed sealed = seal("", "content");
  EXPECT_EQ(sealed.open(), "content");
}

TEST(Decrypt, RefusesLessThanATag) {
  Sealed sealed = seal("", "");
  sealed.record.pop_back();
  expect_refused(sealed, 64, 64, "encrypted_format", out_of_bounds);
  sealed.record.clear();
  expect_refused(sealed, 64, 64, "encrypted_format", out_of_bounds);
}

TEST(Decrypt, RefusesMoreThanTheLimit) {
  const Sealed sealed = seal("a", "1234567890");
  EXPECT_EQ(sealed.open(10), "1234567890");
  expect_refused(sealed, 10, 9, "encrypted_format", out_of_bounds);
  expect_refused(sealed, 10, 0, "encrypted_format", out_of_bounds);
}

TEST(Decrypt, RefusesALimitThatTheLibraryCannotCount) {
  const Sealed sealed = seal("a", "1234567890");
  EXPECT_EQ(sealed.open(2'147'483'631), "1234567890");
  expect_refused(sealed, 10, 2'147'483'632, "encrypted_format", out_of_bounds);
  expect_refused(sealed, 10, ~std::uint64_t{0}, "encrypted_format", out_of_bounds);
  expect_refused(sealed, 10, ~std::uint64_t{0} - 15, "encrypted_format", out_of_bounds);
}

TEST(Decrypt, RefusesAnOutputThatIsTooSmall) {
  const Sealed sealed = seal("a", "1234567890");
  expect_refused(sealed, 9, 10, "encrypted_format", out_of_bounds);
  expect_refused(sealed, 0, 10, "encrypted_format", out_of_bounds);
}

TEST(Decrypt, BoundsTheAssociatedData) {
  EXPECT_EQ(seal(std::string(4096, 'a'), "content").open(), "content");
  const Sealed sealed = seal(std::string(4097, 'a'), "content");
  expect_refused(sealed, 7, 7, "encrypted_format", out_of_bounds);
}

std::string derived(std::string_view password, std::string_view salt, std::uint32_t iterations) {
  return hex(pbkdf2_sha256(password, {reinterpret_cast<const std::uint8_t*>(salt.data()), salt.size()}, iterations));
}

// RFC 7914, section 11: the first half of each, which is what a key of 32 bytes takes.
TEST(DeriveKey, GivesThePublishedKeys) {
  EXPECT_EQ(derived("passwd", "salt", 1), "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc");
  EXPECT_EQ(derived("Password", "NaCl", 80'000), "4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56");
}

TEST(DeriveKey, DependsOnEveryInput) {
  const std::string key = derived("passwd", "salt", 1);
  EXPECT_NE(derived("passwe", "salt", 1), key);
  EXPECT_NE(derived("passwd", "sald", 1), key);
  EXPECT_NE(derived("passwd", "salt", 2), key);
  EXPECT_NE(derived(std::string_view("passwd\0", 7), "salt ", 1), key);
}

TEST(DeriveKey, TakesEmptyTextsAndTheLongest) {
  EXPECT_NE(derived("", "", 1), derived("", "salt", 1));
  EXPECT_NE(derived(std::string(4096, 'p'), std::string(4096, 's'), 1),
            derived(std::string(4096, 'p'), std::string(4095, 's'), 1));
}

TEST(DeriveKey, RefusesTextsBeyondTheirBound) {
  EXPECT_FAILURE(derived(std::string(4097, 'p'), "salt", 1), "crypto_failure", derivation_bound);
  EXPECT_FAILURE(derived("passwd", std::string(4097, 's'), 1), "crypto_failure", derivation_bound);
}

TEST(DeriveKey, RefusesIterationsThatTheLibraryCannotCount) {
  EXPECT_FAILURE(derived("passwd", "salt", 0), "crypto_failure", derivation_bound);
  EXPECT_FAILURE(derived("passwd", "salt", 2'147'483'648U), "crypto_failure", derivation_bound);
  EXPECT_FAILURE(derived("passwd", "salt", ~std::uint32_t{0}), "crypto_failure", derivation_bound);
}

}  // namespace
}  // namespace ravok::encryption_test
