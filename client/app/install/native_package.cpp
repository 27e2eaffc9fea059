#include "app/install/native_package.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <initializer_list>
#include <new>
#include <set>

#include "app/install/package_files.hpp"
#include "domain/bootstrap_contract.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/error.hpp"
#include "domain/identifier.hpp"
#include "domain/paths.hpp"
#include "domain/text_rules.hpp"
#include "platform/process/native_platform.hpp"
#include "transport/https.hpp"
#include "tuf/keys.hpp"
#include "tuf/metadata_shape.hpp"
#include "tuf/tuf.hpp"
#include "tuf/tuf_time.hpp"

namespace ravok {
namespace {

constexpr std::string_view invalid = "invalid_native_package";
constexpr std::size_t maximum_game_name_bytes = 80;

struct Resource {
  std::string path;
  std::string sha256;
  std::uint64_t length = 0;
};

struct ThemeResources {
  Resource definition;
  std::vector<std::pair<std::string, Resource>> files;
};

// What a descriptor says of a brand.
struct BrandResources {
  std::optional<Brand> brand;
  std::optional<ThemeResources> theme;
};

// Turns every exception other than an Error and a lack of memory into one failure.
template <typename Work>
auto read_sealed(Work work) {
  try {
    return work();
  } catch (const Error&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    fail(invalid, "Initial package metadata is malformed");
  }
}

std::vector<std::string> names_of(const PackageFiles& package, std::size_t limit) {
  try {
    return package.names(limit);
  } catch (const Error& error) {
    require(error.code != "tree_read", invalid, "Initial package metadata is malformed");
    throw;
  }
}

void require_fields(const Json& value, std::initializer_list<std::string_view> names) {
  require(value.is_object() && value.size() == names.size(), invalid,
          "Initial package record has unknown or missing fields");
  for (const std::string_view name : names) {
    require(value.contains(name), invalid, "Initial package record is missing a field");
  }
}

Resource parse_resource(const Json& value, std::uint64_t limit) {
  require_fields(value, {"path", "sha256", "length"});
  Resource resource;
  resource.path = text_at(value, "path");
  require(value.at("length").is_number_unsigned(), invalid, "Resource length must be an unsigned integer");
  resource.length = value.at("length").get<std::uint64_t>();
  require(value.at("sha256").is_string() && is_sha256_text(text_at(value, "sha256")), invalid,
          "Resource hash must be a lowercase SHA-256 digest");
  resource.sha256 = text_at(value, "sha256");
  require(resource.length >= 1 && resource.length <= limit, "size_limit",
          "Initial package resource exceeds its size limit");
  return resource;
}

void check_resource_name(const std::string& name) {
  validate_relative_path(name, true);
  require(name.find('/') == std::string::npos && name.front() != '.' && name != package_limits::descriptor_name,
          invalid, "Initial package resources need distinct flat names");
}

std::string read_resource(const PackageFiles& package, const Resource& resource, std::uint64_t limit) {
  std::string bytes = package.read(resource.path, limit);
  require(bytes.size() == resource.length && digest(bytes, "sha256") == resource.sha256, "content_mismatch",
          "Initial package resource changed: " + resource.path);
  return bytes;
}

void require_seal(std::string_view seal, std::string_view message) {
  require(is_sha256_text(seal), "native_install_trust", message);
}

constexpr std::string_view no_seal = "This installer has no package seal; build it with RAVOK_INITIAL_PACKAGE_SHA256";

Json sealed_descriptor(const PackageFiles& package, std::string_view seal) {
  const std::string text = package.read(package_limits::descriptor_name, package_limits::descriptor);
  require(digest(text, "sha256") == seal, "native_install_trust",
          "This package is not the one this installer was built for");
  return parse_json(text, package_limits::descriptor);
}

ThemeResources parse_theme_resources(const Json& value) {
  require_fields(value, {"definition", "files"});
  require(value.at("files").is_object(), invalid, "Brand theme files must be an object");
  ThemeResources theme;
  theme.definition = parse_resource(value.at("definition"), package_limits::theme_definition);
  require(theme.definition.path == theme_definition_file, invalid, "Brand theme definition must be theme.json");
  for (const auto& [name, file] : value.at("files").items()) {
    Resource resource = parse_resource(file, package_limits::theme_file);
    require(resource.path == "theme-" + name, invalid, "Brand theme files are stored as theme-NAME");
    theme.files.emplace_back(name, std::move(resource));
  }
  return theme;
}

BrandResources parse_descriptor_brand(const Json& descriptor) {
  BrandResources resources;
  if (!descriptor.is_object() || !descriptor.contains("brand")) {
    return resources;
  }
  Json brand = descriptor.at("brand");
  require(brand.is_object() && brand.contains("icon"), invalid, "Brand has unknown or missing fields");
  brand["icon"] = !brand.at("icon").is_null();
  if (brand.contains("theme")) {
    resources.theme = parse_theme_resources(brand.at("theme"));
    brand.erase("theme");
  }
  resources.brand = parse_brand(brand);
  return resources;
}

// Returns the brand's icon of a descriptor whose brand was parsed.
std::optional<Resource> parse_brand_icon(const Json& descriptor, const BrandResources& resources) {
  if (!resources.brand || !resources.brand->icon) {
    return std::nullopt;
  }
  return parse_resource(descriptor.at("brand").at("icon"), package_limits::icon);
}

std::optional<FeaturedGame> parse_featured_game(const Json& descriptor) {
  if (!descriptor.is_object() || !descriptor.contains("featured_game")) {
    return std::nullopt;
  }
  const Json& game = descriptor.at("featured_game");
  require_fields(game, {"id", "name"});
  require(game.at("id").is_string() && game.at("name").is_string(), invalid,
          "Featured game must name an id and a display name");
  FeaturedGame featured = {text_at(game, "id"), text_at(game, "name")};
  require_featured_game(featured);
  return featured;
}

// Returns a reader that gives a theme's parser the files that it asks for.
ThemeReader reader_of(const std::vector<std::pair<std::string, std::string>>& files) {
  return [&files](const std::string& name, std::uint64_t limit) {
    const auto file = std::find_if(files.begin(), files.end(), [&](const auto& entry) { return entry.first == name; });
    require(file != files.end(), "invalid_theme", "Theme file is missing or not a plain file: " + name);
    require(file->second.size() <= limit, "size_limit", "File exceeds read limit");
    return file->second;
  };
}

struct ReadTheme {
  NativePackage::SealedTheme sealed;
  Theme theme;
};

void require_bounded_files(const ThemeResources& theme) {
  std::uint64_t total = 0;
  for (const auto& [name, file] : theme.files) {
    require(file.length <= package_limits::theme_files - total, "size_limit",
            "Brand theme files exceed 16 MiB together");
    total += file.length;
  }
}

ReadTheme read_sealed_theme(const PackageFiles& package, const ThemeResources& theme) {
  std::set<std::string> sealed_names;
  for (const auto& [name, file] : theme.files) {
    check_resource_name(file.path);
    sealed_names.insert(name);
  }
  ReadTheme read;
  read.sealed.definition = read_resource(package, theme.definition, package_limits::theme_definition);
  const Json definition = parse_json(read.sealed.definition, package_limits::theme_definition);
  const std::vector<std::string> named = theme_files(definition);
  require_bounded_files(theme);
  require(std::set<std::string>(named.begin(), named.end()) == sealed_names, invalid,
          "Brand theme files differ from its definition");
  for (const auto& [name, file] : theme.files) {
    read.sealed.files.emplace_back(name, read_resource(package, file, package_limits::theme_file));
  }
  read.theme = parse_theme(definition, reader_of(read.sealed.files));
  return read;
}

PackageManifests parse_package_manifests(std::string_view bootstrap, std::string_view launcher) {
  PackageManifests manifests = {SnapshotManifest::parse(parse_json(bootstrap, package_limits::document)), {}};
  validate_bootstrap_contract(manifests.bootstrap);
  manifests.launcher = LauncherManifest::parse(parse_json(launcher, package_limits::document));
  return manifests;
}

// Reads a whole package, step by step, and keeps account of every file that it may hold.
class PackageReader {
 public:
  PackageReader(const PackageFiles& files, std::string_view seal) : given_(files), files_(files) {
    require_seal(seal, no_seal);
    package_.descriptor_sha256 = seal;
  }

  NativePackage read(const ProgressCallback& progress) {
    take_place();
    read_descriptor();
    read_documents();
    read_brand();
    require_trusted_root();
    parse_manifests();
    require_no_other_entry();
    require_resources(progress);
    return std::move(package_);
  }

 private:
  // A separator or a dot at the end of the path would lead through a link there. So whether it is a directory is asked
  // of the path as it was given, and again of its normal form without a separator.
  void take_place() {
    given_.require_place();
    package_.directory = std::filesystem::absolute(given_.place()).lexically_normal();
    package_.appended = given_.appended();
    if (!package_.appended) {
      PackageFiles(without_end_separator(package_.directory)).require_place();
      files_ = PackageFiles(package_.directory);
    }
  }

  void read_descriptor() {
    descriptor_ = sealed_descriptor(files_, package_.descriptor_sha256);
    package_.featured_game = parse_featured_game(descriptor_);
    brand_ = parse_descriptor_brand(descriptor_);
    icon_ = parse_brand_icon(descriptor_, brand_);
    package_.brand = brand_.brand;
    if (descriptor_.is_object()) {
      descriptor_.erase("featured_game");
      descriptor_.erase("brand");
    }
    require_fields(descriptor_, {"schema_version", "kind", "platform", "origin", "root", "ca_bundle",
                                 "bootstrap_manifest", "launcher_manifest"});
    require(is_integer(descriptor_.at("schema_version"), 1) && is_text(descriptor_.at("kind"), "ravok-initial-package"),
            "unsupported_schema", "Unsupported initial package schema");
    require(is_text(descriptor_.at("platform"), native_platform()), "launcher_incompatible",
            "This package is for another platform");
    package_.origin = text_at(descriptor_, "origin");
    require_plain_origin(package_.origin);
  }

  void read_documents() {
    const Resource root = parse_resource(descriptor_.at("root"), tuf_root_limit);
    const Resource bootstrap = parse_resource(descriptor_.at("bootstrap_manifest"), package_limits::document);
    const Resource launcher = parse_resource(descriptor_.at("launcher_manifest"), package_limits::document);
    resources_ = {root, bootstrap, launcher};
    const Json& ca_bundle = descriptor_.at("ca_bundle");
    if (!ca_bundle.is_null()) {
      resources_.push_back(parse_resource(ca_bundle, package_limits::ca_bundle));
    }
    package_.root_json = read_resource(files_, root, tuf_root_limit);
    package_.bootstrap_manifest_json = read_resource(files_, bootstrap, package_limits::document);
    package_.launcher_manifest_json = read_resource(files_, launcher, package_limits::document);
    if (!ca_bundle.is_null()) {
      package_.ca_bundle = read_resource(files_, resources_.back(), package_limits::ca_bundle);
    }
  }

  void read_brand() {
    if (icon_) {
      resources_.push_back(*icon_);
      package_.brand_icon = read_resource(files_, *icon_, package_limits::icon);
      validate_brand_icon(package_.brand_icon);
    }
    if (brand_.theme) {
      resources_.push_back(brand_.theme->definition);
      for (const auto& [name, file] : brand_.theme->files) {
        resources_.push_back(file);
      }
      package_.theme = read_sealed_theme(files_, *brand_.theme).sealed;
    }
  }

  void require_trusted_root() const {
    const Json root = parse_json(package_.root_json, tuf_root_limit);
    const Json& body = root.at("signed");
    verify_threshold(root, body.at("keys"), body.at("roles").at("root"));
    require(!has_passed(parse_tuf_time(text_at(body, "expires"))), "expired_metadata",
            "The initial package's TUF root has expired");
  }

  void parse_manifests() {
    PackageManifests manifests =
        parse_package_manifests(package_.bootstrap_manifest_json, package_.launcher_manifest_json);
    package_.bootstrap = std::move(manifests.bootstrap);
    package_.launcher = std::move(manifests.launcher);
    require(package_.launcher.runtime_lease_abi == 2 && package_.launcher.staging_abi == 1, "launcher_incompatible",
            "The initial launcher needs the current runtime contracts");
    require(package_.bootstrap.platform == native_platform() && package_.launcher.platform == native_platform(),
            "launcher_incompatible", "Package images are for another platform");
    require(package_.bootstrap.archive_length <= package_limits::archives &&
                package_.launcher.archive_length <= package_limits::archives - package_.bootstrap.archive_length,
            "size_limit", "Initial package payload is too large");
    for (const SnapshotManifest* manifest : {&package_.bootstrap, static_cast<SnapshotManifest*>(&package_.launcher)}) {
      resources_.push_back({manifest->target, manifest->archive_sha256, manifest->archive_length});
    }
  }

  void require_no_other_entry() const {
    std::set<std::string> names = {package_limits::descriptor_name};
    for (const Resource& resource : resources_) {
      check_resource_name(resource.path);
      require(names.insert(resource.path).second, invalid, "Initial package resources overlap");
    }
    std::size_t count = 0;
    // Listing one name more than the package may hold is enough to refuse it.
    for (const std::string& name : names_of(files_, names.size() + 1)) {
      const bool expected = ++count <= names.size() && files_.size(name) && names.contains(name);
      require(expected, invalid, "Initial package contains an unexpected entry: " + name);
    }
    require(count == names.size(), invalid, "Initial package is missing a resource");
  }

  // Digests every resource, also those that were read before, so that a file that changes between the steps is found.
  void require_resources(const ProgressCallback& progress) const {
    std::uint64_t total = 0;
    for (const Resource& resource : resources_) {
      total += resource.length;
    }
    std::uint64_t done = 0;
    for (const Resource& resource : resources_) {
      require_resource(
          resource, [&](std::uint64_t in_file, std::uint64_t) { return !progress || progress(done + in_file, total); });
      done += resource.length;
    }
  }

  void require_resource(const Resource& resource, const ProgressCallback& progress) const {
    const std::optional<std::uint64_t> size = files_.size(resource.path);
    require(size.has_value(), invalid, "Initial package resource is missing or not a plain file");
    require(*size == resource.length, "content_mismatch", "Initial package resource has the wrong length");
    require(files_.sha256(resource.path, progress) == resource.sha256, "content_mismatch",
            "Initial package resource changed: " + resource.path);
  }

  const PackageFiles& given_;
  PackageFiles files_;
  NativePackage package_;
  Json descriptor_;
  BrandResources brand_;
  std::optional<Resource> icon_;
  std::vector<Resource> resources_;
};

NativePackage prove_sealed(const PackageFiles& files, std::string_view seal, const ProgressCallback& progress) {
  return read_sealed([&] { return PackageReader(files, seal).read(progress); });
}

std::optional<Brand> sealed_brand(const PackageFiles& files, std::string_view seal) {
  return read_sealed([&] {
    require_seal(seal, no_seal);
    return parse_descriptor_brand(sealed_descriptor(files, seal)).brand;
  });
}

std::optional<Theme> sealed_theme(const PackageFiles& files, std::string_view seal) {
  return read_sealed([&]() -> std::optional<Theme> {
    require_seal(seal, "This installer has no package seal");
    const BrandResources resources = parse_descriptor_brand(sealed_descriptor(files, seal));
    return resources.theme ? std::optional(read_sealed_theme(files, *resources.theme).theme) : std::nullopt;
  });
}

std::optional<std::string> sealed_brand_icon(const PackageFiles& files, std::string_view seal) {
  return read_sealed([&]() -> std::optional<std::string> {
    require_seal(seal, no_seal);
    const Json descriptor = sealed_descriptor(files, seal);
    const std::optional<Resource> icon = parse_brand_icon(descriptor, parse_descriptor_brand(descriptor));
    if (!icon) {
      return std::nullopt;
    }
    check_resource_name(icon->path);
    std::string bytes = files.read(icon->path, package_limits::icon);
    require(digest(bytes, "sha256") == icon->sha256, "content_mismatch",
            "Initial package icon differs from its descriptor");
    return bytes;
  });
}

std::optional<FeaturedGame> sealed_featured_game(const PackageFiles& files, std::string_view seal) {
  return read_sealed([&] {
    require_seal(seal, no_seal);
    return parse_featured_game(sealed_descriptor(files, seal));
  });
}

PackageManifests sealed_manifests(const PackageFiles& files, std::string_view seal) {
  return read_sealed([&] {
    require_seal(seal, no_seal);
    const Json descriptor = sealed_descriptor(files, seal);
    const auto document = [&](const char* key) {
      require(descriptor.is_object() && descriptor.contains(key), invalid,
              "Initial package record has unknown or missing fields");
      const Resource resource = parse_resource(descriptor.at(key), package_limits::document);
      check_resource_name(resource.path);
      return read_resource(files, resource, package_limits::document);
    };
    return parse_package_manifests(document("bootstrap_manifest"), document("launcher_manifest"));
  });
}

}  // namespace

void require_featured_game(const FeaturedGame& game) {
  validate_identifier(game.id);
  require(!game.name.empty() && game.name.size() <= maximum_game_name_bytes, invalid,
          "Featured game name must be 1 to 80 bytes");
}

NativePackage read_native_package(const std::filesystem::path& path, std::string_view seal,
                                  const ProgressCallback& progress) {
  return prove_sealed(PackageFiles(path), seal, progress);
}

NativePackage read_native_package(const std::shared_ptr<const AppendedPackage>& package, std::string_view seal,
                                  const ProgressCallback& progress) {
  return prove_sealed(PackageFiles(package), seal, progress);
}

std::optional<Brand> package_brand(const std::filesystem::path& path, std::string_view seal) {
  return sealed_brand(PackageFiles(path), seal);
}

std::optional<Brand> package_brand(const std::shared_ptr<const AppendedPackage>& package, std::string_view seal) {
  return sealed_brand(PackageFiles(package), seal);
}

std::optional<Theme> package_theme(const std::filesystem::path& path, std::string_view seal) {
  return sealed_theme(PackageFiles(path), seal);
}

std::optional<Theme> package_theme(const std::shared_ptr<const AppendedPackage>& package, std::string_view seal) {
  return sealed_theme(PackageFiles(package), seal);
}

std::optional<std::string> package_brand_icon(const std::filesystem::path& path, std::string_view seal) {
  return sealed_brand_icon(PackageFiles(path), seal);
}

std::optional<std::string> package_brand_icon(const std::shared_ptr<const AppendedPackage>& package,
                                              std::string_view seal) {
  return sealed_brand_icon(PackageFiles(package), seal);
}

std::optional<FeaturedGame> package_featured_game(const std::filesystem::path& path, std::string_view seal) {
  return sealed_featured_game(PackageFiles(path), seal);
}

std::optional<FeaturedGame> package_featured_game(const std::shared_ptr<const AppendedPackage>& package,
                                                  std::string_view seal) {
  return sealed_featured_game(PackageFiles(package), seal);
}

PackageManifests package_manifests(const std::filesystem::path& path, std::string_view seal) {
  return sealed_manifests(PackageFiles(path), seal);
}

PackageManifests package_manifests(const std::shared_ptr<const AppendedPackage>& package, std::string_view seal) {
  return sealed_manifests(PackageFiles(package), seal);
}

}  // namespace ravok
