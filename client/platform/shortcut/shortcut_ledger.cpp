#include "platform/shortcut/shortcut_ledger.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/json.hpp"
#include "domain/paths.hpp"
#include "platform/file/files.hpp"
#include "platform/file/managed_paths.hpp"
#include "platform/file/status.hpp"
#include "platform/shortcut/shortcut_rules.hpp"

namespace ravok::shortcut_ledger {
namespace {

using Rows = std::vector<OwnedShortcut>;

constexpr std::uint64_t byte_limit = 262'144;
constexpr const char* kind = "ravok-shortcuts";

std::filesystem::path ledger_path(const std::filesystem::path& root) { return DataPaths(root).shortcut_ledger; }

std::filesystem::path resolved(const std::filesystem::path& path) {
  try {
    return resolve_system_links(path);
  } catch (const Error&) {
    return {};  // an empty path names nothing
  }
}

// Tells which places lie in the data folder. Most rows share their parent, so each is looked at once.
class DataFolder {
 public:
  explicit DataFolder(const std::filesystem::path& root) {
    std::error_code problem;
    path_ = without_end_separator(std::filesystem::absolute(root, problem).lexically_normal());
    prefix_ = path_utf8(path_) + "/";
    status_ = link_status_of(resolved(path_));
  }

  // Whether a file lies in the folder, by its spelling or because a directory above it is the folder. Links that a user
  // has made are not followed, so a file behind one counts as outside.
  bool is_known_to_hold(const std::filesystem::path& file) {
    if (file == path_ || path_utf8(file).starts_with(prefix_)) {
      return true;
    }
    const auto [known, is_new] = parents_.try_emplace(file.parent_path(), false);
    if (is_new) {
      known->second = is_above(known->first);
    }
    return known->second;
  }

 private:
  // Walks down from the root as far as there are directories.
  bool is_above(const std::filesystem::path& parent) const {
    const std::filesystem::path place = resolved(parent);
    std::filesystem::path level = place.root_path();
    for (const std::filesystem::path& name : place.relative_path()) {
      level /= name;
      const auto status = link_status_of(level);
      if (!status || !is_directory(*status)) {
        return false;
      }
      if (status_ && same_file(*status, *status_)) {
        return true;
      }
    }
    return false;
  }

  std::filesystem::path path_;
  std::string prefix_;
  Result<Status> status_ = problem_of(Cause::missing);
  std::map<std::filesystem::path, bool> parents_;
};

void require_row(const OwnedShortcut& row, DataFolder& folder) {
  shortcut_rules::absolute_path_below_root(row.path);
  require(row.path.extension() == shortcut_rules::extension(), "shortcut_path", "A shortcut's form is unknown");
  require(!shortcut_rules::is_in_launcher_payload(row.path.parent_path()) && !folder.is_known_to_hold(row.path),
          "shortcut_path", "A shortcut lies among the client's own files");
  shortcut_rules::bounded_text(row.name, shortcut_rules::maximum_name_bytes);
  if (!row.game.empty()) {
    validate_identifier(row.game);
  }
}

Rows read_rows(const std::filesystem::path& root) {
  const std::filesystem::path path = ledger_path(root);
  const Json document = parse_json(read_file(path, byte_limit), byte_limit);
  require(is_integer(document.at("schema_version"), 1) && is_text(document.at("kind"), kind) &&
              document.at("entries").is_array() && document.at("entries").size() <= maximum_rows,
          "shortcut_ledger", "Unsupported shortcut list " + path_utf8(path));
  Rows rows;
  DataFolder folder(root);
  std::set<std::filesystem::path> paths;
  for (const Json& entry : document.at("entries")) {
    rows.push_back({path_from_utf8(text_at(entry, "path")), text_at(entry, "game"), text_at(entry, "name"),
                    sha256(entry.at("sha256"))});
    require_row(rows.back(), folder);
    require(paths.insert(rows.back().path).second, "shortcut_path", "A shortcut is recorded twice");
  }
  return rows;
}

}  // namespace

std::filesystem::path lock_path(const std::filesystem::path& root) { return DataPaths(root).shortcut_lock; }

FileLock lock(const std::filesystem::path& root) { return FileLock(lock_path(root), true, LockMode::exclusive); }

Rows read(const std::filesystem::path& root) {
  try {
    return read_rows(root);
  } catch (const Error& error) {
    if (error.code == "shortcut_ledger") {
      throw;
    }
  } catch (const Json::exception&) {
    // Fails below, like a ledger that cannot be read.
  }
  // Asked for afterwards, since a removal may take the ledger away at any time.
  const std::filesystem::path path = ledger_path(root);
  if (is_missing(path)) {
    return {};
  }
  fail("shortcut_ledger", "Shortcut list is malformed: " + path_utf8(path));
}

void write(const std::filesystem::path& root, const Rows& rows) {
  Json entries = Json::array();
  for (const OwnedShortcut& row : rows) {
    entries.push_back({{"path", path_utf8(row.path)}, {"game", row.game}, {"name", row.name}, {"sha256", row.sha256}});
  }
  const Json document = {{"schema_version", 1}, {"kind", kind}, {"entries", std::move(entries)}};
  const std::string text = document.dump();
  require(text.size() <= byte_limit, "size_limit", "Too many recorded shortcuts");
  atomic_write(ledger_path(root), text);
}

}  // namespace ravok::shortcut_ledger
