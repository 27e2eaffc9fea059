// The libraries that the core is linked with, as they answer for themselves.

#include <algorithm>
#include <string>
#include <vector>

#include <archive.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <zstd.h>

namespace {

TEST(Libraries, OpensslIsOfAReleaseWithMlDsa) {
  EXPECT_EQ(OPENSSL_version_major(), 3u);
  EXPECT_GE(OPENSSL_version_minor(), 5u);
  for (const char* name : {"ML-DSA-44", "ML-DSA-65", "ML-DSA-87", "ED25519", "RSA-PSS", "EC"}) {
    EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new_from_name(nullptr, name, nullptr);
    EXPECT_NE(context, nullptr) << name;
    EVP_PKEY_CTX_free(context);
  }
}

TEST(Libraries, CurlSpeaksHttpsOverOpenssl) {
  const curl_version_info_data* const info = curl_version_info(CURLVERSION_NOW);
  EXPECT_GE(info->version_num, 0x080000u);
  ASSERT_NE(info->ssl_version, nullptr);
  EXPECT_TRUE(std::string(info->ssl_version).starts_with("OpenSSL/")) << info->ssl_version;
  std::vector<std::string> protocols;
  for (const char* const* protocol = info->protocols; *protocol != nullptr; ++protocol) {
    protocols.emplace_back(*protocol);
  }
  EXPECT_NE(std::find(protocols.begin(), protocols.end(), "https"), protocols.end());
}

TEST(Libraries, LibarchiveReadsTar) {
  EXPECT_GE(archive_version_number(), 3006000);
  archive* const reader = archive_read_new();
  EXPECT_EQ(archive_read_support_filter_none(reader), ARCHIVE_OK);
  EXPECT_EQ(archive_read_support_format_tar(reader), ARCHIVE_OK);
  archive_read_free(reader);
}

TEST(Libraries, ZstdBoundsItsWindow) {
  EXPECT_GE(ZSTD_versionNumber(), 10500u);
  ZSTD_DCtx* const decoder = ZSTD_createDCtx();
  EXPECT_FALSE(ZSTD_isError(ZSTD_DCtx_setParameter(decoder, ZSTD_d_windowLogMax, 26)));
  ZSTD_freeDCtx(decoder);
}

TEST(Libraries, JsonIsOfTheReleaseThatTheParserIsWrittenFor) {
  EXPECT_EQ(NLOHMANN_JSON_VERSION_MAJOR, 3);
  EXPECT_GE(NLOHMANN_JSON_VERSION_MINOR, 11);
}

}  // namespace
