// Going through all documents of a signed repository as a client does, but for the time: what is wrong is gathered, and
// expiry is left to whoever asks for a day.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"
#include "transport/transport.hpp"
#include "tuf/tuf.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {

// A document that clients read.
struct WalkedRole {
  std::string name;  // such as "timestamp", or the name of a role that is delegated to
  std::string file;  // its name in the folder of metadata
  std::uint64_t version = 0;
  std::uint64_t length = 0;  // bytes
  TufTime expires;           // clients refuse it from this time on
};

// A target that a role describes.
struct WalkedTarget {
  std::string path;
  std::string role;
  Json description;
  bool is_found = true;  // whether clients find this description of the path, and not another or none
};

// Something that is wrong, or worth knowing.
struct RepositoryFinding {
  std::string code;
  std::string message;  // where a client fails, its own
  std::string role;     // that this is about; may be empty
  std::string file;     // that this is about, below the folder that is served; may be empty
};

struct RepositoryWalk {
  std::uint64_t first_root = 0;   // the version of the root that the walk began with
  std::uint64_t newest_root = 0;  // and of the one that it led to
  bool consistent_snapshot = false;
  bool complete = false;          // whether every document was read that clients may read
  std::vector<WalkedRole> roles;  // root, timestamp, snapshot and targets, and then those that are delegated to
  std::vector<WalkedTarget> targets;
  std::set<std::string> files;              // in the folder of metadata: all that were read, and every root on the way
  std::vector<RepositoryFinding> problems;  // for which a client fails
  std::vector<RepositoryFinding> notices;   // for which none fails
};

// Whether a failure is one of this machine and not of a repository that is looked at.
bool is_local_failure(const std::string& code);

// Walks the repository whose metadata the transport serves from a root document on. Stops where a client could not go
// on. `checkpoint` is called before each request; what it throws ends the walk. Fails for what is_local_failure tells;
// whatever else goes wrong is a problem of the result, with the code that a client fails with.
RepositoryWalk walk_repository(std::string_view root_text, Transport& metadata, const TufLimits& limits,
                               const std::function<void()>& checkpoint);

}  // namespace ravok
