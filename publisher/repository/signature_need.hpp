// Who must sign a document of a repository, and who has.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "domain/json.hpp"
#include "publisher/repository/repository_folder.hpp"

namespace ravok {

// Who must sign a document.
struct SignatureNeed {
  std::string role;
  bool by_former_root = false;  // whether these are the keys of the root before, which must sign the next one too
  std::uint64_t threshold = 0;
  std::vector<std::string> signed_by;    // the names of the keys that have signed
  std::vector<std::string> waiting_for;  // the names of those that have not

  bool is_met() const { return signed_by.size() >= threshold; }
};

// Returns who must sign a document and who has. `role` is the one whose authority in this "signed" part of a root is
// asked.
SignatureNeed signature_need(const Json& document, const std::string& role, const Json& root,
                             const PublisherRecord& record);

}  // namespace ravok
