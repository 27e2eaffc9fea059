#include "publisher/repository/key_advice.hpp"

#include <algorithm>
#include <cstddef>
#include <set>

#include "domain/error.hpp"
#include "publisher/repository/repository_folder.hpp"

namespace ravok {
namespace {

constexpr const char* strands =
    "the loss of one of them strands every client, since no key of the repository can be replaced any more";
constexpr const char* stops = "the loss of one of them stops this role until the root's keys have replaced it";

}  // namespace

std::vector<std::string> key_warnings(const Json& root) {
  std::vector<std::string> warnings;
  for (const std::string role : repository_roles) {
    const Json& authority = root.at("roles").at(role);
    const auto ids = authority.at("keyids").get<std::set<std::string>>();
    const bool is_root = role == "root";
    if (ids.size() > 1 && positive_version(authority.at("threshold")) == ids.size()) {
      warnings.push_back("All " + std::to_string(ids.size()) + " keys of the role " + role +
                         " must sign: " + (is_root ? strands : stops));
    } else if (ids.size() == 1 && is_root) {
      warnings.push_back(
          "The role root has a single key: its loss strands every client, since no key of the repository can be "
          "replaced any more");
    }
  }
  return warnings;
}

void require_known_keys(const Json& root, const std::vector<Signer>& signers) {
  for (const Signer& signer : signers) {
    const bool is_known = std::any_of(repository_roles.begin(), repository_roles.end(), [&](const char* role) {
      const Json& ids = root.at("roles").at(role).at("keyids");
      return std::find(ids.begin(), ids.end(), Json(signer.id)) != ids.end();
    });
    require(is_known, "wrong_key", "The key " + signer.name + " speaks for no role of this repository");
  }
}

}  // namespace ravok
