#include "publisher/publish_key.hpp"

#include <cstdint>

#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "publisher/publish_files.hpp"
#include "tuf/keys.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t key_file_limit = 65'536;

Json read_document(const std::filesystem::path& path) {
  const std::string text = read_file(path, key_file_limit);
  try {
    return parse_json(text, key_file_limit);
  } catch (const Error& error) {
    // The parser's message may quote a private key, which must not be shown.
    fail(error.code, "The file holds no key");
  }
}

bool is_private(const Json& document) { return document.is_object() && document.contains("private"); }

SigningKey parse_private(const std::filesystem::path& path, const Json& document) {
  const auto status = link_status_of(path);
  require(status && (status->permissions & permissions::others) == 0, "permissions",
          "Others may read this private key; give it mode 0600");
  return SigningKey::parse(document);
}

// Judges the key as the client does.
Json parse_public(Json key) {
  require(key.is_object(), "invalid_key", "The file holds no key");
  verify_keys({{key_id(key), key}});
  return key;
}

}  // namespace

PublishedKey publish_key(const std::filesystem::path& path, std::string_view scheme) {
  PublishedKey published;
  published.private_file = output_path(path);
  published.public_file = path_from_utf8(path_utf8(published.private_file) + ".pub");
  require_absent(published.private_file);
  require_absent(published.public_file);
  const SigningKey key = SigningKey::generate(scheme);

  NewOutput private_file(published.private_file, key.document().dump(2) + "\n", ExportAccess::owner);
  NewOutput public_file(published.public_file, key.key().dump(2) + "\n");

  published.id = read_signing_key(published.private_file).id();
  require(published.id == key.id() && key_id(read_public_key(published.public_file)) == key.id(), "invalid_key",
          "The key files differ from the key that was made");
  private_file.keep();
  public_file.keep();
  return published;
}

SigningKey read_signing_key(const std::filesystem::path& path) {
  return about(path, [&] { return parse_private(path, read_document(path)); });
}

Json read_public_key(const std::filesystem::path& path) {
  return about(path, [&] {
    Json document = read_document(path);
    return is_private(document) ? parse_private(path, document).key() : parse_public(std::move(document));
  });
}

bool holds_private_key(const std::filesystem::path& path) {
  return about(path, [&] { return is_private(read_document(path)); });
}

}  // namespace ravok
