// The input is a sequence of role documents that a repository offers one after the other, separated by lines of "---".
// Whatever they say, what is accepted has the signatures that its parent asks for, and no version that is known goes
// back.
//
// A document begins with a line: the letter of its role (R, T, S, G for root, timestamp, snapshot and targets; D for
// the first role that the targets delegate to) and the digits of the keys that sign it. What follows is its "signed"
// part, in which "@3" stands for the ID of key 3 and "#3" for the key. A text that is no JSON is offered as it is. The
// first root has the keys 0 to 3 for its roles.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "domain/error.hpp"
#include "domain/json.hpp"
#include "property.hpp"
#include "support/signing.hpp"
#include "tuf/keys.hpp"
#include "tuf/trusted_set.hpp"

namespace {

using ravok::Error;
using ravok::Json;
using ravok::TrustedSet;
using ravok::fuzz::must_hold;
using ravok::testing::TestKey;

constexpr std::uint64_t limit = 1 << 16;
constexpr std::size_t most_documents = 12;
constexpr std::string_view separator = "\n---\n";

const std::vector<TestKey>& keys() {
  static const std::vector<TestKey> made = [] {
    std::vector<TestKey> fresh;
    for (int i = 0; i < 6; ++i) {
      fresh.push_back(TestKey::ed25519());
    }
    return fresh;
  }();
  return made;
}

std::string first_root() {
  Json body = ravok::testing::role_body("root");
  body["keys"] = Json::object();
  constexpr std::array<const char*, 4> roles = {"root", "timestamp", "snapshot", "targets"};
  for (std::size_t i = 0; i < roles.size(); ++i) {
    body["keys"].update(ravok::testing::key_objects({&keys()[i]}));
    body["roles"][roles[i]] = ravok::testing::signing_authority({&keys()[i]}, 1);
  }
  return ravok::testing::signed_document(body, {&keys()[0]});
}

void replace_all(std::string& text, const std::string& word, const std::string& meaning) {
  for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + meaning.size())) {
    text.replace(at, word.size(), meaning);
  }
}

// A document of the input, as a client receives it.
struct Offer {
  char role = 0;
  std::string text;
};

Offer offer_of(std::string_view part) {
  const std::size_t end = std::min(part.find('\n'), part.size());
  const std::string_view head = part.substr(0, end);
  std::string body(part.substr(std::min(end + 1, part.size())));
  for (std::size_t i = 0; i < keys().size(); ++i) {
    replace_all(body, "@" + std::to_string(i), keys()[i].id());
    replace_all(body, "#" + std::to_string(i), keys()[i].key().dump());
  }
  Offer offer{head.empty() ? '?' : head[0], body};
  try {
    const Json parsed = ravok::parse_json(body, limit);
    ravok::testing::TestKeys signers;
    for (const char c : head.substr(std::min<std::size_t>(1, head.size()))) {
      const auto number = static_cast<std::size_t>(c - '0');
      if (number < keys().size()) {
        signers.push_back(&keys()[number]);
      }
    }
    // The body is kept as it is written, since what was signed is its canonical form.
    const Json signatures = ravok::testing::with_signatures(parsed, signers).at("signatures");
    offer.text = R"({"signatures":)" + signatures.dump() + R"(,"signed":)" + body + "}";
  } catch (const Error&) {
    // It is offered without a signature.
  }
  return offer;
}

std::uint64_t version_of(const Json& document) { return document.at("signed").at("version").get<std::uint64_t>(); }
const Json& meta_of(const Json& document) { return document.at("signed").at("meta"); }

// Whether a call is refused by an Error. Any other failure goes through and ends the fuzzer.
template <typename Work>
bool refuses(Work work) {
  try {
    work();
    return false;
  } catch (const Error&) {
    return true;
  }
}

void must_be_signed(const Json& document, const Json& keys_of_parent, const Json& authority) {
  must_hold(!refuses([&] { ravok::verify_threshold(document, keys_of_parent, authority); }),
            "what is accepted has its signatures");
}

// A client without files or a network.
class Client {
 public:
  void take(const Offer& offer) {
    switch (offer.role) {
      case 'R':
        return take_root(offer.text);
      case 'T':
        return take_timestamp(offer.text);
      case 'S':
        return take_snapshot(offer.text);
      case 'G':
        return take_targets(offer.text);
      case 'D':
        return take_delegated(offer.text);
      default:
        return;
    }
  }

 private:
  const Json& root_body() const { return set_.root().at("signed"); }

  void take_root(const std::string& text) {
    const Json before = set_.root();
    ravok::NextRoot next;
    if (refuses([&] { next = set_.verified_next_root(text, limit); })) {
      return;
    }
    const Json& body = next.document.at("signed");
    must_hold(version_of(next.document) == version_of(before) + 1, "a root is followed by the next version");
    must_be_signed(next.document, before.at("signed").at("keys"), before.at("signed").at("roles").at("root"));
    must_be_signed(next.document, body.at("keys"), body.at("roles").at("root"));
    const auto of = [](const Json& root, const char* role) {
      const Json authority = root.at("signed").at("roles").at(role).at("keyids");
      std::vector<std::string> ids = authority.get<std::vector<std::string>>();
      std::sort(ids.begin(), ids.end());
      ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
      return ids;
    };
    const bool rotates = of(before, "timestamp") != of(next.document, "timestamp") ||
                         of(before, "snapshot") != of(next.document, "snapshot");
    must_hold(rotates == next.rotates_online_keys, "a change of the online keys is seen, and only that");
    set_.trust_root(std::move(next));
    if (rotates) {
      timestamp_.reset();
      snapshot_.reset();
    }
  }

  void take_timestamp(const std::string& text) {
    Json received;
    if (refuses([&] { received = set_.verified_timestamp(text, limit); })) {
      return;
    }
    const Json& role = root_body().at("roles").at("timestamp");
    must_be_signed(received, root_body().at("keys"), role);
    bool keeps = false;
    if (timestamp_ && refuses([&] { keeps = set_.keeps_timestamp(*timestamp_, received); })) {
      return;
    }
    if (keeps) {
      must_hold(version_of(received) == version_of(*timestamp_), "a stored timestamp is kept for its own version");
      must_be_signed(*timestamp_, root_body().at("keys"), role);
      set_.trust_timestamp(*timestamp_);
      return;
    }
    if (refuses([&] { ravok::unexpired(received, now_); })) {
      return;
    }
    if (timestamp_) {
      must_hold(version_of(received) >= version_of(*timestamp_), "no timestamp goes back");
      must_hold(meta_of(received).at("snapshot.json").at("version").get<std::uint64_t>() >=
                    meta_of(*timestamp_).at("snapshot.json").at("version").get<std::uint64_t>(),
                "no timestamp leads to an older snapshot");
    }
    must_hold(set_.keeps_timestamp(received, received), "a timestamp is no successor of itself");
    timestamp_ = received;
    set_.trust_timestamp(std::move(received));
  }

  // Returns what is accepted of a role with this parent.
  std::optional<Json> taken(const std::string& text, const ravok::RoleReference& parent, const char* kind) const {
    Json document;
    if (refuses([&] { document = ravok::verified_role(text, parent, kind, limit, now_); })) {
      return std::nullopt;
    }
    must_hold(version_of(document) == parent.meta.at("version").get<std::uint64_t>(), "a role is what its parent says");
    must_be_signed(document, parent.keys, parent.authority);
    must_hold(!refuses([&] { ravok::unexpired(document, now_); }), "no expired role is accepted");
    return document;
  }

  void take_snapshot(const std::string& text) {
    if (set_.timestamp().is_null()) {
      return;
    }
    std::optional<Json> document = taken(text, set_.snapshot_reference(), "snapshot");
    if (!document || (snapshot_ && refuses([&] { ravok::require_no_role_lost(*snapshot_, *document); }))) {
      return;
    }
    if (snapshot_) {
      for (const auto& [name, meta] : meta_of(*snapshot_).items()) {
        must_hold(meta_of(*document).contains(name), "no role is lost");
        must_hold(
            meta_of(*document).at(name).at("version").get<std::uint64_t>() >= meta.at("version").get<std::uint64_t>(),
            "no role goes back");
      }
    }
    snapshot_ = *document;
    set_.trust_snapshot(*std::move(document));
  }

  void take_targets(const std::string& text) {
    if (set_.snapshot().is_null()) {
      return;
    }
    if (std::optional<Json> document = taken(text, set_.targets_reference(), "targets")) {
      set_.trust_targets(*std::move(document));
    }
  }

  void take_delegated(const std::string& text) const {
    if (set_.targets().is_null() || !set_.targets().at("signed").contains("delegations")) {
      return;
    }
    const Json& delegations = set_.targets().at("signed").at("delegations");
    if (delegations.at("roles").empty()) {
      return;
    }
    const Json& role = delegations.at("roles").at(0);
    const std::string name = role.at("name").get<std::string>() + ".json";
    if (meta_of(set_.snapshot()).contains(name)) {
      taken(text, {meta_of(set_.snapshot()).at(name), delegations.at("keys"), role}, "targets");
    }
  }

  const ravok::TufTime now_ = ravok::parse_tuf_time("2030-01-01T00:00:00Z");
  TrustedSet set_{first_root()};
  // What lies on the client's disk.
  std::optional<Json> timestamp_;
  std::optional<Json> snapshot_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  Client client;
  for (std::size_t i = 0; i < most_documents && !rest.empty(); ++i) {
    const std::size_t end = std::min(rest.find(separator), rest.size());
    client.take(offer_of(rest.substr(0, end)));
    rest.remove_prefix(std::min(end + separator.size(), rest.size()));
  }
  return 0;
}
