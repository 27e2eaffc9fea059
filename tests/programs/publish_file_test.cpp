// The signing of a file that is handed on, and its verification by whoever gets it.

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/json.hpp"
#include "platform/file/file_digest.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"

namespace ravok::publish_file_test {
namespace {

using testing::ProgramResult;
using Arguments = std::vector<std::string>;

class PublishFile : public ::testing::Test {
 protected:
  PublishFile() { EXPECT_EQ(publisher({"key", root / "release"}).exit_code, 0); }

  static ProgramResult publisher(const Arguments& arguments) {
    return testing::run_program({RAVOK_PUBLISH, arguments, {}, ""});
  }
  ProgramResult sign(const Arguments& more = {}) const { return run("sign", {"--key", root / "release"}, more); }
  ProgramResult verify(const Arguments& more = {}) const {
    return run("verify", {"--public-key", root / "release.pub"}, more);
  }

  const testing::TemporaryRoot root;
  const std::filesystem::path file = root.write("product.tar.gz", std::string(100'000, 'x'));

 private:
  ProgramResult run(const char* command, const Arguments& key, const Arguments& more) const {
    Arguments arguments = {"file", command, file};
    arguments.insert(arguments.end(), key.begin(), key.end());
    arguments.insert(arguments.end(), more.begin(), more.end());
    return publisher(arguments);
  }
};

TEST_F(PublishFile, IsVerifiedByWhoeverHasThePublicKey) {
  ProgramResult result = sign();
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "Signature: " + file.native() + ".sig\n");
  result = verify();
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "Signed by the key that you named: " + file.native() + "\n");
  result = verify({"--json"});
  const Json document = Json::parse(result.output);
  EXPECT_EQ(document.at("verified"), true);
  EXPECT_EQ(document.at("file").at("sha256"), digest_file(file, "sha256"));

  root.write("product.tar.gz", std::string(99'999, 'x') + "y");
  result = verify({"--json"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "The file is not the one that was signed\n");
  EXPECT_EQ(Json::parse(result.output).at("problem").at("code"), "content_mismatch");
}

TEST_F(PublishFile, GoesToTheSignatureThatIsNamed) {
  const Arguments named = {"--signature", root / "elsewhere"};
  EXPECT_EQ(sign(named).output, "Signature: " + (root / "elsewhere").native() + "\n");
  EXPECT_EQ(verify(named).exit_code, 0);
  EXPECT_EQ(verify().errors, "Cannot open file: " + file.native() + ".sig\n");
}

TEST_F(PublishFile, NeverReplacesASignature) {
  ASSERT_EQ(sign().exit_code, 0);
  const ProgramResult again = sign();
  EXPECT_EQ(again.exit_code, 1);
  EXPECT_EQ(again.errors, "The output already exists: " + file.native() + ".sig\n");
}

TEST_F(PublishFile, NeedsTheKeyOfEachThatIsNamed) {
  ASSERT_EQ(sign().exit_code, 0);
  ASSERT_EQ(publisher({"key", root / "other"}).exit_code, 0);
  EXPECT_EQ(verify({"--public-key", root / "other.pub"}).errors,
            "The file was not signed by every key that you named\n");
  ASSERT_EQ(sign({"--key", root / "other", "--signature", root / "both"}).exit_code, 0);
  EXPECT_EQ(verify({"--public-key", root / "other.pub", "--signature", root / "both"}).output,
            "Signed by all keys that you named: " + file.native() + "\n");
}

TEST_F(PublishFile, NamesTheSignatureThatIsNone) {
  const std::filesystem::path signature = root.write("product.tar.gz.sig", std::string(1'048'577, ' '));
  EXPECT_EQ(verify().errors, signature.native() + ": File exceeds read limit\n");
  root.write("product.tar.gz.sig", "{");
  EXPECT_EQ(verify().errors, "This is no signature of a file\n");
}

TEST_F(PublishFile, AsksNobodyForASignatureThatHasNoPlace) {
  std::filesystem::create_directory(root / "folder");
  std::filesystem::create_directory_symlink(root / "folder", root / "link");
  const std::filesystem::path asked = root / "asked";
  const std::filesystem::path signature = root / "link" / "signature";
  const ProgramResult result =
      publisher({"file", "sign", file, "--signature", signature, "--signer",
                 "sh -c 'touch \"" + asked.native() + "\"; false'", "--signer-key", root / "release.pub"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, signature.native() + ": Export parent must be an existing plain directory\n");
  EXPECT_FALSE(std::filesystem::exists(asked));
  EXPECT_TRUE(std::filesystem::is_empty(root / "folder"));
}

TEST_F(PublishFile, NamesTheFileThatIsNotThereAndMakesNothingForIt) {
  // The second one lies where no folder can be made for its signature.
  for (const std::filesystem::path& missing : {root / "none" / "file", file / "none" / "file"}) {
    const ProgramResult result = publisher({"file", "sign", missing, "--key", root / "release"});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.errors, "Cannot open file: " + missing.native() + "\n");
  }
  EXPECT_FALSE(std::filesystem::exists(root / "none"));
}

TEST_F(PublishFile, LeavesNothingOfASignatureThatFails) {
  EXPECT_EQ(sign({"--signature", root / "new" / "signature", "--signer", "false", "--signer-key", root / "release.pub"})
                .exit_code,
            1);
  EXPECT_FALSE(std::filesystem::exists(root / "new"));
}

TEST_F(PublishFile, WantsAKey) {
  ProgramResult result = publisher({"file", "sign", file});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.errors.substr(0, result.errors.find('\n')), "Name a key to sign with, with --key FILE");
  EXPECT_EQ(publisher({"file", "verify", file}).exit_code, 2);
  EXPECT_EQ(publisher({"file"}).exit_code, 2);
}

}  // namespace
}  // namespace ravok::publish_file_test
