// The first byte names the kind of a role document, and the rest is its text. A document with a good shape keeps it
// when it is written out again. Counting its signatures can then fail only for their number, and a threshold that is
// met has enough authorized signers.

#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "property.hpp"
#include "tuf/keys.hpp"
#include "tuf/metadata_shape.hpp"

namespace {

using ravok::fuzz::must_hold;

std::set<std::string> ids(const ravok::Json& list, const char* member) {
  std::set<std::string> found;
  for (const ravok::Json& entry : list) {
    found.insert(member == nullptr ? entry.get<std::string>() : entry.at(member).get<std::string>());
  }
  return found;
}

void check_threshold(const ravok::Json& document, const ravok::Json& keys, const ravok::Json& authority) {
  const auto threshold = authority.at("threshold").get<std::uint64_t>();
  const std::set<std::string> authorized = ids(authority.at("keyids"), nullptr);
  bool met = false;
  try {
    ravok::verify_threshold(document, keys, authority);
    met = true;
  } catch (const ravok::Error& refusal) {
    must_hold(
        refusal.code == "signature_threshold" || (refusal.code == "invalid_threshold" && threshold > authorized.size()),
        "after a good shape only the count of signatures can fail");
  }
  std::uint64_t possible = 0;
  for (const std::string& id : ids(document.at("signatures"), "keyid")) {
    possible += authorized.contains(id) && keys.contains(id) ? 1U : 0U;
  }
  must_hold(!met || (threshold > 0 && possible >= threshold), "a met threshold has its signers");
}

void check_root(const ravok::Json& document) {
  const ravok::Json& body = document.at("signed");
  for (const char* role : {"root", "timestamp", "snapshot", "targets"}) {
    check_threshold(document, body.at("keys"), body.at("roles").at(role));
  }
  const ravok::Json online = ravok::online_keys(document);
  must_hold(online.size() == 2, "two roles are online");
  for (const auto& [role, keys] : online.items()) {
    must_hold(keys.size() == ids(body.at("roles").at(role).at("keyids"), nullptr).size(),
              "an online role has its keys");
    ravok::verify_keys(keys);
  }
}

void check_delegations(const ravok::Json& document) {
  const ravok::Json& body = document.at("signed");
  if (body.contains("delegations")) {
    std::set<std::string> names;
    for (const ravok::Json& role : body.at("delegations").at("roles")) {
      must_hold(names.insert(role.at("name").get<std::string>()).second, "a delegated name stands once");
      must_hold(role.contains("paths") != role.contains("path_hash_prefixes"), "a delegation has one selector");
      check_threshold(document, body.at("delegations").at("keys"), role);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::array<const char*, 4> kinds = {"root", "timestamp", "snapshot", "targets"};
  if (size == 0) {
    return 0;
  }
  const std::string kind = kinds[data[0] % kinds.size()];
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  ravok::Json document;
  try {
    document = ravok::parse_json(text, 1 << 20);
    ravok::shape(document, kind);
  } catch (const ravok::Error&) {
    return 0;
  }
  try {
    const ravok::Json& body = document.at("signed");
    must_hold(body.at("_type") == kind, "the kind is the one that was asked for");
    must_hold(ravok::positive_version(body.at("version")) > 0, "a version counts from 1");
    must_hold(ids(document.at("signatures"), "keyid").size() == document.at("signatures").size(), "no key signs twice");
    const std::string written = document.dump();
    ravok::shape(ravok::parse_json(written, written.size()), kind);
    if (kind == "root") {
      check_root(document);
    } else if (kind == "targets") {
      check_delegations(document);
    }
  } catch (const ravok::Error& refusal) {
    must_hold(false, refusal.what());
  }
  return 0;
}
