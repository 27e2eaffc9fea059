#include "publisher/signing/publish_key.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "platform/file/files.hpp"
#include "platform/file/status.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/signing/secret.hpp"
#include "publisher/signing/signing_key.hpp"
#include "tuf/keys.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t key_file_limit = 65'536;

// What a key file holds. A private key in it is overwritten in memory when it goes.
class KeyDocument {
 public:
  explicit KeyDocument(Json document) : document_(std::move(document)) {}
  ~KeyDocument() { wipe_private(document_); }
  KeyDocument(KeyDocument&&) noexcept = default;
  KeyDocument& operator=(KeyDocument&&) = delete;
  KeyDocument(const KeyDocument&) = delete;
  KeyDocument& operator=(const KeyDocument&) = delete;

  const Json& operator*() const { return document_; }

 private:
  Json document_;
};

// A text that may hold a private key, and is overwritten when it goes.
class KeyText {
 public:
  explicit KeyText(std::string text) : text_(std::move(text)) {}
  ~KeyText() { wipe(text_); }
  KeyText(const KeyText&) = delete;
  KeyText& operator=(const KeyText&) = delete;

  std::string_view get() const { return text_; }

 private:
  std::string text_;
};

KeyDocument read_document(const std::filesystem::path& path) {
  const KeyText text(read_file(path, key_file_limit));
  try {
    return KeyDocument(parse_json(text.get(), key_file_limit));
  } catch (const Error& error) {
    // The parser's message may quote a private key, which must not be shown.
    fail(error.code, "The file holds no key");
  }
}

bool is_private(const Json& document) { return document.is_object() && document.contains("private"); }

void require_private(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  require(status && (status->permissions & permissions::others) == 0, "permissions",
          "Others may read this private key; give it mode 0600");
}

SigningKey parse_private(const std::filesystem::path& path, const Json& document, const PassphraseSource& passphrase) {
  require_private(path);
  return is_encrypted_key(document) ? decrypt_key(document, known_passphrase(passphrase, name_of(path)))
                                    : SigningKey::parse(document);
}

// Judges the key as the client does.
Json parse_public(Json key) {
  require(key.is_object(), "invalid_key", "The file holds no key");
  verify_keys({{key_id(key), key}});
  return key;
}

Json public_part(const std::filesystem::path& path, const Json& document) {
  if (!is_private(document)) {
    return parse_public(document);
  }
  require_private(path);
  return is_encrypted_key(document) ? encrypted_public_key(document) : SigningKey::parse(document).key();
}

PublishedKey outputs_at(const std::filesystem::path& path) {
  PublishedKey published;
  published.private_file = output_path(path);
  published.public_file = path_from_utf8(path_utf8(published.private_file) + ".pub");
  require_absent(published.private_file);
  require_absent(published.public_file);
  return published;
}

// Writes both files and reads them back with `read`, which returns the private key of the file.
template <typename Read>
PublishedKey write_key(PublishedKey published, const SigningKey& key, const KeyDocument& document, Read read) {
  const KeyText text((*document).dump(2) + "\n");
  NewOutput private_file(published.private_file, text.get(), ExportAccess::owner);
  NewOutput public_file(published.public_file, key.key().dump(2) + "\n");

  published.id = read(published.private_file).id();
  require(published.id == key.id() && key_id(read_public_key(published.public_file)) == key.id(), "invalid_key",
          "The key files differ from the key that was made");
  private_file.keep();
  public_file.keep();
  return published;
}

}  // namespace

PublishedKey publish_key(const std::filesystem::path& path, std::string_view scheme) {
  PublishedKey published = outputs_at(path);
  const SigningKey key = SigningKey::generate(scheme);
  return write_key(std::move(published), key, KeyDocument(key.document()),
                   [](const std::filesystem::path& file) { return read_signing_key(file); });
}

PublishedKey publish_encrypted_key(const std::filesystem::path& path, std::string_view scheme,
                                   const PassphraseSource& passphrase, const KeyDerivation& derivation) {
  PublishedKey published = outputs_at(path);
  require_scheme(scheme);
  const Secret secret = new_passphrase(passphrase, name_of(published.private_file));
  const SigningKey key = SigningKey::generate(scheme);
  // Whoever was asked for the passphrase is not asked a third time.
  return write_key(std::move(published), key, KeyDocument(encrypt_key(key, secret, derivation)),
                   [&](const std::filesystem::path& file) {
                     return about(file, [&] { return decrypt_key(*read_document(file), secret); });
                   });
}

PublishedKey import_key(const std::filesystem::path& path, const std::filesystem::path& source,
                        std::string_view scheme) {
  PublishedKey published;
  published.public_file = path_from_utf8(path_utf8(output_path(path)) + ".pub");
  require_absent(published.public_file);
  const Json key = about(source, [&] { return import_public_key(read_file(source, key_file_limit), scheme); });
  published.id = key_id(key);
  NewOutput public_file(published.public_file, key.dump(2) + "\n");
  require(key_id(read_public_key(published.public_file)) == published.id, "invalid_key",
          "The key file differs from the key that was read");
  public_file.keep();
  return published;
}

SigningKey read_signing_key(const std::filesystem::path& path, const PassphraseSource& passphrase) {
  return about(path, [&] { return parse_private(path, *read_document(path), passphrase); });
}

Json read_public_key(const std::filesystem::path& path) {
  return about(path, [&] { return public_part(path, *read_document(path)); });
}

bool holds_private_key(const std::filesystem::path& path) {
  return about(path, [&] { return is_private(*read_document(path)); });
}

}  // namespace ravok
