// Every failure of the cryptographic library. The linker leads its calls through the wrappers
// below, which fail the one that a test names.

#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "domain/crypto.hpp"
#include "platform/file_digest.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace {

std::string_view failing;

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

}  // namespace
}  // namespace ravok
