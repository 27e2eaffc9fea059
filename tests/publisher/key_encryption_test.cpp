#include "publisher/signing/key_encryption.hpp"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/signature.hpp"
#include "publisher/signing/passphrase.hpp"
#include "publisher/signing/publish_key.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"

namespace ravok {
namespace {

using testing::TemporaryRoot;

// What the tests spend on a passphrase, so that they are quick.
constexpr KeyDerivation quick_derivation = {16, 1, 1};

Secret secret_text(std::string_view text) {
  Secret secret(text.size());
  std::copy(text.begin(), text.end(), secret.bytes().begin());
  return secret;
}

class EncryptedKeyOfScheme : public ::testing::TestWithParam<std::string> {};

TEST_P(EncryptedKeyOfScheme, IsTheSameKeyAgainAndShowsOnlyItsPublicPart) {
  const SigningKey key = SigningKey::generate(GetParam());
  const Json document = encrypt_key(key, secret_text("a phrase"), quick_derivation);
  EXPECT_TRUE(is_encrypted_key(document));
  EXPECT_FALSE(is_encrypted_key(key.document()));
  EXPECT_EQ(encrypted_public_key(document), key.key());
  const SigningKey opened = decrypt_key(parse_json(document.dump(), 65'536), secret_text("a phrase"));
  EXPECT_EQ(opened.id(), key.id());
  EXPECT_TRUE(verify_signature(key.key(), "payload", opened.sign("payload")));
  EXPECT_FAILURE(decrypt_key(document, secret_text("a phrasf")), "wrong_passphrase",
                 "The passphrase does not open this key");
}

INSTANTIATE_TEST_SUITE_P(EachFamily, EncryptedKeyOfScheme,
                         ::testing::Values("rsassa-pss-sha256", "ecdsa-sha2-nistp521", "ed25519", "ml-dsa-87/1"));

TEST(EncryptKey, NeverMakesTheSameDocumentTwice) {
  const SigningKey key = SigningKey::generate("ed25519");
  const Json first = encrypt_key(key, secret_text("a"), quick_derivation);
  const Json second = encrypt_key(key, secret_text("a"), quick_derivation);
  EXPECT_NE(first.at("derivation").at("salt"), second.at("derivation").at("salt"));
  EXPECT_NE(first.at("nonce"), second.at("nonce"));
  EXPECT_NE(first.at("private"), second.at("private"));
}

TEST(DecryptKey, TakesNothingInTheClearThatWasChanged) {
  const SigningKey key = SigningKey::generate("ed25519");
  const Json good = encrypt_key(key, secret_text("a"), quick_derivation);
  Json changed = good;
  changed["key"] = SigningKey::generate("ed25519").key();
  EXPECT_FAILURE(decrypt_key(changed, secret_text("a")), "wrong_passphrase", "The passphrase does not open this key");
  changed = good;
  changed["derivation"]["n"] = 32u;
  EXPECT_FAILURE(decrypt_key(changed, secret_text("a")), "wrong_passphrase", "The passphrase does not open this key");
  changed = good;
  changed["nonce"] = std::string(24, '0');
  EXPECT_FAILURE(decrypt_key(changed, secret_text("a")), "wrong_passphrase", "The passphrase does not open this key");
  changed = good;
  auto record = changed.at("private").get<std::string>();
  record[0] = record[0] == '0' ? '1' : '0';
  changed["private"] = record;
  EXPECT_FAILURE(decrypt_key(changed, secret_text("a")), "wrong_passphrase", "The passphrase does not open this key");
}

TEST(DecryptKey, RefusesAMalformedDocument) {
  const std::string message = "The encrypted signing key is malformed";
  const Json good = encrypt_key(SigningKey::generate("ed25519"), secret_text("a"), quick_derivation);
  const auto expect_refused = [&](const char* name, const Json& value) {
    Json changed = good;
    changed[name] = value;
    EXPECT_FAILURE(decrypt_key(changed, secret_text("a")), "invalid_key", message);
  };
  expect_refused("more", 1);
  expect_refused("schema_version", 2);
  expect_refused("kind", "ravok-signing-key");
  expect_refused("cipher", "none");
  expect_refused("nonce", "00");
  expect_refused("nonce", "no text of digits here..");
  expect_refused("private", "00");
  expect_refused("private", 7);
  expect_refused("derivation", Json::object());
  for (const char* const name : {"n", "r", "p", "salt", "name"}) {
    Json derivation = good.at("derivation");
    derivation[name] = -1;
    expect_refused("derivation", derivation);
  }
}

TEST(DecryptKey, BoundsMemoryAndWorkBeforeItSpendsAny) {
  const std::string message = "The encrypted signing key asks for more memory or work than is spent on a passphrase";
  const Json good = encrypt_key(SigningKey::generate("ed25519"), secret_text("a"), quick_derivation);
  const std::vector<KeyDerivation> refused = {{3, 1, 1},
                                              {0, 1, 1},
                                              {1, 1, 1},
                                              {16, 0, 1},
                                              {16, 1, 0},
                                              {1'048'576, 4, 1},
                                              {262'144, 8, 5},
                                              {std::uint64_t{1} << 63, 2, 1},
                                              {16, UINT64_MAX, UINT64_MAX}};
  for (const KeyDerivation& derivation : refused) {
    Json changed = good;
    changed["derivation"]["n"] = derivation.n;
    changed["derivation"]["r"] = derivation.r;
    changed["derivation"]["p"] = derivation.p;
    EXPECT_FAILURE(decrypt_key(changed, secret_text("a")), "invalid_key", message);
  }
}

class EncryptedKeyFile : public ::testing::Test {
 protected:
  void put(const std::string& name, const std::string& content, mode_t mode = 0600) const {
    root.write(name, content);
    ASSERT_EQ(chmod((root / name).c_str(), mode), 0);
  }

  // Answers one after the other.
  PassphraseSource answers(std::vector<std::string> texts) {
    left_ = std::move(texts);
    return {{}, [this](const std::string& prompt) {
              prompts.push_back(prompt);
              const std::string answer = left_.at(0);
              left_.erase(left_.begin());
              return secret_text(answer);
            }};
  }

  const TemporaryRoot root;
  std::vector<std::string> prompts;

 private:
  std::vector<std::string> left_;
};

TEST_F(EncryptedKeyFile, OpensWithThePassphraseOfAFile) {
  put("phrase", "correct horse\n");
  const PassphraseSource source = {root / "phrase", {}};
  const PublishedKey published = publish_encrypted_key(root / "key", "ed25519", source, quick_derivation);
  EXPECT_EQ(root.names(), (std::vector<std::string>{"key", "key.pub", "phrase"}));
  struct stat status;
  ASSERT_EQ(lstat((root / "key").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(root.read("key").find("BEGIN"), std::string::npos);
  EXPECT_EQ(read_signing_key(root / "key", source).id(), published.id);
  EXPECT_EQ(key_id(read_public_key(root / "key")), published.id);
  EXPECT_EQ(read_public_key(root / "key"), read_public_key(root / "key.pub"));
  EXPECT_TRUE(holds_private_key(root / "key"));
}

TEST_F(EncryptedKeyFile, TakesTheLineOfAFileWithoutItsEnd) {
  put("phrase", "correct horse");
  publish_encrypted_key(root / "key", "ed25519", {root / "phrase", {}}, quick_derivation);
  for (const char* const text : {"correct horse\n", "correct horse\r\n"}) {
    put("phrase", text);
    EXPECT_NO_THROW(read_signing_key(root / "key", {root / "phrase", {}}));
  }
}

TEST_F(EncryptedKeyFile, IsMadeByAPassphraseThatIsGivenTwiceAndOpenedByOne) {
  publish_encrypted_key(root / "key", "ed25519", answers({"word", "word"}), quick_derivation);
  EXPECT_EQ(prompts, (std::vector<std::string>{"New passphrase for the key key: ", "The same passphrase again: "}));
  prompts.clear();
  EXPECT_NO_THROW(read_signing_key(root / "key", answers({"word"})));
  EXPECT_EQ(prompts, (std::vector<std::string>{"Passphrase of the key key: "}));
}

TEST_F(EncryptedKeyFile, SaysThatAPassphraseIsWrongAndNothingElse) {
  publish_encrypted_key(root / "key", "ed25519", answers({"word", "word"}), quick_derivation);
  EXPECT_FAILURE(read_signing_key(root / "key", answers({"ward"})), "wrong_passphrase",
                 (root / "key").native() + ": The passphrase does not open this key");
}

TEST_F(EncryptedKeyFile, LeavesNothingForPassphrasesThatDiffer) {
  EXPECT_FAILURE(publish_encrypted_key(root / "key", "ed25519", answers({"word", "ward"}), quick_derivation),
                 "passphrase_mismatch", "The two passphrases differ; nothing was written");
  EXPECT_FAILURE(publish_encrypted_key(root / "key", "ed25519", answers({""}), quick_derivation), "invalid_passphrase",
                 "The passphrase is empty");
  EXPECT_FAILURE(publish_encrypted_key(root / "key", "ed25519", answers({std::string(1025, 'x')}), quick_derivation),
                 "invalid_passphrase", "The passphrase is longer than 1024 bytes");
  EXPECT_TRUE(root.names().empty());
}

TEST_F(EncryptedKeyFile, NeedsAPassphraseOnlyForItsPrivatePart) {
  publish_encrypted_key(root / "key", "ed25519", answers({"word", "word"}), quick_derivation);
  EXPECT_FAILURE(read_signing_key(root / "key"), "passphrase_needed",
                 (root / "key").native() +
                     ": A passphrase is needed; give it with --passphrase-file FILE, or run this on a terminal");
  EXPECT_NO_THROW(read_public_key(root / "key"));
  ASSERT_EQ(chmod((root / "key").c_str(), 0640), 0);
  const std::string message = (root / "key").native() + ": Others may read this private key; give it mode 0600";
  EXPECT_FAILURE(read_signing_key(root / "key", answers({"word"})), "permissions", message);
  EXPECT_FAILURE(read_public_key(root / "key"), "permissions", message);
}

TEST_F(EncryptedKeyFile, RefusesAPassphraseFileThatOthersReadOrThatIsNoLine) {
  const std::string file = (root / "phrase").native();
  const auto make = [&] { publish_encrypted_key(root / "key", "ed25519", {file, {}}, quick_derivation); };
  put("phrase", "word\n", 0640);
  EXPECT_FAILURE(make(), "permissions", file + ": Others may read this passphrase; give the file mode 0600");
  put("phrase", "word\nanother\n");
  EXPECT_FAILURE(make(), "invalid_passphrase", file + ": The file of a passphrase holds one line and no more");
  put("phrase", "\n");
  EXPECT_FAILURE(make(), "invalid_passphrase", "The passphrase is empty");
  put("phrase", std::string(2000, 'x'));
  EXPECT_FAILURE(make(), "size_limit", file + ": File exceeds read limit");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"phrase"}));
}

TEST_F(EncryptedKeyFile, OverwritesNothingAndAsksNothingThen) {
  put("key", "mine");
  EXPECT_FAILURE(publish_encrypted_key(root / "key", "ed25519", answers({}), quick_derivation), "output_exists",
                 "The output already exists: " + (root / "key").native());
  EXPECT_EQ(root.read("key"), "mine");
  EXPECT_TRUE(prompts.empty());
}

TEST(KeyDerivation, SpendsMemoryByDefault) {
  const Json document = encrypt_key(SigningKey::generate("ed25519"), secret_text("a"));
  EXPECT_EQ(document.at("derivation").at("n"), 131'072u);
  EXPECT_EQ(document.at("derivation").at("r"), 8u);
  EXPECT_NO_THROW(decrypt_key(document, secret_text("a")));
}

}  // namespace
}  // namespace ravok
