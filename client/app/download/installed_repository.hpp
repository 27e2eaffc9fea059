// The signed repository from which an installation is updated: what the installer recorded of it, and a client of it.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "transport/https.hpp"
#include "tuf/tuf.hpp"

namespace ravok {

// What an installation records of its repository.
struct RepositoryRecord {
  std::string origin;               // HTTPS, a host and perhaps a port, and nothing else
  std::filesystem::path ca_bundle;  // PEM certificates that alone are trusted; empty for the system's own trust
};

// Returns what an installation records of its repository. Fails with "not_configured" for a data folder that has no
// such record; with "unsupported_schema" for one of another schema, or one that is malformed; as require_plain_origin
// does for its origin; and with "ca_bundle" when the certificates that it names are not there.
RepositoryRecord installed_repository(const std::filesystem::path& data_root);

// How much of a repository an installed client takes. A publisher must keep to it.
TufLimits installed_tuf_limits();

// A client of an installation's repository, over HTTPS and by the system's clock. While an object lives, no other
// process is a client of the same installation. Used by one thread.
class InstalledRepository {
 public:
  // Asks the network for nothing. `cancelled`, which may be empty, is asked again and again while a request for
  // metadata waits, and ends it with "cancelled"; downloads are told of by their progress. `budget`, which may be null,
  // bounds what the search for something new may cost, which are all requests for metadata, and then `cancelled` is not
  // used. What was found is fetched outside of the budget: its length is signed, and its download goes on where another
  // has ended. Fails with "native_install_incomplete" for a folder whose setup has not ended, with "busy" when another
  // process is a client already, and as installed_repository, TufClient and HttpsTransport do.
  explicit InstalledRepository(const std::filesystem::path& data_root, std::function<bool()> cancelled = {},
                               std::shared_ptr<HttpsBudget> budget = nullptr);

  TufClient& tuf() { return tuf_; }
  const std::string& origin() const { return record_.origin; }

 private:
  const RepositoryRecord record_;
  const std::unique_ptr<HttpsTransport> metadata_;
  HttpsTransport targets_;
  TufClient tuf_;
};

}  // namespace ravok
