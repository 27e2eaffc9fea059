#include "domain/signature.hpp"

#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "domain/crypto.hpp"

namespace ravok::signature_test {
namespace {

constexpr std::size_t maximum_text = 16'384;

static_assert(noexcept(verify_signature(Json(), "", "")));

struct Pair {
  const char* keytype;
  const char* scheme;
  const char* directory;
};

constexpr std::array<Pair, 10> pairs = {{
    {"rsa", "rsassa-pss-sha256", "rsassa-pss-sha256"},
    {"rsa", "rsassa-pss-sha384", "rsassa-pss-sha384"},
    {"rsa", "rsassa-pss-sha512", "rsassa-pss-sha512"},
    {"ecdsa", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp256"},
    {"ecdsa", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp384"},
    {"ecdsa", "ecdsa-sha2-nistp521", "ecdsa-sha2-nistp521"},
    {"ed25519", "ed25519", "ed25519"},
    {"ml-dsa", "ml-dsa-44/1", "ml-dsa-44"},
    {"ml-dsa", "ml-dsa-65/1", "ml-dsa-65"},
    {"ml-dsa", "ml-dsa-87/1", "ml-dsa-87"},
}};

// What another tool signed.
struct Signed {
  std::string keytype;
  std::string scheme;
  std::string key;
  std::string message;
  std::string signature;

  Json object() const { return {{"keytype", keytype}, {"scheme", scheme}, {"keyval", {{"public", key}}}}; }
  bool verifies() const { return verify_signature(object(), message, signature); }
  bool is_text() const { return keytype != "ed25519"; }
};

std::string content(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.good()) << path;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

Signed read_signed(const Pair& pair) {
  const std::filesystem::path place = std::filesystem::path(RAVOK_TEST_DATA) / "signatures" / pair.directory;
  return {pair.keytype, pair.scheme, content(place / "public"), content(place / "message"),
          content(place / "signature")};
}

Signed ed25519(const std::string& key, const std::string& message, const std::string& signature) {
  const std::vector<std::uint8_t> bytes = unhex(message, maximum_text);
  return {"ed25519", "ed25519", key, {bytes.begin(), bytes.end()}, signature};
}

// The hexadecimal text with one bit of its bytes flipped.
std::string with_flipped_bit(const std::string& text, std::size_t byte, int bit) {
  std::vector<std::uint8_t> bytes = unhex(text, maximum_text);
  bytes.at(byte) = static_cast<std::uint8_t>(bytes.at(byte) ^ (1 << bit));
  return hex(bytes);
}

// Flips one bit of the key in the second line of a PEM text, which lies in the key's own numbers.
std::string with_flipped_key_bit(std::string text, std::size_t character) {
  static const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const std::size_t second_line = text.find('\n', text.find('\n') + 1) + 1;
  char& digit = text.at(second_line + character);
  digit = digits.at(digits.find(digit) ^ 1);
  return text;
}

TEST(VerifySignature, CountsWhatAnotherToolSigned) {
  for (const Pair& pair : pairs) {
    EXPECT_TRUE(read_signed(pair).verifies()) << pair.scheme;
  }
}

TEST(VerifySignature, ReadsHexadecimalInEitherCase) {
  for (const Pair& pair : pairs) {
    Signed sample = read_signed(pair);
    for (char& c : sample.signature) {
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    EXPECT_TRUE(sample.verifies()) << pair.scheme;
  }
}

TEST(VerifySignature, RefusesEveryFlippedBitOfTheMessage) {
  for (const Pair& pair : pairs) {
    const Signed sample = read_signed(pair);
    for (std::size_t i = 0; i < sample.message.size(); ++i) {
      Signed other = sample;
      other.message[i] = static_cast<char>(other.message[i] ^ (1 << (i % 8)));
      EXPECT_FALSE(other.verifies()) << pair.scheme << " byte " << i;
    }
  }
}

TEST(VerifySignature, RefusesAMessageThatIsCutOrLonger) {
  for (const Pair& pair : pairs) {
    for (const int change : {-1, 1}) {
      Signed other = read_signed(pair);
      other.message.resize(other.message.size() + static_cast<std::size_t>(change));
      EXPECT_FALSE(other.verifies()) << pair.scheme;
    }
    Signed other = read_signed(pair);
    other.message.clear();
    EXPECT_FALSE(other.verifies()) << pair.scheme;
  }
}

TEST(VerifySignature, RefusesFlippedBitsAllOverTheSignature) {
  for (const Pair& pair : pairs) {
    const Signed sample = read_signed(pair);
    const std::size_t size = sample.signature.size() / 2;
    const std::size_t step = 1 + size / 150;
    for (std::size_t i = 0; i < size; i += step) {
      Signed other = sample;
      other.signature = with_flipped_bit(sample.signature, i, static_cast<int>(i / step % 8));
      EXPECT_FALSE(other.verifies()) << pair.scheme << " byte " << i;
    }
    Signed other = sample;
    other.signature = with_flipped_bit(sample.signature, size - 1, 0);
    EXPECT_FALSE(other.verifies()) << pair.scheme << " last byte";
  }
}

TEST(VerifySignature, RefusesFlippedBitsOfTheKey) {
  for (const Pair& pair : pairs) {
    const Signed sample = read_signed(pair);
    for (std::size_t i = 0; i < 32; ++i) {
      Signed other = sample;
      other.key = sample.is_text() ? with_flipped_key_bit(sample.key, i)
                                   : with_flipped_bit(sample.key, i, static_cast<int>(i % 8));
      EXPECT_FALSE(other.verifies()) << pair.scheme << " place " << i;
    }
  }
}

TEST(VerifySignature, RefusesTheKeyOfAnotherSigner) {
  Signed sample = read_signed({"rsa", "rsassa-pss-sha256", "rsassa-pss-sha256"});
  sample.key = read_signed({"rsa", "rsassa-pss-sha384", "rsassa-pss-sha384"}).key;
  EXPECT_FALSE(sample.verifies());
}

TEST(VerifySignature, TakesAKeyForNoOtherPairOfTypeAndScheme) {
  for (const Pair& pair : pairs) {
    Signed sample = read_signed(pair);
    for (const char* keytype : {"rsa", "ecdsa", "ed25519", "ml-dsa", "", "RSA", "ecdsa-sha2-nistp256"}) {
      for (const char* scheme :
           {"rsassa-pss-sha256", "rsassa-pss-sha384", "rsassa-pss-sha512", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384",
            "ecdsa-sha2-nistp521", "ed25519", "ml-dsa-44/1", "ml-dsa-65/1", "ml-dsa-87/1", "", "ml-dsa-44",
            "ml-dsa-44/2", "rsassa-pss-sha1", "ecdsa-sha2-nistp256 "}) {
        sample.keytype = keytype;
        sample.scheme = scheme;
        const bool own = sample.keytype == pair.keytype && sample.scheme == pair.scheme;
        EXPECT_EQ(sample.verifies(), own) << pair.scheme << " as " << keytype << ", " << scheme;
      }
    }
  }
}

TEST(VerifySignature, RefusesRsaKeysBelow2048Bits) {
  EXPECT_FALSE(read_signed({"rsa", "rsassa-pss-sha256", "rsa-1024"}).verifies());
  EXPECT_FALSE(read_signed({"rsa", "rsassa-pss-sha256", "rsa-2047"}).verifies());
}

TEST(VerifySignature, RefusesOtherFormsOfRsaSignatures) {
  for (const char* directory : {"rsa-short-salt", "rsa-other-mask", "rsa-pkcs1", "rsa-pss-only"}) {
    EXPECT_FALSE(read_signed({"rsa", "rsassa-pss-sha256", directory}).verifies()) << directory;
  }
}

TEST(VerifySignature, RefusesKeysOnAnotherCurve) {
  EXPECT_FALSE(read_signed({"ecdsa", "ecdsa-sha2-nistp384", "p256-sha384"}).verifies());
  EXPECT_FALSE(read_signed({"ecdsa", "ecdsa-sha2-nistp256", "p384-sha256"}).verifies());
  EXPECT_FALSE(read_signed({"ecdsa", "ecdsa-sha2-nistp256", "secp256k1"}).verifies());
}

TEST(VerifySignature, RefusesMlDsaSignaturesOfTheMessageItself) {
  EXPECT_FALSE(read_signed({"ml-dsa", "ml-dsa-44/1", "ml-dsa-44-plain"}).verifies());
  EXPECT_FALSE(read_signed({"ml-dsa", "ml-dsa-65/1", "ml-dsa-65-plain"}).verifies());
  EXPECT_FALSE(read_signed({"ml-dsa", "ml-dsa-87/1", "ml-dsa-87-plain"}).verifies());
}

TEST(VerifySignature, RefusesSignatureTextsThatAreNoBytes) {
  for (const Pair& pair : pairs) {
    const Signed sample = read_signed(pair);
    const std::string& good = sample.signature;
    for (const std::string& text :
         {std::string(), good.substr(1), good + "0", good + "00", good.substr(2), "zz" + good.substr(2), " " + good,
          good + '\n', good.substr(0, good.size() - 2), std::string(maximum_text, '0'),
          good + std::string(maximum_text + 2 - good.size(), '0'), std::string(1'000'000, 'a')}) {
      Signed other = sample;
      other.signature = text;
      EXPECT_FALSE(other.verifies()) << pair.scheme << " " << text.size();
    }
  }
}

TEST(VerifySignature, RefusesKeyTextsThatAreNoKey) {
  for (const Pair& pair : pairs) {
    const Signed sample = read_signed(pair);
    const std::string& good = sample.key;
    std::string private_name = good;
    if (sample.is_text()) {
      private_name.replace(private_name.find("PUBLIC"), 6, "PRIVATE");
    }
    for (const std::string& text :
         {std::string(), good.substr(1), good.substr(0, good.size() / 2), good.substr(0, 62), good.substr(0, 63),
          "zz" + good.substr(2), std::string(maximum_text, '0'), std::string(1'000'000, 'a')}) {
      Signed other = sample;
      other.key = text;
      EXPECT_FALSE(other.verifies()) << pair.scheme << " " << text.size();
    }
    Signed other = sample;
    other.key = private_name;
    EXPECT_EQ(other.verifies(), !sample.is_text()) << pair.scheme;
  }
}

TEST(VerifySignature, RefusesAnEd25519KeyOfAnotherLength) {
  const Signed sample = read_signed({"ed25519", "ed25519", "ed25519"});
  for (const std::string& key : {sample.key.substr(0, 62), sample.key + "00", sample.key + "0"}) {
    Signed other = sample;
    other.key = key;
    EXPECT_FALSE(other.verifies()) << key;
  }
}

TEST(VerifySignature, BoundsAKeyText) {
  for (const Pair& pair : pairs) {
    Signed sample = read_signed(pair);
    if (sample.is_text()) {
      sample.key.resize(maximum_text, '\n');
      EXPECT_TRUE(sample.verifies()) << pair.scheme;
      sample.key += '\n';
      EXPECT_FALSE(sample.verifies()) << pair.scheme;
    }
  }
}

TEST(VerifySignature, AsksNobodyForThePasswordOfAKey) {
  Signed sample = read_signed({"ecdsa", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp256"});
  sample.key.insert(sample.key.find('\n') + 1,
                    "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-256-CBC,00112233445566778899AABBCCDDEEFF\n\n");
  EXPECT_FALSE(sample.verifies());
}

TEST(VerifySignature, RefusesObjectsThatAreNoKey) {
  const Signed sample = read_signed({"ed25519", "ed25519", "ed25519"});
  const auto verifies = [&](const Json& key) { return verify_signature(key, sample.message, sample.signature); };
  ASSERT_TRUE(verifies(sample.object()));
  for (const Json& key : {Json(), Json::array(), Json::object(), Json("ed25519"), Json(1)}) {
    EXPECT_FALSE(verifies(key)) << key;
  }
  for (const char* name : {"keytype", "scheme", "keyval"}) {
    Json key = sample.object();
    key.erase(name);
    EXPECT_FALSE(verifies(key)) << name;
    for (const Json& value : {Json(), Json(1), Json::array({sample.key}), Json::object()}) {
      key[name] = value;
      EXPECT_FALSE(verifies(key)) << key;
    }
  }
  for (const Json& value : {Json(), Json(1), Json::array({sample.key}), Json::object()}) {
    Json key = sample.object();
    key["keyval"]["public"] = value;
    EXPECT_FALSE(verifies(key)) << key;
  }
}

TEST(VerifySignature, ReadsNothingElseOfTheKey) {
  const Signed sample = read_signed({"ed25519", "ed25519", "ed25519"});
  Json key = sample.object();
  key["note"] = 1;
  key["keyval"]["private"] = "none";
  EXPECT_TRUE(verify_signature(key, sample.message, sample.signature));
}

TEST(VerifySignature, LeavesNoErrorInTheLibrary) {
  for (const Pair& pair : pairs) {
    Signed sample = read_signed(pair);
    sample.signature = with_flipped_bit(sample.signature, 0, 0);
    EXPECT_FALSE(sample.verifies());
    EXPECT_EQ(ERR_peek_error(), 0U) << pair.scheme;
    sample.key.resize(sample.key.size() / 2);
    EXPECT_FALSE(sample.verifies());
    EXPECT_EQ(ERR_peek_error(), 0U) << pair.scheme;
  }
}

// RFC 8032, section 7.1.
TEST(VerifySignature, CountsThePublishedEd25519Signatures) {
  const std::vector<Signed> published = {
      ed25519("d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a", "",
              "e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e065224901555fb8821590a33bacc61e39701cf9b46bd25bf5"
              "f0595bbe24655141438e7a100b"),
      ed25519("3d4017c3e843895a92b70aa74d1b7ebc9c982ccf2ec4968cc0cd55f12af4660c", "72",
              "92a009a9f0d4cab8720e820b5f642540a2b27b5416503f8fb3762223ebdb69da085ac1e43e15996e458f3613d0f11d8c387b2e"
              "aeb4302aeeb00d291612bb0c00"),
      ed25519("fc51cd8e6218a1a38da47ed00230f0580816ed13ba3303ac5deb911548908025", "af82",
              "6291d657deec24024827e69c3abe01a30ce548a284743a445e3680d7db5ac3ac18ff9b538d16f290ae67f760984dc6594a7c15"
              "e9716ed28dc027beceea1ec40a"),
  };
  for (const Signed& sample : published) {
    EXPECT_TRUE(sample.verifies()) << sample.key;
    for (int bit = 0; bit < 512; ++bit) {
      Signed other = sample;
      other.signature = with_flipped_bit(sample.signature, static_cast<std::size_t>(bit) / 8, bit % 8);
      EXPECT_FALSE(other.verifies()) << sample.key << " bit " << bit;
    }
    for (int bit = 0; bit < 256; ++bit) {
      Signed other = sample;
      other.key = with_flipped_bit(sample.key, static_cast<std::size_t>(bit) / 8, bit % 8);
      EXPECT_FALSE(other.verifies()) << sample.key << " bit " << bit;
    }
  }
}

}  // namespace
}  // namespace ravok::signature_test
