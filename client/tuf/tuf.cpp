#include "tuf/tuf.hpp"

#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/json.hpp"
#include "platform/file/files.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/status.hpp"
#include "tuf/keys.hpp"
#include "tuf/metadata_shape.hpp"

namespace ravok {

void TufClient::initialize(const std::filesystem::path& directory, std::string_view root_text) {
  const FileLock lock(directory / trust_lock_file, true, LockMode::exclusive);
  const std::filesystem::path path = directory / trusted_root_file;
  require(is_missing(path), "already_initialized", "Trusted root is already initialized");
  const Json root = parse_json(root_text, tuf_root_limit);
  shape(root, "root");
  verify_threshold(root, root.at("signed").at("keys"), root.at("signed").at("roles").at("root"));
  atomic_write(path, root_text);
}

}  // namespace ravok
