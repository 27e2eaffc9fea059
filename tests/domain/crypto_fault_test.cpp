// Every failure of the cryptographic library. The linker leads its calls through the wrappers
// below, which fail the one that a test names.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "domain/crypto.hpp"
#include "domain/encryption.hpp"
#include "domain/signature.hpp"
#include "platform/file/file_digest.hpp"
#include "support/failure.hpp"
#include "support/signing.hpp"
#include "support/temporary_root.hpp"

namespace {

std::string_view failing;

// The sizes that a decryption reports, in the place of the true ones, when it succeeds.
std::optional<int> claimed_update;
std::optional<int> claimed_final;

bool fails(std::string_view call) { return failing == call; }

// Fails one call of the library for as long as it lives.
class Failing {
 public:
  explicit Failing(std::string_view call) { failing = call; }
  ~Failing() { failing = {}; }
  Failing(const Failing&) = delete;
  Failing& operator=(const Failing&) = delete;
};

}  // namespace

extern "C" {

int __real_OPENSSL_init_crypto(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings);
int __wrap_OPENSSL_init_crypto(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings) {
  return fails("OPENSSL_init_crypto") ? 0 : __real_OPENSSL_init_crypto(options, settings);
}

EVP_MD_CTX* __real_EVP_MD_CTX_new();
EVP_MD_CTX* __wrap_EVP_MD_CTX_new() { return fails("EVP_MD_CTX_new") ? nullptr : __real_EVP_MD_CTX_new(); }

int __real_EVP_DigestInit_ex(EVP_MD_CTX* context, const EVP_MD* type, ENGINE* engine);
int __wrap_EVP_DigestInit_ex(EVP_MD_CTX* context, const EVP_MD* type, ENGINE* engine) {
  return fails("EVP_DigestInit_ex") ? 0 : __real_EVP_DigestInit_ex(context, type, engine);
}

int __real_EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, std::size_t size);
int __wrap_EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, std::size_t size) {
  return fails("EVP_DigestUpdate") ? 0 : __real_EVP_DigestUpdate(context, data, size);
}

int __real_EVP_DigestFinal_ex(EVP_MD_CTX* context, unsigned char* value, unsigned int* size);
int __wrap_EVP_DigestFinal_ex(EVP_MD_CTX* context, unsigned char* value, unsigned int* size) {
  return fails("EVP_DigestFinal_ex") ? 0 : __real_EVP_DigestFinal_ex(context, value, size);
}

int __real_EVP_MD_CTX_copy_ex(EVP_MD_CTX* out, const EVP_MD_CTX* in);
int __wrap_EVP_MD_CTX_copy_ex(EVP_MD_CTX* out, const EVP_MD_CTX* in) {
  return fails("EVP_MD_CTX_copy_ex") ? 0 : __real_EVP_MD_CTX_copy_ex(out, in);
}

int __real_EVP_Digest(const void* data, std::size_t count, unsigned char* value, unsigned int* size, const EVP_MD* type,
                      ENGINE* engine);
int __wrap_EVP_Digest(const void* data, std::size_t count, unsigned char* value, unsigned int* size, const EVP_MD* type,
                      ENGINE* engine) {
  return fails("EVP_Digest") ? 0 : __real_EVP_Digest(data, count, value, size, type, engine);
}

int __real_RAND_bytes(unsigned char* buffer, int count);
int __wrap_RAND_bytes(unsigned char* buffer, int count) {
  return fails("RAND_bytes") ? 0 : __real_RAND_bytes(buffer, count);
}

EVP_CIPHER_CTX* __real_EVP_CIPHER_CTX_new();
EVP_CIPHER_CTX* __wrap_EVP_CIPHER_CTX_new() {
  return fails("EVP_CIPHER_CTX_new") ? nullptr : __real_EVP_CIPHER_CTX_new();
}

int __real_EVP_DecryptInit_ex2(EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, const unsigned char* key,
                               const unsigned char* nonce, const OSSL_PARAM* parameters);
int __wrap_EVP_DecryptInit_ex2(EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, const unsigned char* key,
                               const unsigned char* nonce, const OSSL_PARAM* parameters) {
  return fails(key == nullptr ? "EVP_DecryptInit_ex2 cipher" : "EVP_DecryptInit_ex2 key")
             ? 0
             : __real_EVP_DecryptInit_ex2(context, cipher, key, nonce, parameters);
}

int __real_EVP_CIPHER_CTX_ctrl(EVP_CIPHER_CTX* context, int type, int argument, void* pointer);
int __wrap_EVP_CIPHER_CTX_ctrl(EVP_CIPHER_CTX* context, int type, int argument, void* pointer) {
  return fails("EVP_CIPHER_CTX_ctrl") ? 0 : __real_EVP_CIPHER_CTX_ctrl(context, type, argument, pointer);
}

int __real_EVP_DecryptUpdate(EVP_CIPHER_CTX* context, unsigned char* output, int* size, const unsigned char* input,
                             int count);
int __wrap_EVP_DecryptUpdate(EVP_CIPHER_CTX* context, unsigned char* output, int* size, const unsigned char* input,
                             int count) {
  const bool done = __real_EVP_DecryptUpdate(context, output, size, input, count) == 1;
  if (output != nullptr && claimed_update) {
    *size = *claimed_update;
  }
  return done && !fails(output == nullptr ? "EVP_DecryptUpdate associated" : "EVP_DecryptUpdate ciphertext") ? 1 : 0;
}

int __real_EVP_DecryptFinal_ex(EVP_CIPHER_CTX* context, unsigned char* output, int* size);
int __wrap_EVP_DecryptFinal_ex(EVP_CIPHER_CTX* context, unsigned char* output, int* size) {
  const int done = __real_EVP_DecryptFinal_ex(context, output, size);
  *size = claimed_final.value_or(*size);
  return fails("EVP_DecryptFinal_ex") ? 0 : done;
}

int __real_PKCS5_PBKDF2_HMAC(const char* password, int password_size, const unsigned char* salt, int salt_size,
                             int iterations, const EVP_MD* digest, int size, unsigned char* key);
int __wrap_PKCS5_PBKDF2_HMAC(const char* password, int password_size, const unsigned char* salt, int salt_size,
                             int iterations, const EVP_MD* digest, int size, unsigned char* key) {
  return fails("PKCS5_PBKDF2_HMAC")
             ? 0
             : __real_PKCS5_PBKDF2_HMAC(password, password_size, salt, salt_size, iterations, digest, size, key);
}

EVP_PKEY* __real_EVP_PKEY_new_raw_public_key(int type, ENGINE* engine, const unsigned char* key, std::size_t size);
EVP_PKEY* __wrap_EVP_PKEY_new_raw_public_key(int type, ENGINE* engine, const unsigned char* key, std::size_t size) {
  return fails("EVP_PKEY_new_raw_public_key") ? nullptr : __real_EVP_PKEY_new_raw_public_key(type, engine, key, size);
}

int __real_EVP_DigestVerifyInit_ex(EVP_MD_CTX* context, EVP_PKEY_CTX** parameters, const char* digest,
                                   OSSL_LIB_CTX* library, const char* properties, EVP_PKEY* key,
                                   const OSSL_PARAM* more);
int __wrap_EVP_DigestVerifyInit_ex(EVP_MD_CTX* context, EVP_PKEY_CTX** parameters, const char* digest,
                                   OSSL_LIB_CTX* library, const char* properties, EVP_PKEY* key,
                                   const OSSL_PARAM* more) {
  return fails("EVP_DigestVerifyInit_ex")
             ? 0
             : __real_EVP_DigestVerifyInit_ex(context, parameters, digest, library, properties, key, more);
}

// The library reports its own failures by numbers below zero.
int __real_EVP_DigestVerify(EVP_MD_CTX* context, const unsigned char* signature, std::size_t size,
                            const unsigned char* message, std::size_t count);
int __wrap_EVP_DigestVerify(EVP_MD_CTX* context, const unsigned char* signature, std::size_t size,
                            const unsigned char* message, std::size_t count) {
  return fails("EVP_DigestVerify") ? -1 : __real_EVP_DigestVerify(context, signature, size, message, count);
}

}  // extern "C"

namespace ravok {
namespace {

TEST(CryptoFault, StartOfTheLibraryIsTriedAgainAfterItFailed) {
  {
    const Failing call("OPENSSL_init_crypto");
    EXPECT_FAILURE(initialize_client_runtime(), "crypto_failure", "Cannot initialize native cryptography");
  }
  EXPECT_NO_THROW(initialize_client_runtime());
  const Failing call("OPENSSL_init_crypto");
  EXPECT_NO_THROW(initialize_client_runtime());
}

TEST(CryptoFault, DigestStateNeedsAContext) {
  for (const char* name : {"EVP_MD_CTX_new", "EVP_DigestInit_ex"}) {
    const Failing call(name);
    EXPECT_FAILURE(DigestState("sha256"), "crypto_failure", "Cannot initialize incremental target hash") << name;
  }
}

TEST(CryptoFault, DigestStateReportsAFailedUpdate) {
  DigestState state("sha256");
  const Failing call("EVP_DigestUpdate");
  EXPECT_FAILURE(state.update("x"), "crypto_failure", "Cannot update target hash");
}

TEST(CryptoFault, DigestStateReportsAFailedSnapshotAndGoesOn) {
  DigestState state("sha256");
  state.update("ab");
  for (const char* name : {"EVP_MD_CTX_new", "EVP_MD_CTX_copy_ex", "EVP_DigestFinal_ex"}) {
    const Failing call(name);
    EXPECT_FAILURE(state.value(), "crypto_failure", "Cannot snapshot incremental target hash") << name;
  }
  state.update("c");
  EXPECT_EQ(state.value(), digest("abc", "sha256"));
}

TEST(CryptoFault, DigestReportsAFailedLibrary) {
  const Failing call("EVP_Digest");
  EXPECT_FAILURE(digest("x", "sha256"), "crypto_failure", "Could not hash content");
}

TEST(CryptoFault, FileDigestNamesTheStepThatFailed) {
  const testing::TemporaryRoot root;
  const auto file = root.write("file", "content");
  const struct {
    const char* call;
    const char* message;
  } steps[] = {{"EVP_MD_CTX_new", "Could not initialize file hash"},
               {"EVP_DigestInit_ex", "Could not initialize file hash"},
               {"EVP_DigestUpdate", "Could not hash file"},
               {"EVP_DigestFinal_ex", "Could not finish file hash"}};
  for (const auto& step : steps) {
    const Failing call(step.call);
    EXPECT_FAILURE(digest_file(file, "sha256"), "crypto_failure", step.message) << step.call;
  }
}

TEST(CryptoFault, RandomIdHasNoWeakerSource) {
  const Failing call("RAND_bytes");
  EXPECT_FAILURE(random_id(), "crypto_failure", "Could not create random identifier");
}

// Decrypts the record of RFC 8439, section 2.8.2.
class Decryption : public ::testing::Test {
 protected:
  void TearDown() override {
    claimed_update.reset();
    claimed_final.reset();
  }

  std::size_t decrypt(const std::string& associated) {
    const std::vector<std::uint8_t> key = unhex("808182838485868788898a8b8c8d8e8f909192939495969798999a9b9c9d9e9f", 64);
    const std::vector<std::uint8_t> nonce = unhex("070000004041424344454647", 24);
    const std::vector<std::uint8_t> record = unhex(
        "d31a8d34648e60db7b86afbc53ef7ec2a4aded51296e08fea9e2b5a736ee62d63dbea45e8ca9671282fafb69da92728b1a71de0a9e060b"
        "2905d6a5b67ecd3b3692ddbd7f2d778b8c9803aee328091b58fab324e4fad675945585808b4831d7bc3ff4def08e4b7a9de576d26586ce"
        "c64b61161ae10b594f09e26a7e902ecbd0600691",
        1024);
    return decrypt_chacha20_poly1305(std::span<const std::uint8_t, 32>(key), std::span<const std::uint8_t, 12>(nonce),
                                     associated, {reinterpret_cast<const char*>(record.data()), record.size()}, output_,
                                     record.size());
  }
  std::size_t decrypt() {
    const std::vector<std::uint8_t> associated = unhex("50515253c0c1c2c3c4c5c6c7", 24);
    return decrypt(std::string(associated.begin(), associated.end()));
  }

  void expect_failure(const char* code, const char* message) {
    output_.assign(130, 0xee);
    EXPECT_FAILURE(decrypt(), code, message);
    EXPECT_EQ(output_, std::vector<std::uint8_t>(130));
  }
  void expect_failure_of(const char* call, const char* code, const char* message) {
    SCOPED_TRACE(call);
    const Failing failing_call(call);
    expect_failure(code, message);
  }

  std::vector<std::uint8_t> output_ = std::vector<std::uint8_t>(114);
};

TEST_F(Decryption, SucceedsWhenNothingFails) { EXPECT_EQ(decrypt(), 114U); }

TEST_F(Decryption, EndsWithTheFailureOfEachCallAndAClearedOutput) {
  constexpr const char* cannot_begin = "Cannot initialize authenticated chunk decryption";
  constexpr const char* cannot_set = "Cannot set authenticated chunk parameters";
  constexpr const char* cannot_decrypt = "Cannot decrypt authenticated chunk";
  expect_failure_of("EVP_CIPHER_CTX_new", "crypto_failure", cannot_begin);
  expect_failure_of("EVP_DecryptInit_ex2 cipher", "crypto_failure", cannot_begin);
  expect_failure_of("EVP_CIPHER_CTX_ctrl", "crypto_failure", cannot_set);
  expect_failure_of("EVP_DecryptInit_ex2 key", "crypto_failure", cannot_set);
  expect_failure_of("EVP_DecryptUpdate associated", "crypto_failure", cannot_decrypt);
  expect_failure_of("EVP_DecryptUpdate ciphertext", "crypto_failure", cannot_decrypt);
  expect_failure_of("EVP_DecryptFinal_ex", "authentication_failed", "Encrypted chunk authentication failed");
}

TEST_F(Decryption, DoesNotBelieveAnImpossibleSize) {
  for (const int size : {-1, 115, 2'147'483'647}) {
    claimed_update = size;
    expect_failure("crypto_failure", "Unexpected authenticated chunk output");
  }
}

TEST_F(Decryption, RefusesALengthThatDiffersAtTheEnd) {
  for (const int size : {0, 113}) {
    claimed_update = size;
    expect_failure("crypto_failure", "Authenticated chunk length differs");
  }
  claimed_update.reset();
  claimed_final = 1;
  expect_failure("crypto_failure", "Authenticated chunk length differs");
  claimed_update = 113;
  expect_failure("crypto_failure", "Authenticated chunk length differs");
}

TEST_F(Decryption, RefusesTooMuchAssociatedDataBeforeAnyWork) {
  const Failing call("EVP_CIPHER_CTX_new");
  EXPECT_FAILURE(decrypt(std::string(4097, 'a')), "encrypted_format",
                 "AEAD record or associated data exceeds its bound");
  EXPECT_FAILURE(decrypt(std::string(4096, 'a')), "crypto_failure", "Cannot initialize authenticated chunk decryption");
}

TEST(KeyDerivation, FailsWithTheLibrary) {
  const Failing call("PKCS5_PBKDF2_HMAC");
  EXPECT_FAILURE(pbkdf2_sha256("passwd", {}, 1), "crypto_failure", "Cannot derive a key");
  EXPECT_FAILURE(pbkdf2_sha256("passwd", {}, 2'147'483'647), "crypto_failure", "Cannot derive a key");
}

TEST(Verification, CountsNothingWhileTheLibraryFails) {
  const testing::TestKey key = testing::TestKey::ed25519();
  const Json object = key.key();
  const std::string signature = text_at(key.signature("message"), "sig");
  ASSERT_TRUE(verify_signature(object, "message", signature));
  for (const char* call :
       {"EVP_MD_CTX_new", "EVP_PKEY_new_raw_public_key", "EVP_DigestVerifyInit_ex", "EVP_DigestVerify"}) {
    const Failing failing_call(call);
    EXPECT_FALSE(verify_signature(object, "message", signature)) << call;
  }
}

}  // namespace
}  // namespace ravok
