#include "publisher/repository/signature_need.hpp"

#include <algorithm>
#include <set>

#include "domain/signature.hpp"

namespace ravok {

SignatureNeed signature_need(const Json& document, const std::string& role, const Json& root,
                             const PublisherRecord& record) {
  const Json& authority = root.at("roles").at(role);
  SignatureNeed need;
  need.role = role;
  need.threshold = positive_version(authority.at("threshold"));
  const std::string payload = canonical_json(document.at("signed"));
  std::set<std::string> asked;
  for (const Json& id : authority.at("keyids")) {
    const auto key = id.get<std::string>();
    if (!asked.insert(key).second) {
      continue;
    }
    const Json& signatures = document.at("signatures");
    const bool has_signed = std::any_of(signatures.begin(), signatures.end(), [&](const Json& signature) {
      return text_at(signature, "keyid") == key &&
             verify_signature(root.at("keys").at(key), payload, text_at(signature, "sig"));
    });
    (has_signed ? need.signed_by : need.waiting_for).push_back(record.key_name(key));
  }
  return need;
}

}  // namespace ravok
