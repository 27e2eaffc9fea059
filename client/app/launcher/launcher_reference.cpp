#include "app/launcher/launcher_reference.hpp"

#include <cstddef>
#include <utility>

#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::size_t nonce_characters = 32;

}  // namespace

const std::string& hash_identity(const Json& value) {
  const std::string& text = value.get_ref<const std::string&>();
  require(is_sha256_text(text), launcher_state_code, "Launcher manifest identity is invalid");
  return text;
}

const std::string& nonce_identity(const Json& value) {
  const std::string& text = value.get_ref<const std::string&>();
  require(is_lower_hex(text, nonce_characters), launcher_state_code, "Launcher startup identity is invalid");
  return text;
}

void reference_shape(const Json& value) {
  if (!value.is_null()) {
    hash_identity(value.at("manifest_sha256"));
    text_at(value, "build_id");
  }
}

Json make_reference(std::string manifest_sha256, std::string build_id) {
  return {{"manifest_sha256", std::move(manifest_sha256)}, {"build_id", std::move(build_id)}};
}

}  // namespace ravok
