#include "publisher/publish_root.hpp"

#include <algorithm>
#include <string_view>
#include <utility>

#include "domain/json.hpp"
#include "platform/file/files.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/signing/publish_key.hpp"
#include "tuf/keys.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/tuf.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {
namespace {

void require_keys(const std::string& name, const RolePublication& role) {
  require(!role.keys.empty(), "invalid_key", "The role " + name + " has no key");
}

void require_threshold(const std::string& name, const RolePublication& role) {
  require(role.threshold >= 1 && role.threshold <= role.keys.size(), "invalid_threshold",
          "The role " + name + " has " + std::to_string(role.keys.size()) + (role.keys.size() == 1 ? " key" : " keys") +
              ", which cannot meet a threshold of " + std::to_string(role.threshold));
}

void require_unexpired(std::string_view expires) {
  require(!has_passed(parse_tuf_time(expires)), "expired_metadata", "The root document would have expired already");
}

// Adds a role with its keys to the body of a root document.
void add_role(Json& body, const std::string& name, const RolePublication& role) {
  require_keys(name, role);
  Json ids = Json::array();
  for (const std::filesystem::path& file : role.keys) {
    const Json key = read_public_key(file);
    const std::string id = key_id(key);
    for (const Json& other : ids) {
      require(other != id, "invalid_key", "The role " + name + " has the key of this file twice: " + path_utf8(file));
    }
    body["keys"][id] = key;
    ids.push_back(id);
  }
  require_threshold(name, role);
  body["roles"][name] = {{"keyids", std::move(ids)}, {"threshold", role.threshold}};
}

Json make_body(const RootPublication& publication) {
  Json body = {{"_type", "root"},
               {"spec_version", "1.0.31"},
               {"version", 1},
               {"expires", publication.expires},
               {"consistent_snapshot", true},
               {"keys", Json::object()},
               {"roles", Json::object()}};
  add_role(body, "root", publication.root);
  add_role(body, "timestamp", publication.timestamp);
  add_role(body, "snapshot", publication.snapshot);
  add_role(body, "targets", publication.targets);
  return body;
}

Json sign(const Json& body, const RootPublication& publication) {
  SignerOptions options = publication.signing;
  for (const std::filesystem::path& file : publication.root.keys) {
    if (holds_private_key(file)) {
      options.keys.push_back(file);
    }
  }
  const std::vector<Signer> signers = open_signers(options);
  const Json& ids = body.at("roles").at("root").at("keyids");
  for (const Signer& signer : signers) {
    require(std::find(ids.begin(), ids.end(), Json(signer.id)) != ids.end(), "wrong_key",
            "The key of " + signer.name + " is none of the role root");
  }
  const std::string payload = canonical_json(body);
  Json signatures = Json::array();
  for (const Signer& signer : signers) {
    signatures.push_back({{"keyid", signer.id}, {"sig", signer.sign(payload)}});
  }
  return signatures;
}

}  // namespace

PublishedRoot publish_root(const RootPublication& publication) {
  const std::filesystem::path output = output_path(publication.output);
  require_absent(output);
  const Json body = make_body(publication);
  const Json signatures = sign(body, publication);
  require(signatures.size() >= publication.root.threshold, "signature_threshold",
          "The threshold of the role root is " + std::to_string(publication.root.threshold) +
              ", and the private keys to sign with are " + std::to_string(signatures.size()));
  const std::string text = Json({{"signed", body}, {"signatures", signatures}}).dump(2) + "\n";
  require_first_root(text);

  NewOutput file(output, text);
  require_first_root(read_file(output, tuf_root_limit));
  file.keep();
  return {output, signatures.size()};
}

void require_options(const RootPublication& publication) {
  require_unexpired(publication.expires);
  const std::pair<const char*, const RolePublication*> roles[] = {{"root", &publication.root},
                                                                  {"timestamp", &publication.timestamp},
                                                                  {"snapshot", &publication.snapshot},
                                                                  {"targets", &publication.targets}};
  for (const auto& [name, role] : roles) {
    require_keys(name, *role);
    require_threshold(name, *role);
  }
}

void require_first_root(const std::string& text) {
  const Json root = parse_json(text, tuf_root_limit);
  shape(root, "root");
  const Json& body = root.at("signed");
  verify_threshold(root, body.at("keys"), body.at("roles").at("root"));
  require_unexpired(text_at(body, "expires"));
}

TufTime root_expiry(std::string_view text) {
  const Json root = parse_json(text, tuf_root_limit);
  shape(root, "root");
  return parse_tuf_time(text_at(root.at("signed"), "expires"));
}

}  // namespace ravok
