// Signing with a program that holds the key: that of a token, or of a service.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"

namespace ravok {

// A program that signs, and the file of the public key that it signs for.
struct ExternalSigner {
  std::string command;
  std::filesystem::path public_key;
};

// How long a program may take for a signature: time to find a token, to type its number and to touch it.
inline constexpr std::chrono::milliseconds signer_patience = std::chrono::minutes(5);

// Returns the words of a command line: the program and its arguments, which no shell sees. Blanks and tabs part words.
// Between single quotes everything stands for itself. Between double quotes a backslash makes a double quote or a
// backslash stand for itself, and outside of quotes any character. Nothing else has a meaning of its own. Fails with
// "invalid_signer" for a quote that is not closed, a backslash at the end, a line break or a NUL byte, more than 64
// words or 32,768 bytes, and for no word at all.
std::vector<std::string> command_words(std::string_view command);

// Lets the program of a command line sign the payload for a public key, and returns the signature as lower-case
// hexadecimal. The program finds on its standard input the very bytes that the key signs and nothing else: the payload,
// or for an ML-DSA key what that signs in its place. It answers on its standard output, with exit code 0, the signature
// as bytes, in hexadecimal or in Base64, the two texts with any blanks and line ends; one of ECDSA in DER or as its two
// numbers side by side. What clients verify of that is the signature.
// `name` is what people call the signer. Fails with "invalid_signer" for the command line, "signer_failed" when the
// program cannot be started, fails, says nothing, more than 65,536 bytes, or not within `patience`, "cancelled", and
// "invalid_signature" for an answer that is no signature of the payload by the key.
std::string sign_externally(const std::string& command, const Json& key, const std::string& name,
                            std::string_view payload, std::chrono::milliseconds patience,
                            const std::function<bool()>& cancelled);

}  // namespace ravok
