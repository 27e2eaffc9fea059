#include "publisher/signing/external_signer.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include <openssl/bn.h>
#include <openssl/ec.h>

#include "domain/bytes.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/signature.hpp"
#include "domain/signature_scheme.hpp"
#include "platform/process/filter_program.hpp"

namespace ravok {
namespace {

using AnswerBytes = std::vector<std::uint8_t>;

constexpr std::size_t maximum_words = 64;
constexpr std::size_t maximum_command = 32'768;
constexpr std::size_t maximum_answer = 65'536;
constexpr std::string_view blanks = " \t\r\n";

// Reads the words of a command line.
class CommandLine {
 public:
  explicit CommandLine(std::string_view text) : text_(text) {}

  std::vector<std::string> words() {
    std::vector<std::string> words;
    while (skip_blanks()) {
      words.push_back(word());
    }
    return words;
  }

 private:
  static bool is_blank(char character) { return character == ' ' || character == '\t'; }

  bool skip_blanks() {
    while (place_ < text_.size() && is_blank(text_[place_])) {
      ++place_;
    }
    return place_ < text_.size();
  }

  std::string word() {
    std::string word;
    while (place_ < text_.size() && !is_blank(text_[place_])) {
      const char character = text_[place_++];
      if (character == '\'' || character == '"') {
        quoted(character, word);
      } else {
        word += character == '\\' ? next() : character;
      }
    }
    return word;
  }

  void quoted(char quote, std::string& word) {
    for (char character = next(); character != quote; character = next()) {
      const bool escapes =
          quote == '"' && character == '\\' && place_ < text_.size() && (text_[place_] == '"' || text_[place_] == '\\');
      word += escapes ? next() : character;
    }
  }

  char next() {
    require(place_ < text_.size(), "invalid_signer",
            "The command of a signer ends inside of quotes or with a backslash");
    return text_[place_++];
  }

  std::string_view text_;
  std::size_t place_ = 0;
};

std::string without_blanks(std::string_view text) {
  std::string kept;
  for (const char character : text) {
    if (blanks.find(character) == std::string_view::npos) {
      kept += character;
    }
  }
  return kept;
}

std::optional<AnswerBytes> from_hexadecimal(const std::string& text) {
  try {
    return unhex(text, maximum_answer);
  } catch (const Error&) {
    return std::nullopt;
  }
}

std::optional<AnswerBytes> from_base64(const std::string& text) {
  const std::size_t padding = text.ends_with("==") ? 2 : (text.ends_with("=") ? 1 : 0);
  AnswerBytes bytes(text.size() / 4 * 3);
  if (text.empty() || text.size() % 4 != 0 ||
      EVP_DecodeBlock(bytes.data(), bytes_of(text).data(), static_cast<int>(text.size())) < 0) {
    return std::nullopt;
  }
  bytes.resize(bytes.size() - padding);
  return bytes;
}

struct ReleaseSignature {
  void operator()(ECDSA_SIG* signature) const { ECDSA_SIG_free(signature); }
  void operator()(BIGNUM* number) const { BN_free(number); }
};

// Returns the DER form of the two numbers of an ECDSA signature that stand side by side, or nothing.
std::optional<AnswerBytes> der_of_numbers(std::span<const std::uint8_t> numbers) {
  const auto half = static_cast<int>(numbers.size() / 2);
  std::unique_ptr<BIGNUM, ReleaseSignature> first(BN_bin2bn(numbers.data(), half, nullptr));
  std::unique_ptr<BIGNUM, ReleaseSignature> second(BN_bin2bn(numbers.data() + half, half, nullptr));
  const std::unique_ptr<ECDSA_SIG, ReleaseSignature> signature(ECDSA_SIG_new());
  if (!first || !second || !signature || ECDSA_SIG_set0(signature.get(), first.get(), second.get()) != 1) {
    return std::nullopt;
  }
  // The signature owns its numbers now.
  static_cast<void>(first.release());
  static_cast<void>(second.release());
  unsigned char* encoded = nullptr;
  const int size = i2d_ECDSA_SIG(signature.get(), &encoded);
  if (size <= 0) {
    return std::nullopt;
  }
  AnswerBytes bytes(encoded, encoded + size);
  OPENSSL_free(encoded);
  return bytes;
}

// Returns the signature in an answer, read in every way that is allowed, if one of them gives one that clients verify.
std::optional<std::string> signature_in(const std::string& answer, const Json& key, std::string_view payload) {
  const std::string text = without_blanks(answer);
  const std::span<const std::uint8_t> raw = bytes_of(answer);
  for (const std::optional<AnswerBytes>& read :
       {std::optional(AnswerBytes(raw.begin(), raw.end())), from_hexadecimal(text), from_base64(text)}) {
    if (!read || read->empty()) {
      continue;
    }
    if (const std::string whole = hex(*read); verify_signature(key, payload, whole)) {
      return whole;
    }
    if (is_text(key.at("keytype"), "ecdsa") && read->size() % 2 == 0) {
      const std::optional<AnswerBytes> encoded = der_of_numbers(*read);
      if (encoded && verify_signature(key, payload, hex(*encoded))) {
        return hex(*encoded);
      }
    }
  }
  return std::nullopt;
}

// Returns the bytes that the key signs for the payload.
std::string message_of(const Json& key, std::string_view payload) {
  if (!is_text(key.at("keytype"), "ml-dsa")) {
    return std::string(payload);
  }
  const AnswerBytes message = ml_dsa_message(payload);
  require(!message.empty(), "crypto_failure", "The cryptographic library could not use the signing key");
  return {message.begin(), message.end()};
}

std::string shown_patience(std::chrono::milliseconds patience) {
  return std::to_string(std::chrono::ceil<std::chrono::seconds>(patience).count()) + " s";
}

}  // namespace

std::vector<std::string> command_words(std::string_view command) {
  require(command.size() <= maximum_command, "invalid_signer", "The command of a signer is longer than 32768 bytes");
  require(command.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos, "invalid_signer",
          "The command of a signer holds a line break or a NUL byte");
  std::vector<std::string> words = CommandLine(command).words();
  require(!words.empty() && !words.front().empty(), "invalid_signer", "The command of a signer names no program");
  require(words.size() <= maximum_words, "invalid_signer", "The command of a signer has more than 64 words");
  return words;
}

std::string sign_externally(const std::string& command, const Json& key, const std::string& name,
                            std::string_view payload, std::chrono::milliseconds patience,
                            const std::function<bool()>& cancelled) {
  const std::vector<std::string> words = command_words(command);
  const std::string who = "The signer of " + name + ", " + words.front() + ", ";
  const auto deadline = std::chrono::steady_clock::now() + patience;
  const auto stopped = [&] { return cancelled && cancelled(); };
  const os::FilterResult result = os::filter(words, message_of(key, payload), maximum_answer,
                                             [&] { return stopped() || std::chrono::steady_clock::now() >= deadline; });
  // A program that shares the terminal gets the user's Ctrl+C too, and may end before it is asked to.
  require(!stopped(), "cancelled", "Cancelled");
  const auto failed = [&](const std::string& how) { fail("signer_failed", who + how); };
  switch (result.end) {
    case os::FilterEnd::not_prepared:
      failed("cannot be given its input: " + problem_text(result.problem));
      break;
    case os::FilterEnd::not_started:
      failed("cannot be started: " + problem_text(result.problem));
      break;
    case os::FilterEnd::signalled:
      failed("was ended by signal " + std::to_string(result.code));
      break;
    case os::FilterEnd::given_up:
      failed("gave no answer within " + shown_patience(patience));
      break;
    case os::FilterEnd::too_long:
      failed("answered more than " + std::to_string(maximum_answer) + " bytes");
      break;
    case os::FilterEnd::exited:
      if (result.code != 0) {
        failed("failed with exit code " + std::to_string(result.code) + "; what it said stands above");
      }
      if (without_blanks(result.output).empty()) {
        failed("answered nothing");
      }
      break;
  }
  const std::optional<std::string> signature = signature_in(result.output, key, payload);
  require(signature.has_value(), "invalid_signature",
          who + "answered no signature of the document by the key of " + name + ". Does it use another key?");
  return *signature;
}

}  // namespace ravok
