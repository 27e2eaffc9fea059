#include "tuf/keys.hpp"

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "domain/signature.hpp"

namespace ravok {
namespace {

constexpr std::size_t maximum_public_bytes = 16'384;

bool is_key(const Json& key) {
  return key.is_object() && has_text(key, "keytype") && has_text(key, "scheme") && key.contains("keyval") &&
         key.at("keyval").is_object() && has_text(key.at("keyval"), "public");
}

// Returns the IDs, each once. Refuses an ID that is not a text.
std::set<std::string> authorized_ids(const Json& authority) {
  std::set<std::string> ids;
  for (const Json& id : authority.at("keyids")) {
    require(id.is_string(), "invalid_metadata", "Invalid signing authority");
    ids.insert(id.get<std::string>());
  }
  return ids;
}

}  // namespace

void verify_keys(const Json& keys) {
  require(keys.is_object(), "invalid_metadata", "Signing keys must be an object");
  for (const auto& [id, key] : keys.items()) {
    require(is_key(key), "invalid_metadata", "Invalid signing key shape");
    require(digest(canonical_json(key), "sha256") == id, "keyid_mismatch",
            "Signing key ID does not identify its canonical key");
    require(text_at(key.at("keyval"), "public").size() <= maximum_public_bytes, "size_limit",
            "Signing key exceeds its size limit");
  }
}

void verify_threshold(const Json& document, const Json& keys, const Json& authority) {
  require(authority.is_object() && authority.contains("keyids") && authority.at("keyids").is_array() &&
              authority.contains("threshold"),
          "invalid_metadata", "Invalid signing authority");
  verify_keys(keys);
  const std::uint64_t threshold = positive_version(authority.at("threshold"));
  const std::set<std::string> authorized = authorized_ids(authority);
  require(threshold <= authorized.size(), "invalid_threshold", "Signing threshold exceeds unique authorized keys");

  const std::string payload = canonical_json(document.at("signed"));
  std::set<std::string> counted;
  for (const Json& signature : document.at("signatures")) {
    const std::string& id = text_at(signature, "keyid");
    const bool may_count = !counted.contains(id) && authorized.contains(id) && keys.contains(id);
    if (may_count && verify_signature(keys.at(id), payload, text_at(signature, "sig"))) {
      counted.insert(id);
    }
  }
  require(counted.size() >= threshold, "signature_threshold",
          "Metadata does not meet its authorized signature threshold");
}

Json online_keys(const Json& root) {
  const Json& body = root.at("signed");
  Json online = Json::object();
  for (const char* role : {"timestamp", "snapshot"}) {
    Json keys = Json::object();
    for (const Json& id : body.at("roles").at(role).at("keyids")) {
      const std::string& name = id.get_ref<const std::string&>();
      keys[name] = body.at("keys").at(name);
    }
    online[role] = std::move(keys);
  }
  return online;
}

}  // namespace ravok
