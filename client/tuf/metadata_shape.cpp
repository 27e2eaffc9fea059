#include "tuf/metadata_shape.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <initializer_list>
#include <set>
#include <string>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "tuf/keys.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {
namespace {

constexpr std::string_view invalid = "invalid_metadata";
constexpr std::size_t maximum_name_bytes = 4096;
constexpr std::size_t maximum_pattern_bytes = 4096;
constexpr std::size_t maximum_prefix_characters = 64;
constexpr std::array<std::string_view, 4> top_level = {"root", "timestamp", "snapshot", "targets"};

void require_signatures(const Json& signatures) {
  std::set<std::string_view> seen;
  for (const Json& signature : signatures) {
    require(has_text(signature, "keyid") && has_text(signature, "sig"), invalid,
            "Signature must contain a key ID and signature string");
    require(seen.insert(text_at(signature, "keyid")).second, invalid, "Metadata repeats a signature key ID");
  }
}

// Whether the text is a number as versions have it: no sign, no leading zero.
bool is_plain_number(std::string_view text) {
  return !text.empty() && are_digits(text) && (text == "0" || text.front() != '0');
}

// Whether the text is "1.", a number, and perhaps a dot and another number.
bool is_stable_version(std::string_view text) {
  if (!text.starts_with("1.")) {
    return false;
  }
  text.remove_prefix(2);
  const std::size_t dot = text.find('.');
  return is_plain_number(text.substr(0, dot)) &&
         (dot == std::string_view::npos || is_plain_number(text.substr(dot + 1)));
}

void require_root(const Json& body) {
  verify_keys(body.at("keys"));
  require(!body.contains("consistent_snapshot") || body.at("consistent_snapshot").is_boolean(), invalid,
          "consistent_snapshot must be a boolean");
  const Json& roles = body.at("roles");
  require(roles.is_object(), invalid, "Root roles must be an object");
  for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
    authority_shape(roles.at(role), body.at("keys"));
  }
  if (roles.contains("mirrors")) {
    authority_shape(roles.at("mirrors"), body.at("keys"));
  }
}

void require_references(const Json& body, std::string_view kind) {
  const Json& meta = body.at("meta");
  require(meta.is_object(), invalid, "Metadata references must be an object");
  const bool complete =
      kind == "timestamp" ? meta.size() == 1 && meta.contains("snapshot.json") : meta.contains("targets.json");
  require(complete, invalid, "Timestamp must describe only snapshot.json; snapshot must describe targets.json");
  for (const Json& reference : meta) {
    require(reference.is_object() && reference.contains("version"), invalid,
            "Metadata reference must contain a version");
    positive_version(reference.at("version"));
    if (reference.contains("length")) {
      length(reference);
    }
    if (reference.contains("hashes")) {
      hashes_shape(reference.at("hashes"));
    }
  }
}

void require_patterns(const Json& patterns) {
  for (const Json& pattern : patterns) {
    require(pattern.is_string(), invalid, "Delegation selector must contain strings");
    require(pattern.get_ref<const std::string&>().size() <= maximum_pattern_bytes, "size_limit",
            "Delegation pattern exceeds path limit");
  }
}

void require_prefixes(const Json& prefixes) {
  for (const Json& prefix : prefixes) {
    require(prefix.is_string(), invalid, "Delegation selector must contain strings");
    const std::string& text = prefix.get_ref<const std::string&>();
    require(!text.empty() && text.size() <= maximum_prefix_characters && is_lower_hex(text), invalid,
            "Invalid delegation hash prefix");
  }
}

void require_selector(const Json& role) {
  const bool paths = role.contains("paths");
  require(paths != role.contains("path_hash_prefixes") && role.contains("terminating") &&
              role.at("terminating").is_boolean(),
          invalid, "Delegation needs exactly one path selector and a terminating boolean");
  const Json& selector = role.at(paths ? "paths" : "path_hash_prefixes");
  require(selector.is_array(), invalid, "Delegation selector must be an array");
  if (paths) {
    require_patterns(selector);
  } else {
    require_prefixes(selector);
  }
}

void require_delegations(const Json& delegations) {
  require(delegations.is_object() && delegations.contains("keys") && delegations.at("keys").is_object() &&
              delegations.contains("roles") && delegations.at("roles").is_array(),
          invalid, "Invalid delegations");
  verify_keys(delegations.at("keys"));
  std::set<std::string_view> names(top_level.begin(), top_level.end());
  for (const Json& role : delegations.at("roles")) {
    require(role.is_object() && has_text(role, "name"), invalid, "Delegation must have a role name");
    const std::string& name = text_at(role, "name");
    require(!name.empty() && name.size() <= maximum_name_bytes, "size_limit", "Delegated role name exceeds its bound");
    require(names.insert(name).second, invalid, "Delegated role names must be unique and non-top-level");
    authority_shape(role, delegations.at("keys"));
    require_selector(role);
  }
}

void require_targets(const Json& body) {
  const Json& targets = body.at("targets");
  require(targets.is_object(), invalid, "Targets must be an object");
  for (const auto& [path, target] : targets.items()) {
    validate_relative_path(path, false);
    length(target);
    require(target.contains("hashes"), "invalid_hashes", "Target has no authenticated hashes");
    hashes_shape(target.at("hashes"));
    require(!target.contains("custom") || target.at("custom").is_object(), invalid,
            "Target custom data must be an object");
  }
  if (body.contains("delegations")) {
    require_delegations(body.at("delegations"));
  }
}

void shape_body(const Json& document, std::string_view kind) {
  require(document.is_object() && document.contains("signatures") && document.at("signatures").is_array() &&
              document.contains("signed") && document.at("signed").is_object(),
          invalid, "Metadata must contain a signed object and signature array");
  require_signatures(document.at("signatures"));
  const Json& body = document.at("signed");
  require(is_text(body.at("_type"), kind), "metadata_type", "Unexpected metadata type");
  require(is_stable_version(text_at(body, "spec_version")), "unsupported_spec",
          "A stable TUF 1.x[.y] specification version is required");
  positive_version(body.at("version"));
  parse_tuf_time(text_at(body, "expires"));
  if (kind == "root") {
    require_root(body);
  } else if (kind == "targets") {
    require_targets(body);
  } else {
    require_references(body, kind);
  }
}

}  // namespace

void shape(const Json& document, std::string_view kind) {
  refuse_malformed(invalid, "Metadata is missing a required field or has an invalid field type",
                   [&] { shape_body(document, kind); });
}

void authority_shape(const Json& authority, const Json& keys) {
  require(authority.is_object() && authority.contains("keyids") && authority.at("keyids").is_array() &&
              authority.contains("threshold"),
          invalid, "Invalid signing authority");
  positive_version(authority.at("threshold"));
  for (const Json& id : authority.at("keyids")) {
    require(id.is_string() && keys.contains(id.get_ref<const std::string&>()), invalid,
            "Role references a key absent from its delegator");
  }
}

void hashes_shape(const Json& hashes) {
  require(hashes.is_object() && !hashes.empty(), "invalid_hashes", "Hashes must be a nonempty object");
  for (const auto& [algorithm, value] : hashes.items()) {
    require(algorithm == "sha256" || algorithm == "sha512", "unsupported_hash",
            "Only SHA-256 and SHA-512 hashes are supported");
    require(value.is_string(), "invalid_hashes", "Hash must be a hexadecimal string");
    const std::string& text = value.get_ref<const std::string&>();
    require(text.size() == (algorithm == "sha256" ? 64 : 128) && std::all_of(text.begin(), text.end(), is_hex),
            "invalid_hashes", "Hash has an invalid length or hexadecimal encoding");
  }
}

std::uint64_t length(const Json& file) {
  require(file.is_object() && file.contains("length"), invalid, "File description must contain a length");
  const Json& length = file.at("length");
  require(length.is_number_unsigned() || (length.is_number_integer() && length.get<std::int64_t>() >= 0),
          "invalid_length", "Length must be a nonnegative integer");
  return length.get<std::uint64_t>();
}

}  // namespace ravok
