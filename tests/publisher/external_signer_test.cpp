#include "publisher/signing/external_signer.hpp"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "domain/signature.hpp"
#include "domain/signature_scheme.hpp"
#include "platform/file/files.hpp"
#include "platform/process/process_operations.hpp"
#include "publisher/signing/publish_key.hpp"
#include "publisher/signing/signer.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/with_environment.hpp"

namespace ravok {
namespace {

using testing::TemporaryRoot;

constexpr const char* payload_text = "{\"signed\":1}";

TEST(CommandWords, ArePartedByBlanksAndKeptTogetherByQuotes) {
  const auto words = [](std::string_view text) { return command_words(text); };
  using Words = std::vector<std::string>;
  EXPECT_EQ(words("sign"), (Words{"sign"}));
  EXPECT_EQ(words("  sign \t --id 01  "), (Words{"sign", "--id", "01"}));
  EXPECT_EQ(words("sign 'a b' \"c d\"e"), (Words{"sign", "a b", "c de"}));
  EXPECT_EQ(words("sign '' \"\""), (Words{"sign", "", ""}));
  EXPECT_EQ(words(R"(sign 'a\b"c' "a\b\"\\'" a\ b\'\\)"), (Words{"sign", R"(a\b"c)", R"(a\b"\')", R"(a b'\)"}));
  EXPECT_EQ(words("sign $HOME *.key ; | & > # ~ `x`"),
            (Words{"sign", "$HOME", "*.key", ";", "|", "&", ">", "#", "~", "`x`"}));
}

TEST(CommandWords, RefuseWhatIsNoCommand) {
  const std::string open = "The command of a signer ends inside of quotes or with a backslash";
  EXPECT_FAILURE(command_words("sign 'a"), "invalid_signer", open);
  EXPECT_FAILURE(command_words("sign \"a"), "invalid_signer", open);
  EXPECT_FAILURE(command_words("sign \"a\\\""), "invalid_signer", open);
  EXPECT_FAILURE(command_words("sign \\"), "invalid_signer", open);
  const std::string empty = "The command of a signer names no program";
  EXPECT_FAILURE(command_words(""), "invalid_signer", empty);
  EXPECT_FAILURE(command_words(" \t"), "invalid_signer", empty);
  EXPECT_FAILURE(command_words("'' sign"), "invalid_signer", empty);
  const std::string line = "The command of a signer holds a line break or a NUL byte";
  EXPECT_FAILURE(command_words("sign\nmore"), "invalid_signer", line);
  EXPECT_FAILURE(command_words(std::string("sign\0more", 9)), "invalid_signer", line);
  EXPECT_FAILURE(command_words(std::string(32'769, 'x')), "invalid_signer",
                 "The command of a signer is longer than 32768 bytes");
  std::string many = "sign";
  for (int i = 0; i < 64; ++i) {
    many += " x";
  }
  EXPECT_FAILURE(command_words(many), "invalid_signer", "The command of a signer has more than 64 words");
}

void run(const std::vector<std::string>& words) {
  ASSERT_EQ(os::run_program(words), os::ProgramEnd::succeeded)
      << words.front() << " failed; scripts/install-packages installs what the tests need";
}

// A signer whose key is `key`, and whose program is a command of the test's.
class ProgramThatSigns : public ::testing::Test {
 protected:
  ProgramThatSigns() : key(SigningKey::generate("ed25519")) {}

  std::string sign(const std::string& command, std::chrono::milliseconds patience = signer_patience) const {
    return sign_externally(command, key.key(), "keyring", payload_text, patience, {});
  }

  std::string shell(const std::string& script) const {
    root.write("script", script);
    return "sh '" + (root / "script").native() + "'";
  }

  // A command that answers these bytes.
  std::string answering(const std::string& bytes) const {
    root.write("answer", bytes);
    return "cat '" + (root / "answer").native() + "'";
  }

  static std::string refused(const std::string& program, const std::string& how) {
    return "The signer of keyring, " + program + ", " + how;
  }

  const TemporaryRoot root;
  const SigningKey key;
};

TEST_F(ProgramThatSigns, MayAnswerBytesHexadecimalOrBase64) {
  const std::string signature = key.sign(payload_text);
  const std::vector<std::uint8_t> bytes = unhex(signature, 16'384);
  const std::string raw(bytes.begin(), bytes.end());
  std::string encoded(4 * ((raw.size() + 2) / 3) + 1, '\0');
  encoded.resize(static_cast<std::size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()), bytes.data(), static_cast<int>(bytes.size()))));
  std::string upper = signature;
  for (char& character : upper) {
    character = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
  }
  const std::vector<std::string> answers = {raw,
                                            signature,
                                            signature + "\n",
                                            upper + "\r\n",
                                            signature.substr(0, 64) + "\n" + signature.substr(64) + "\n",
                                            encoded,
                                            encoded.substr(0, 40) + "\n" + encoded.substr(40) + "\n"};
  for (const std::string& answer : answers) {
    EXPECT_EQ(sign(answering(answer)), signature);
  }
}

TEST_F(ProgramThatSigns, ReadsThePayloadAndNothingElse) {
  const std::string seen = (root / "seen").native();
  const std::string script =
      shell("cat > '" + seen + "'; test -z \"$(cat)\" || exit 3; cat '" + (root / "answer").native() + "'");
  root.write("answer", key.sign(payload_text));
  EXPECT_EQ(sign(script), key.sign(payload_text));
  EXPECT_EQ(root.read("seen"), payload_text);
}

TEST_F(ProgramThatSigns, ReadsWhatAnMlDsaKeySignsForThePayload) {
  const SigningKey other = SigningKey::generate("ml-dsa-44/1");
  root.write("answer", other.sign(payload_text));
  const std::string script =
      shell("cat > '" + (root / "seen").native() + "'; cat '" + (root / "answer").native() + "'");
  EXPECT_TRUE(verify_signature(other.key(), payload_text,
                               sign_externally(script, other.key(), "keyring", payload_text, signer_patience, {})));
  const std::vector<std::uint8_t> message = ml_dsa_message(payload_text);
  EXPECT_EQ(root.read("seen"), std::string(message.begin(), message.end()));
}

TEST_F(ProgramThatSigns, MayLeaveItsInputUnread) {
  const std::string large(4 << 20, 'x');
  root.write("answer", key.sign(large));
  EXPECT_EQ(
      sign_externally("cat '" + (root / "answer").native() + "'", key.key(), "keyring", large, signer_patience, {}),
      key.sign(large));
}

TEST_F(ProgramThatSigns, IsRefusedForAnAnswerThatIsNoSignatureOfThisByThisKey) {
  const std::string message =
      refused("cat", "answered no signature of the document by the key of keyring. Does it use another key?");
  EXPECT_FAILURE(sign(answering("garbage")), "invalid_signature", message);
  EXPECT_FAILURE(sign(answering(key.sign("other bytes"))), "invalid_signature", message);
  EXPECT_FAILURE(sign(answering(SigningKey::generate("ed25519").sign(payload_text))), "invalid_signature", message);
  EXPECT_FAILURE(sign(answering(key.sign(payload_text) + "00")), "invalid_signature", message);
  EXPECT_FAILURE(sign(answering(std::string(65'536, '0'))), "invalid_signature", message);
}

TEST_F(ProgramThatSigns, IsRefusedForNoAnswerOrTooLongAOne) {
  EXPECT_FAILURE(sign("true"), "signer_failed", refused("true", "answered nothing"));
  EXPECT_FAILURE(sign(answering(" \n")), "signer_failed", refused("cat", "answered nothing"));
  EXPECT_FAILURE(sign(answering(std::string(65'537, '0'))), "signer_failed",
                 refused("cat", "answered more than 65536 bytes"));
  EXPECT_FAILURE(sign("yes"), "signer_failed", refused("yes", "answered more than 65536 bytes"));
}

TEST_F(ProgramThatSigns, IsRefusedForAFailureEvenIfItHasAnswered) {
  root.write("answer", key.sign(payload_text));
  const std::string answer = "cat '" + (root / "answer").native() + "'; ";
  EXPECT_FAILURE(sign(shell(answer + "exit 1")), "signer_failed",
                 refused("sh", "failed with exit code 1; what it said stands above"));
  EXPECT_FAILURE(sign(shell(answer + "kill -9 $$")), "signer_failed", refused("sh", "was ended by signal 9"));
}

TEST_F(ProgramThatSigns, IsEndedWhenItHangs) {
  EXPECT_FAILURE(sign("sleep 1000", std::chrono::milliseconds(1)), "signer_failed",
                 refused("sleep", "gave no answer within 1 s"));
  EXPECT_FAILURE(sign(shell("exec >&-; exec sleep 1000"), std::chrono::milliseconds(1)), "signer_failed",
                 refused("sh", "gave no answer within 1 s"));
}

TEST_F(ProgramThatSigns, IsNotWaitedForBeyondItsEnd) {
  root.write("answer", key.sign(payload_text));
  // What it leaves behind holds its output open until the file goes.
  root.write("alive", "");
  const std::string script = shell("while test -e '" + (root / "alive").native() + "'; do sleep 0.01; done & cat '" +
                                   (root / "answer").native() + "'");
  EXPECT_EQ(sign(script), key.sign(payload_text));
  EXPECT_TRUE(std::filesystem::remove(root / "alive"));
}

TEST_F(ProgramThatSigns, IsEndedWhenTheUserAsksToStop) {
  EXPECT_FAILURE(
      sign_externally("sleep 1000", key.key(), "keyring", payload_text, signer_patience, [] { return true; }),
      "cancelled", "Cancelled");
}

TEST_F(ProgramThatSigns, IsNamedWhenThereIsNone) {
  EXPECT_FAILURE(sign("/nowhere/at/all --sign"), "signer_failed",
                 refused("/nowhere/at/all", "cannot be started: No such file or directory"));
  root.write("plain", "text");
  ASSERT_EQ(chmod((root / "plain").c_str(), 0644), 0);
  EXPECT_FAILURE(sign((root / "plain").native()), "signer_failed",
                 refused((root / "plain").native(), "cannot be started: Permission denied"));
}

TEST_F(ProgramThatSigns, MayBeTheOneOfTheCryptographicLibrary) {
  struct Case {
    std::vector<std::string> generate;
    std::string scheme;
    std::string command;
  };
  const std::string file = (root / "token.pem").native();
  const std::vector<Case> cases = {
      {{"-algorithm", "ed25519"}, "ed25519", "openssl pkeyutl -sign -rawin -in /dev/stdin -inkey '" + file + "'"},
      {{"-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256"},
       "ecdsa-sha2-nistp256",
       "openssl pkeyutl -sign -rawin -digest sha256 -in /dev/stdin -inkey '" + file + "'"},
      {{"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"},
       "rsassa-pss-sha256",
       "openssl dgst -sha256 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest -sign '" + file + "'"},
  };
  for (const Case& one : cases) {
    std::filesystem::remove(file);
    std::vector<std::string> words = {"openssl", "genpkey", "-out", file};
    words.insert(words.end(), one.generate.begin(), one.generate.end());
    run(words);
    run({"openssl", "pkey", "-in", file, "-pubout", "-out", file + ".public"});
    const Json token = import_public_key(read_file(file + ".public", 65'536), "");
    EXPECT_EQ(token.at("scheme"), one.scheme);
    const std::string signature = sign_externally(one.command, token, "token", payload_text, signer_patience, {});
    EXPECT_TRUE(verify_signature(token, payload_text, signature)) << one.scheme;
  }
}

// A PKCS#11 token in software, with a key of each kind.
class SignerOnAToken : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* const place : {"/usr/lib/softhsm/libsofthsm2.so", "/usr/lib64/softhsm/libsofthsm2.so",
                                    "/usr/local/lib/softhsm/libsofthsm2.so"}) {
      if (std::filesystem::exists(place)) {
        module_ = place;
      }
    }
    ASSERT_FALSE(module_.empty()) << "There is no SoftHSM; scripts/install-packages installs what the tests need";
    std::filesystem::create_directory(root / "tokens");
    root.write("softhsm2.conf", "directories.tokendir = " + (root / "tokens").native() +
                                    "\nobjectstore.backend = file\nlog.level = ERROR\n");
    run({"softhsm2-util", "--init-token", "--free", "--label", "test", "--pin", "1234", "--so-pin", "5678"});
  }

  // Makes a key in the token and returns its public part.
  Json make(const std::string& kind, const std::string& id, const std::string& scheme = "") {
    const std::vector<std::string> token = {"pkcs11-tool", "--module", module_,         "--login",
                                            "--pin",       "1234",     "--token-label", "test"};
    std::vector<std::string> words = token;
    words.insert(words.end(), {"--keypairgen", "--key-type", kind, "--id", id});
    run(words);
    const std::string file = (root / ("public." + id)).native();
    words = token;
    words.insert(words.end(), {"--read-object", "--type", "pubkey", "--id", id, "--output-file", file});
    run(words);
    import_key(root / ("key" + id), file, scheme);
    return read_public_key(root / ("key" + id + ".pub"));
  }

  std::string tool(const std::string& words) const {
    return "pkcs11-tool --module " + module_ + " --login --pin 1234 --token-label test --sign " + words;
  }

  Signer open(const std::string& id, const std::string& command) const {
    SignerOptions options;
    options.signers = {{command, root / ("key" + id + ".pub")}};
    return open_signers(options).at(0);
  }

  const TemporaryRoot root;

 private:
  const testing::WithEnvironment configured_{"SOFTHSM2_CONF", (root / "softhsm2.conf").native()};
  std::string module_;
};

TEST_F(SignerOnAToken, SignsWithRsa) {
  const Json key = make("rsa:2048", "01");
  const Signer signer = open("01", tool("--id 01 --mechanism SHA256-RSA-PKCS-PSS"));
  EXPECT_EQ(signer.name, "key01");
  EXPECT_EQ(signer.id, key_id(key));
  EXPECT_TRUE(verify_signature(key, payload_text, signer.sign(payload_text)));
}

TEST_F(SignerOnAToken, SignsWithAnEllipticCurveInBothFormsOfASignature) {
  const Json key = make("EC:prime256v1", "02");
  const std::string numbers = "sh -c \"openssl dgst -sha256 -binary | " + tool("--id 02 --mechanism ECDSA") + "\"";
  const std::string encoded =
      "sh -c \"openssl dgst -sha256 -binary | " + tool("--id 02 --mechanism ECDSA --signature-format openssl") + "\"";
  for (const std::string& command : {numbers, encoded}) {
    EXPECT_TRUE(verify_signature(key, payload_text, open("02", command).sign(payload_text)));
  }
}

TEST_F(SignerOnAToken, SignsWithEd25519) {
  const Json key = make("EC:edwards25519", "03");
  EXPECT_TRUE(verify_signature(key, payload_text, open("03", tool("--id 03 --mechanism EDDSA")).sign(payload_text)));
}

TEST_F(SignerOnAToken, IsNamedWhenItSignsWithAnotherKey) {
  make("EC:edwards25519", "04");
  make("EC:edwards25519", "05");
  const Signer signer = open("04", tool("--id 05 --mechanism EDDSA"));
  EXPECT_FAILURE(signer.sign(payload_text), "invalid_signature",
                 "The signer of key04, pkcs11-tool, answered no signature of the document by the key of key04. Does it "
                 "use another key?");
}

TEST(OpenSigners, NamesAndOrdersKeys) {
  const TemporaryRoot root;
  publish_key(root / "alice.key", "ed25519");
  publish_key(root / "bob", "ed25519");
  SignerOptions options;
  options.keys = {root / "alice.key", root / "bob"};
  const std::vector<Signer> signers = open_signers(options);
  ASSERT_EQ(signers.size(), 2u);
  EXPECT_EQ(signers[0].name, "alice");
  EXPECT_EQ(signers[1].name, "bob");
  EXPECT_TRUE(verify_signature(signers[1].key, "x", signers[1].sign("x")));
  EXPECT_EQ(key_name("keys/alice.key.pub"), "alice");
  EXPECT_EQ(key_name("bob.pub"), "bob");
}

TEST(OpenSigners, RefusesAKeyTwiceAndACommandWithoutAKey) {
  const TemporaryRoot root;
  publish_key(root / "alice", "ed25519");
  SignerOptions options;
  options.keys = {root / "alice", root / "alice"};
  EXPECT_FAILURE(open_signers(options), "invalid_key", "The key of alice is given twice");
  options.keys = {root / "alice"};
  options.signers = {{"true", root / "alice.pub"}};
  EXPECT_FAILURE(open_signers(options), "invalid_key", "The key of alice is given twice");
  options.signers = {{"true", {}}};
  EXPECT_FAILURE(open_signers(options), "usage", "Each --signer COMMAND needs a --signer-key FILE, in the same order");
  options.signers = {{"", root / "alice.pub"}};
  EXPECT_FAILURE(open_signers(options), "usage", "Each --signer COMMAND needs a --signer-key FILE, in the same order");
}

TEST(ImportKey, FindsTheSchemeOfAKeyAndTakesAnother) {
  const Json rsa = SigningKey::generate("rsassa-pss-sha512").key();
  const auto text = rsa.at("keyval").at("public").get<std::string>();
  EXPECT_EQ(import_public_key(text, "").at("scheme"), "rsassa-pss-sha256");
  EXPECT_EQ(import_public_key(text, "rsassa-pss-sha512"), rsa);
  const Json curve = SigningKey::generate("ecdsa-sha2-nistp521").key();
  EXPECT_EQ(import_public_key(curve.at("keyval").at("public").get<std::string>(), ""), curve);
  EXPECT_FAILURE(import_public_key(text, "ed25519"), "invalid_key", "The public key is not one of the scheme ed25519");
  EXPECT_FAILURE(import_public_key("nothing", ""), "invalid_key", "The file holds no public key in PEM or DER");
}

}  // namespace
}  // namespace ravok
