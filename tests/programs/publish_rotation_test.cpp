// The commands of ravok-publish that change, use and protect a repository's keys.

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/json.hpp"
#include "support/process.hpp"
#include "support/repository_place.hpp"
#include "support/tree_state.hpp"

namespace ravok::publish_rotation_test {
namespace {

using testing::PlaceRoles;
using testing::ProgramResult;
using testing::RepositoryPlace;
using testing::same_tree;
using testing::tree_state;
using testing::TreeState;
using Arguments = std::vector<std::string>;

PlaceRoles two_root_keys() {
  PlaceRoles roles;
  roles.root = {{"alice", "bob"}, 2};
  return roles;
}

class PublishRotation : public ::testing::Test {
 protected:
  PublishRotation() {
    init_repository({folder, place.root / "root.json", {}, {pub("alice"), pub("bob"), pub("online")}}, place.signers(),
                    present_tuf_time());
  }

  std::string pub(const std::string& name) const { return place.key(name).native() + ".pub"; }

  static ProgramResult publisher(const Arguments& arguments) {
    return testing::run_program({RAVOK_PUBLISH, arguments, {{"PATH", "/usr/bin:/bin"}}, ""});
  }

  std::string expect_done(const Arguments& arguments, const std::string& errors) const {
    const ProgramResult result = publisher(arguments);
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.errors, errors);
    return result.output;
  }

  void expect_refused(const Arguments& arguments, int exit_code, const std::string& errors) const {
    const TreeState before = tree_state(place.root.path());
    const ProgramResult result = publisher(arguments);
    EXPECT_EQ(result.exit_code, exit_code);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, errors);
    EXPECT_TRUE(same_tree(tree_state(place.root.path()), before));
  }

  const RepositoryPlace place{two_root_keys()};
  const std::string folder = place.folder;
  const std::string strands =
      "All 2 keys of the role root must sign: the loss of one of them strands every client, since no key of the "
      "repository can be replaced any more\n";
};

TEST_F(PublishRotation, IsSignedByOneAfterTheOther) {
  const std::string begun = expect_done({"repository", "rotate", folder, "--role", "root", "--add", pub("carol"),
                                         "--remove", "bob", "--key", place.key("alice")},
                                        strands);
  EXPECT_EQ(begun,
            "Nothing is published yet: the new root needs 1 more signature of the present root's keys, by bob; the new "
            "root needs 1 more signature of its own keys, by carol\nThe next one signs with: ravok-publish repository "
            "sign " +
                folder + " --key FILE\n");
  const std::string status = expect_done({"repository", "status", folder}, "");
  EXPECT_NE(status.find("\nA draft of 'rotate' waits:\n"
                        "  root 2 until 2050-01-01: of the present root's keys 1 of 2 signatures, by alice; missing: "
                        "bob\n"
                        "  root 2 until 2050-01-01: of its own keys 1 of 2 signatures, by alice; missing: carol\n"
                        "The next one signs with: ravok-publish repository sign " +
                        folder + " --key FILE\n"),
            std::string::npos)
      << status;
  const ProgramResult second = publisher({"repository", "sign", folder, "--key", place.key("bob")});
  EXPECT_EQ(second.exit_code, 0) << second.errors;
  const ProgramResult third = publisher({"repository", "sign", folder, "--key", place.key("carol"), "--json"});
  EXPECT_EQ(third.exit_code, 0) << third.errors;
  const Json document = Json::parse(third.output);
  EXPECT_EQ(document.at("published"), true);
  EXPECT_EQ(document.at("waiting"), Json::array());
  EXPECT_EQ(document.at("documents").at("root").at("version"), 2);
}

TEST_F(PublishRotation, TellsItsStatusAsADocument) {
  const Json document = Json::parse(expect_done({"repository", "status", folder, "--json"}, ""));
  EXPECT_EQ(document.at("schema_version"), 1);
  EXPECT_EQ(document.at("draft"), Json());
  EXPECT_EQ(document.at("interrupted"), false);
  const Json& root = document.at("roles").at("root");
  EXPECT_EQ(root.at("threshold"), 2);
  EXPECT_EQ(root.at("keys").at(0).at("name"), "alice");
  EXPECT_EQ(root.at("document").at("version"), 1);
  EXPECT_EQ(root.at("document").at("expires"), "2050-01-01T00:00:00Z");
  EXPECT_EQ(document.at("roles").at("timestamp").at("document").at("days_left"), 13);
  EXPECT_EQ(document.at("roles").at("timestamp").at("document").at("signed_by"), Json({"online"}));
}

TEST_F(PublishRotation, IsRefusedWithACodeForTheCommandLine) {
  expect_refused({"repository", "rotate", folder, "--role", "mirrors", "--add", pub("alice")}, 2,
                 "There is no role mirrors; there are root, targets, snapshot and timestamp\n");
  expect_refused({"repository", "rotate", folder, "--role", "root", "--remove", "dave", "--key", place.key("alice")}, 1,
                 "The role root has no key dave; it has alice, bob\n");
  expect_refused({"repository", "sign", folder, "--signer", "true"}, 2,
                 "Each --signer COMMAND needs a --signer-key FILE, in the same order\n");
  expect_refused({"repository", "sign", folder, "--signer", "sign 'x", "--signer-key", pub("alice")}, 2,
                 "The command of a signer ends inside of quotes or with a backslash\n");
  expect_refused({"repository", "sign", folder, "--key", place.key("alice")}, 1,
                 "Nothing waits for signatures in this repository\n");
}

TEST_F(PublishRotation, TakesEncryptedKeysAndSigners) {
  const std::string phrase = place.root.write("phrase", "correct horse\n");
  ASSERT_EQ(chmod(phrase.c_str(), 0600), 0);
  const std::string carol = place.root / "keys/carol";
  const std::string said = expect_done({"key", carol, "--encrypt", "--passphrase-file", phrase}, "");
  EXPECT_NE(said.find("\nEncrypted private key, which nobody else may see: " + carol + "\n"), std::string::npos);
  const std::string token = place.root / "token.pem";
  ASSERT_EQ(
      testing::run_program({"/usr/bin/openssl", {"genpkey", "-algorithm", "ed25519", "-out", token}, {}, ""}).exit_code,
      0);
  const std::string token_public = place.root / "token.public";
  ASSERT_EQ(testing::run_program({"/usr/bin/openssl", {"pkey", "-in", token, "-pubout", "-out", token_public}, {}, ""})
                .exit_code,
            0);
  const std::string dave = place.root / "keys/dave";
  expect_done({"key", dave, "--import", token_public}, "");
  EXPECT_FALSE(std::filesystem::exists(dave));

  const Arguments rotate = {"repository",
                            "rotate",
                            folder,
                            "--role",
                            "root",
                            "--add",
                            carol + ".pub",
                            "--add",
                            dave + ".pub",
                            "--remove",
                            "alice",
                            "--remove",
                            "bob",
                            "--key",
                            place.key("alice"),
                            "--key",
                            place.key("bob"),
                            "--key",
                            carol,
                            "--passphrase-file",
                            phrase,
                            "--signer",
                            "openssl pkeyutl -sign -rawin -in /dev/stdin -inkey '" + token + "'",
                            "--signer-key",
                            dave + ".pub"};
  const std::string wrong = place.root.write("wrong", "wrong horse\n");
  ASSERT_EQ(chmod(wrong.c_str(), 0600), 0);
  Arguments with_wrong = rotate;
  with_wrong.at(20) = wrong;
  expect_refused(with_wrong, 1, carol + ": The passphrase does not open this key\n");
  const std::string published = expect_done(rotate, strands);
  EXPECT_TRUE(published.starts_with("Published: root 2 until 2050-01-01\n")) << published;
}

TEST_F(PublishRotation, MakesARootWithASignerAndAnEncryptedKey) {
  const std::string phrase = place.root.write("phrase", "correct horse\n");
  ASSERT_EQ(chmod(phrase.c_str(), 0600), 0);
  const std::string carol = place.root / "keys/carol";
  expect_done({"key", carol, "--encrypt", "--passphrase-file", phrase}, "");
  const std::string online = pub("online");
  Arguments make = {"root",
                    place.root / "second.json",
                    "--expires",
                    "2050-01-01T00:00:00Z",
                    "--root",
                    carol,
                    "--timestamp",
                    online,
                    "--snapshot",
                    online,
                    "--targets",
                    carol + ".pub",
                    "--passphrase-file",
                    phrase};
  EXPECT_EQ(expect_done(make, ""), "Root with 1 signature: " + (place.root / "second.json").native() + "\n");
  make.at(1) = place.root / "third.json";
  make.insert(make.end(), {"--key", place.key("alice")});
  expect_refused(make, 1, "The key of alice is none of the role root\n");
}

TEST_F(PublishRotation, RefusesOptionsOfAKeyThatDoNotFit) {
  const std::string key = place.root / "keys/new";
  expect_refused({"key", key, "--passphrase-file", "phrase"}, 2, "--passphrase-file goes with --encrypt\n");
  expect_refused({"key", key, "--import", "x", "--encrypt"}, 2,
                 "--import takes a public key, which is not encrypted\n");
}

}  // namespace
}  // namespace ravok::publish_rotation_test
