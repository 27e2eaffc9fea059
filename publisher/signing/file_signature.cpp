#include "publisher/signing/file_signature.hpp"

#include <algorithm>
#include <cstdint>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/signature.hpp"
#include "platform/file/file_digest.hpp"
#include "platform/file/file_range.hpp"
#include "publisher/signing/signing_key.hpp"

namespace ravok {
namespace {

constexpr const char* invalid_text = "invalid_signature";
constexpr const char* not_a_signature = "This is no signature of a file";
constexpr const char* statement_kind = "ravok-file";

// What is said of a file, which is what the keys sign.
Json statement_of(const std::filesystem::path& file, const ProgressCallback& progress) {
  const FileRange bytes = FileRange::whole_file(file);
  const std::string name = path_utf8(file.filename());
  require(is_utf8(name), "unsafe_path", "The name of a signed file must be valid UTF-8");
  const std::string sha256 = digest_range_progress(bytes, "sha256", progress);
  // One that still grows is being copied.
  require(bytes.reaches_end(), "file_read", "File changed while reading");
  return {
      {"schema_version", 1}, {"kind", statement_kind}, {"name", name}, {"length", bytes.length()}, {"sha256", sha256}};
}

Json parse_signature(std::string_view text) {
  try {
    return parse_json(text, maximum_file_signature_bytes);
  } catch (const Error& error) {
    require(error.code == "size_limit", invalid_text, not_a_signature);
    throw;
  }
}

void require_statement(const Json& signed_part) {
  require(signed_part.is_object() && signed_part.contains("schema_version") && signed_part.contains("kind") &&
              is_text(signed_part.at("kind"), statement_kind),
          invalid_text, not_a_signature);
  require(is_integer(signed_part.at("schema_version"), 1), "unsupported_schema",
          "This signature has a form that is not known here");
  require(has_exactly(signed_part, {"schema_version", "kind", "name", "length", "sha256"}) &&
              has_text(signed_part, "name") && signed_part.at("length").is_number_unsigned() &&
              has_text(signed_part, "sha256"),
          invalid_text, not_a_signature);
}

void require_signed_by_all(const Json& document, const std::vector<Json>& keys) {
  require(!keys.empty(), "signature_threshold", "Name the public keys that must have signed");
  refuse_malformed(invalid_text, not_a_signature, [&] {
    const std::string payload = canonical_json(document.at("signed"));
    for (const Json& key : keys) {
      const std::string id = key_id(key);
      const Json& signatures = document.at("signatures");
      const bool has_signed = std::any_of(signatures.begin(), signatures.end(), [&](const Json& one) {
        return text_at(one, "keyid") == id && verify_signature(key, payload, text_at(one, "sig"));
      });
      require(has_signed, "signature_threshold", "The file was not signed by every key that you named");
    }
  });
}

}  // namespace

std::string sign_file(const std::filesystem::path& file, const std::vector<Signer>& signers,
                      const ProgressCallback& progress) {
  require(!signers.empty(), "signature_threshold", "Name a key to sign with");
  const Json statement = statement_of(file, progress);
  const std::string payload = canonical_json(statement);
  Json signatures = Json::array();
  for (const Signer& signer : signers) {
    signatures.push_back({{"keyid", signer.id}, {"sig", signer.sign(payload)}});
  }
  return Json({{"signed", statement}, {"signatures", signatures}}).dump(2) + "\n";
}

Json signed_statement(std::string_view text) { return parse_json(text, maximum_file_signature_bytes).at("signed"); }

Json verify_file(const std::filesystem::path& file, std::string_view text, const std::vector<Json>& keys,
                 const ProgressCallback& progress) {
  const Json document = parse_signature(text);
  require(has_exactly(document, {"signed", "signatures"}) && document.at("signatures").is_array(), invalid_text,
          not_a_signature);
  require_signed_by_all(document, keys);
  const Json& expected = document.at("signed");
  require_statement(expected);
  const std::string name = path_utf8(file.filename());
  require(text_at(expected, "name") == name, "content_mismatch",
          "The signature is that of a file with the name " + text_at(expected, "name"));
  require(statement_of(file, progress) == expected, "content_mismatch", "The file is not the one that was signed");
  return expected;
}

}  // namespace ravok
