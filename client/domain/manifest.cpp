#include "domain/manifest.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <vector>

#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/paths.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t maximum_bytes = std::uint64_t{1} << 42;
constexpr std::size_t maximum_files = 100000;
constexpr std::array<std::string_view, 3> platforms = {"linux-x86_64", "windows-x86_64", "macos-aarch64"};

const std::string& text_at(const Json& object, const char* key) { return object.at(key).get_ref<const std::string&>(); }

// The case fold of file systems that ignore case, over the letters that paths may hold.
char folded(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool folds_before(std::string_view first, std::string_view second) {
  return std::lexicographical_compare(first.begin(), first.end(), second.begin(), second.end(),
                                      [](char a, char b) { return folded(a) < folded(b); });
}

// Tells whether paths collide where case is ignored. The paths form a tree of their components, so
// that a path costs its own length, whatever the others are. The components are views into the
// paths, which must stay where they are.
class PathTree {
 public:
  // Adds a file path. Fails with "path_collision".
  void add_file(std::string_view path) {
    const std::size_t separator = path.rfind('/');
    const bool has_directory = separator != std::string_view::npos;
    bool spelled_alike = true;
    const std::size_t directory = has_directory ? find_directory(path.substr(0, separator), spelled_alike) : root;
    Node& file = nodes_[find(directory, has_directory ? path.substr(separator + 1) : path)];
    require(!file.is_file, "path_collision", "Package contains duplicate or case-colliding paths");
    require(spelled_alike, "path_collision", "Package directories differ only in case");
    file.is_file = true;
  }

  // Fails with "path_collision" when a file stands where another file needs a directory.
  void require_no_file_above_another() const {
    const bool none = std::none_of(nodes_.begin(), nodes_.end(),
                                   [](const Node& node) { return node.is_file && !node.spelling.empty(); });
    require(none, "path_collision", "Package file is another file's parent directory");
  }

 private:
  static constexpr std::size_t root = 0;

  struct Node {
    bool is_file = false;
    std::string_view spelling;  // as a directory; empty while it is none
  };

  struct Key {
    std::size_t parent;
    std::string_view name;
    bool operator<(const Key& other) const {
      return parent != other.parent ? parent < other.parent : folds_before(name, other.name);
    }
  };

  std::size_t find(std::size_t parent, std::string_view name) {
    const auto [child, is_new] = children_.try_emplace(Key{parent, name}, nodes_.size());
    if (is_new) {
      nodes_.emplace_back();
    }
    return child->second;
  }

  // Most paths follow one of the same directory: that one is not looked up again.
  std::size_t find_directory(std::string_view path, bool& spelled_alike) {
    if (path == last_directory_) {
      return last_node_;
    }
    std::size_t node = root;
    for (std::string_view rest = path; !rest.empty();) {
      const std::size_t end = std::min(rest.find('/'), rest.size());
      const std::string_view name = rest.substr(0, end);
      node = find(node, name);
      if (nodes_[node].spelling.empty()) {
        nodes_[node].spelling = name;
      }
      spelled_alike = spelled_alike && nodes_[node].spelling == name;
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    if (spelled_alike) {
      last_directory_ = path;
      last_node_ = node;
    }
    return node;
  }

  std::vector<Node> nodes_ = std::vector<Node>(1);
  std::map<Key, std::size_t> children_;
  std::string_view last_directory_;
  std::size_t last_node_ = root;
};

bool is_printable_ascii(char c) { return c >= 32 && c <= 126; }

bool read_executable_mode(const Json& mode) {
  const bool executable = mode.get<std::int64_t>() == 0755;
  require(mode.is_number_integer() && (executable || mode.get<std::int64_t>() == 0644), "invalid_manifest",
          "Package modes must be 0644 or 0755");
  return executable;
}

void read_files(const Json& list, SnapshotManifest& manifest) {
  require(list.is_array() && !list.empty() && list.size() <= maximum_files, "size_limit",
          "Package file count exceeds bounds");
  PathTree paths;
  for (const Json& entry : list) {
    const std::string& path = text_at(entry, "path");
    validate_relative_path(path, true);
    require(std::all_of(path.begin(), path.end(), is_printable_ascii), "invalid_manifest",
            "The v1 package profile requires ASCII file paths");
    paths.add_file(path);
    SnapshotFile file;
    file.length = size_value(entry.at("length"));
    require(file.length <= maximum_bytes - manifest.expanded_length, "size_limit",
            "Expanded package exceeds size bounds");
    manifest.expanded_length += file.length;
    file.executable = read_executable_mode(entry.at("mode"));
    file.sha256 = sha256(entry.at("sha256"));
    manifest.files.emplace_hint(manifest.files.end(), path, std::move(file));
  }
  paths.require_no_file_above_another();
}

void read_archive(const Json& archive, SnapshotManifest& manifest) {
  require(text_at(archive, "format") == "tar.zst-v1", "invalid_manifest", "Unsupported snapshot format");
  manifest.target = text_at(archive, "target");
  validate_relative_path(manifest.target, true);
  manifest.archive_length = size_value(archive.at("length"));
  manifest.archive_sha256 = sha256(archive.at("sha256"));
  require(manifest.archive_length >= 1 && manifest.archive_length <= maximum_bytes, "size_limit",
          "Snapshot exceeds archive size bounds");
}

void read_fields(SnapshotManifest& manifest) {
  const Json& document = manifest.raw;
  manifest.build_id = text_at(document, "build_id");
  validate_identifier(manifest.build_id);
  manifest.platform = text_at(document, "platform");
  require(std::find(platforms.begin(), platforms.end(), manifest.platform) != platforms.end(), "invalid_manifest",
          "Unknown snapshot platform");
  manifest.executable = text_at(document, "executable");
  validate_relative_path(manifest.executable, true);
  const Json& archive = document.at("archive");
  read_archive(archive, manifest);
  read_files(document.at("files"), manifest);
  const auto executable = manifest.files.find(manifest.executable);
  require(executable != manifest.files.end() && executable->second.executable, "invalid_manifest",
          "Declared executable is missing or not executable");
  require(size_value(archive.at("expanded_length")) == manifest.expanded_length, "invalid_manifest",
          "Expanded length differs from file inventory");
}

void require_schema(const Json& document) {
  constexpr const char* unsupported = "Unsupported snapshot schema; nothing was rewritten";
  require(document.is_object(), "unsupported_schema", unsupported);
  const Json& version = document.at("schema_version");
  require(version.is_number_integer() && version == 1, "unsupported_schema", unsupported);
}

}  // namespace

SnapshotManifest SnapshotManifest::parse(const Json& document) {
  // Refused before it is copied.
  try {
    require_schema(document);
  } catch (const Json::exception&) {
    fail("invalid_manifest", "Snapshot manifest has missing or malformed fields");
  }
  return parse(Json(document));
}

SnapshotManifest SnapshotManifest::parse(Json&& document) {
  SnapshotManifest manifest;
  try {
    require_schema(document);
    manifest.raw = std::move(document);
    read_fields(manifest);
  } catch (const Json::exception&) {
    fail("invalid_manifest", "Snapshot manifest has missing or malformed fields");
  }
  return manifest;
}

std::size_t SnapshotManifest::longest_native_path() const {
  std::size_t longest = 0;
  for (const auto& [path, file] : files) {
    longest = std::max(longest, native_length(path));
  }
  return longest;
}

}  // namespace ravok
