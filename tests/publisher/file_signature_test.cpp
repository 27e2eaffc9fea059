#include "publisher/signing/file_signature.hpp"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "domain/crypto.hpp"
#include "publisher/signing/signing_key.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "tuf/metadata_shape.hpp"

namespace ravok {
namespace {

class FileSignature : public ::testing::Test {
 protected:
  static Signer signer_of(const std::shared_ptr<const SigningKey>& key) {
    return {key->key(), key->id(), "key", [key](std::string_view payload) { return key->sign(payload); }};
  }
  static std::shared_ptr<const SigningKey> new_key() {
    return std::make_shared<const SigningKey>(SigningKey::generate("ed25519"));
  }
  std::string signature() const { return sign_file(file, {signer_of(first), signer_of(second)}, {}); }
  void verify(std::string_view text, const std::vector<Json>& keys) const { verify_file(file, text, keys, {}); }
  // A signature of whatever stands for a statement.
  std::string signed_text(const Json& statement) const {
    const Json signatures = {{{"keyid", first->id()}, {"sig", first->sign(canonical_json(statement))}}};
    return Json({{"signed", statement}, {"signatures", signatures}}).dump();
  }

  const testing::TemporaryRoot root;
  const std::filesystem::path file = root.write("product-1.0.tar.gz", "content");
  const std::shared_ptr<const SigningKey> first = new_key();
  const std::shared_ptr<const SigningKey> second = new_key();
};

TEST_F(FileSignature, SaysWhatTheFileIsAndIsVerifiedWithAnyOfItsKeys) {
  const std::string text = signature();
  EXPECT_EQ(Json::parse(text).at("signed"), (Json{{"schema_version", 1},
                                                  {"kind", "ravok-file"},
                                                  {"name", "product-1.0.tar.gz"},
                                                  {"length", 7},
                                                  {"sha256", digest("content", "sha256")}}));
  EXPECT_NO_THROW(verify(text, {first->key()}));
  EXPECT_NO_THROW(verify(text, {second->key()}));
  EXPECT_NO_THROW(verify(text, {second->key(), first->key(), first->key()}));
}

TEST_F(FileSignature, TellsOfTheFileThatWasProvedWhateverTakesItsNameMeanwhile) {
  const std::string text = signature();
  std::size_t calls = 0;
  const Json statement = verify_file(file, text, {first->key()}, [&](std::uint64_t, std::uint64_t) {
    if (++calls == 1) {
      std::filesystem::rename(root.write("other", "another content"), file);
    }
    return true;
  });
  EXPECT_GT(calls, 0u);
  EXPECT_EQ(root.read("product-1.0.tar.gz"), "another content");
  EXPECT_EQ(statement, signed_statement(text));
  EXPECT_EQ(statement.at("length"), 7);
  EXPECT_EQ(statement.at("sha256"), digest("content", "sha256"));
}

TEST_F(FileSignature, NeedsTheSignatureOfEveryKeyThatIsNamed) {
  const std::string text = signature();
  const std::shared_ptr<const SigningKey> other = new_key();
  EXPECT_FAILURE(verify(text, {other->key()}), "signature_threshold",
                 "The file was not signed by every key that you named");
  EXPECT_FAILURE(verify(text, {first->key(), other->key()}), "signature_threshold",
                 "The file was not signed by every key that you named");
  EXPECT_FAILURE(verify(text, {}), "signature_threshold", "Name the public keys that must have signed");
  EXPECT_FAILURE(sign_file(file, {}, {}), "signature_threshold", "Name a key to sign with");
}

TEST_F(FileSignature, IsOfOneContentOnly) {
  const std::string text = signature();
  for (const char* content : {"Content", "content ", "conten", ""}) {
    root.write("product-1.0.tar.gz", content);
    EXPECT_FAILURE(verify(text, {first->key()}), "content_mismatch", "The file is not the one that was signed")
        << content;
  }
}

TEST_F(FileSignature, IsOfOneNameOnlySoThatNoOtherVersionPassesForIt) {
  const std::string text = signature();
  const std::filesystem::path newer = root.write("product-2.0.tar.gz", "content");
  EXPECT_FAILURE(verify_file(newer, text, {first->key()}, {}), "content_mismatch",
                 "The signature is that of a file with the name product-1.0.tar.gz");
}

TEST_F(FileSignature, IsBrokenByAnyChangeOfWhatIsSigned) {
  const std::string good = signature();
  const Json changes = {{"name", "other"}, {"length", 8}, {"sha256", digest("other", "sha256")}};
  for (const auto& [name, value] : changes.items()) {
    Json changed = Json::parse(good);
    changed["signed"][name] = value;
    EXPECT_FAILURE(verify(changed.dump(), {first->key()}), "signature_threshold",
                   "The file was not signed by every key that you named")
        << name;
  }
}

TEST_F(FileSignature, HasNoOtherForm) {
  for (const char* text :
       {"", "{", "null", "[]", "{}", R"({"signed":{},"signatures":{}})", R"({"signed":{},"signatures":[1]})",
        R"({"signed":{},"signatures":[{"keyid":1,"sig":""}]})", R"({"signed":{},"signatures":[],"more":1})"}) {
    EXPECT_FAILURE(verify(text, {first->key()}), "invalid_signature", "This is no signature of a file") << text;
  }
  const std::string good = signature();
  for (const std::string& text : {good.substr(0, 300), good + good, good + std::string(1, '\0') + "x"}) {
    EXPECT_FAILURE(verify(text, {first->key()}), "invalid_signature", "This is no signature of a file");
  }
  EXPECT_FAILURE(verify(R"({"signed":{},"signatures":[]})", {first->key()}), "signature_threshold",
                 "The file was not signed by every key that you named");
  EXPECT_FAILURE(verify(std::string(1'048'577, ' '), {first->key()}), "size_limit", "JSON exceeds its size limit");
}

TEST_F(FileSignature, IsOfAFileAndOfNothingElseThatTheKeySigned) {
  constexpr const char* message = "This is no signature of a file";
  const Json good = Json::parse(signature()).at("signed");
  Json other = good;
  other["kind"] = "ravok-initial-package";
  EXPECT_FAILURE(verify(signed_text(other), {first->key()}), "invalid_signature", message);
  other = good;
  other["more"] = 1;
  EXPECT_FAILURE(verify(signed_text(other), {first->key()}), "invalid_signature", message);
  other = good;
  other["length"] = -7;
  EXPECT_FAILURE(verify(signed_text(other), {first->key()}), "invalid_signature", message);
  other = good;
  other["schema_version"] = 2;
  EXPECT_FAILURE(verify(signed_text(other), {first->key()}), "unsupported_schema",
                 "This signature has a form that is not known here");
  EXPECT_FAILURE(verify(signed_text(Json::array()), {first->key()}), "invalid_signature", message);
  // Nor is it a document of a repository.
  EXPECT_TRUE(testing::failure_of([&] { shape(Json::parse(signature()), "targets"); }));
}

TEST_F(FileSignature, IsOfNoFileThatGrowsOrShrinksWhileItIsRead) {
  const std::string text = signature();
  const std::vector<Signer> signers = {signer_of(first)};
  const std::vector<std::pair<const char*, const char*>> cases = {{"content and more", "File changed while reading"},
                                                                  {"con", "Error reading file during verification"}};
  for (const auto& [content, message] : cases) {
    const auto change = [&, bytes = content](std::uint64_t, std::uint64_t) {
      std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
      return true;
    };
    root.write("product-1.0.tar.gz", "content");
    EXPECT_FAILURE(sign_file(file, signers, change), "file_read", message) << content;
    root.write("product-1.0.tar.gz", "content");
    EXPECT_FAILURE(verify_file(file, text, {first->key()}, change), "file_read", message) << content;
  }
}

TEST_F(FileSignature, IsOfAnOrdinaryFile) {
  std::filesystem::create_symlink(file, root / "link");
  const std::vector<Signer> signers = {signer_of(first)};
  EXPECT_FAILURE(sign_file(root / "link", signers, {}), "unsafe_path", "Cannot open file: " + (root / "link").native());
  EXPECT_FAILURE(sign_file(root.path(), signers, {}), "unsafe_path",
                 "Expected an ordinary file: " + root.path().native());
  EXPECT_FAILURE(sign_file(root.write("\xff", "x"), signers, {}), "unsafe_path",
                 "The name of a signed file must be valid UTF-8");
  EXPECT_FAILURE(sign_file(file, signers, [](std::uint64_t, std::uint64_t) { return false; }), "cancelled",
                 "File verification cancelled");
}

}  // namespace
}  // namespace ravok
