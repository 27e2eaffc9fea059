#include "publisher/publish_package.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "app/brand/theme_folder.hpp"
#include "domain/bootstrap_contract.hpp"
#include "domain/crypto.hpp"
#include "domain/icon_file.hpp"
#include "domain/json.hpp"
#include "domain/limits.hpp"
#include "platform/file/file_operations.hpp"
#include "platform/file/files.hpp"
#include "platform/os.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/ca_bundle.hpp"
#include "publisher/publish_files.hpp"
#include "publisher/publish_root.hpp"
#include "publisher/repository_origin.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

Json resource(const std::string& name, std::uint64_t length, const std::string& sha256) {
  return {{"path", name}, {"length", length}, {"sha256", sha256}};
}

// A small input that has been read and accepted.
struct Document {
  std::string name;  // in the package
  std::string bytes;

  Json described() const { return resource(name, bytes.size(), digest(bytes, "sha256")); }
};

Document read_document(const std::filesystem::path& file, std::string name, std::uint64_t limit) {
  return {std::move(name), about(file, [&] { return read_file(file, limit); })};
}

// An archive and what its manifest says of it.
struct Archive {
  std::filesystem::path file;
  std::string name;
  std::string sha256;
  std::uint64_t length = 0;
};

Archive archive_of(const SnapshotManifest& manifest, const std::filesystem::path& manifest_file) {
  return {manifest_file.parent_path() / path_from_utf8(manifest.target).filename(), manifest.target,
          manifest.archive_sha256, manifest.archive_length};
}

// A ratio as it is written, with what is beyond two decimals cut off, so that none looks better than it is.
std::string shown_ratio(double ratio) {
  const auto hundredths = static_cast<std::uint64_t>(ratio * 100);
  const std::string decimals = std::to_string(hundredths % 100);
  return std::to_string(hundredths / 100) + (decimals.size() < 2 ? ".0" : ".") + decimals + ":1";
}

// The client names only the first pair that is hard to read. Whoever makes a theme wants all of them at once.
void require_readable(const Theme& theme) {
  std::string message;
  for (const LowContrast& low : low_contrasts(theme)) {
    message += message.empty() ? "Theme contrast is too low: " : "; ";
    message += low.pair + " has " + shown_ratio(low.ratio) + " and needs " + shown_ratio(low.needed);
  }
  require(message.empty(), "invalid_theme", message);
}

// Everything that the package will hold, read and judged piece by piece.
class PackageInputs {
 public:
  explicit PackageInputs(const PackagePublication& publication) : publication_(publication) {
    require_reachable_origin(publication_.origin);
    Json descriptor = {{"schema_version", 1},
                       {"kind", "ravok-initial-package"},
                       {"platform", native_platform()},
                       {"origin", publication.origin}};
    descriptor["root"] = add(root());
    descriptor["ca_bundle"] = publication.ca_bundle.empty() ? Json() : add(ca_bundle());
    descriptor["bootstrap_manifest"] = add(bootstrap());
    descriptor["launcher_manifest"] = add(launcher());
    if (publication.brand) {
      descriptor["brand"] = brand(*publication.brand);
    }
    if (publication.featured_game) {
      descriptor["featured_game"] = {{"id", publication.featured_game->id}, {"name", publication.featured_game->name}};
    }
    documents_.push_back({package_limits::descriptor_name, descriptor.dump(2) + "\n"});
  }

  // The descriptor comes last.
  const std::vector<Document>& documents() const { return documents_; }
  const std::vector<Archive>& archives() const { return archives_; }

 private:
  Json add(Document document) {
    Json described = document.described();
    documents_.push_back(std::move(document));
    return described;
  }

  Document root() const {
    Document document = read_document(publication_.root, "root.json", tuf_root_limit);
    about(publication_.root, [&] { require_first_root(document.bytes); });
    return document;
  }

  Document ca_bundle() const {
    Document document = read_document(publication_.ca_bundle, "ca-bundle.pem", package_limits::ca_bundle);
    about(publication_.ca_bundle, [&] { require_certificates(document.bytes); });
    return document;
  }

  Document bootstrap() {
    const std::filesystem::path& file = publication_.bootstrap_manifest;
    Document document = read_document(file, "bootstrap.manifest.json", package_limits::document);
    about(file, [&] {
      const SnapshotManifest manifest = SnapshotManifest::parse(parse_json(document.bytes, package_limits::document));
      validate_bootstrap_contract(manifest);
      archives_.push_back(archive_of(manifest, file));
    });
    return document;
  }

  Document launcher() {
    const std::filesystem::path& file = publication_.launcher_manifest;
    Document document = read_document(file, "launcher.manifest.json", package_limits::document);
    about(file, [&] {
      archives_.push_back(
          archive_of(LauncherManifest::parse(parse_json(document.bytes, package_limits::document)), file));
    });
    return document;
  }

  Json brand(const BrandPublication& publication) {
    Json described = brand_json(parse_brand({{"name", publication.name},
                                             {"id", publication.id},
                                             {"publisher", publication.publisher},
                                             {"icon", !publication.icon.empty()}}));
    described["icon"] = publication.icon.empty() ? Json() : add(icon(publication.icon));
    if (!publication.theme.empty()) {
      described["theme"] = theme(publication.theme);
    }
    return described;
  }

  static Document icon(const std::filesystem::path& file) {
    Document document = read_document(file, "brand.ico", package_limits::icon);
    about(file, [&] {
      validate_brand_icon(document.bytes);
      require(os::shortcut_form() != os::ShortcutForm::desktop_entry || largest_png_image(document.bytes),
              "invalid_native_package",
              "The icon holds no PNG image that a desktop's menu could show: save its largest image, of at most " +
                  std::to_string(maximum_icon_side) + "×" + std::to_string(maximum_icon_side) +
                  " pixels, as PNG in the .ico file");
    });
    return document;
  }

  Json theme(const std::filesystem::path& directory) {
    const std::filesystem::path file = directory / "theme.json";
    const Document document = read_document(file, "theme.json", package_limits::theme_definition);
    const Json definition = about(file, [&] { return parse_json(document.bytes, package_limits::theme_definition); });
    about(directory, [&] { require_readable(read_theme(definition, directory)); });
    Json files = Json::object();
    for (const std::string& name : theme_files(definition)) {
      files[name] = add(read_document(directory / name, "theme-" + name, package_limits::theme_file));
    }
    return {{"definition", add(document)}, {"files", std::move(files)}};
  }

  const PackagePublication& publication_;
  std::vector<Document> documents_;
  std::vector<Archive> archives_;
};

// Copies an archive and proves that it is the one of its manifest.
void copy_archive(const Archive& archive, const std::filesystem::path& folder, const ProgressCallback& progress) {
  const Result<Handle> input = os::open(archive.file, os::OpenAs::linked);
  require(input.has_value(), "file_read", "Cannot open the archive that the manifest names");
  ExportFile output(folder / archive.name);
  DigestState state("sha256");
  std::string buffer(piece_bytes, '\0');
  std::uint64_t done = 0;
  for (;;) {
    report(progress, done, archive.length);
    const Result<std::size_t> count = os::read(input->get(), buffer.data(), buffer.size());
    require(count.has_value(), "file_read", "Cannot read the archive that the manifest names");
    if (*count == 0) {
      break;
    }
    const std::string_view piece(buffer.data(), *count);
    require(piece.size() <= archive.length - done, "content_mismatch", "The archive is not the one of its manifest");
    output.write(piece);
    state.update(piece);
    done += piece.size();
  }
  require(done == archive.length && state.value() == archive.sha256, "content_mismatch",
          "The archive is not the one of its manifest");
  output.commit();
}

}  // namespace

PublishedPackage publish_package(const PackagePublication& publication, const ProgressCallback& progress) {
  PublishedPackage published;
  published.directory = output_path(publication.output);
  require_absent(published.directory);
  const PackageInputs inputs(publication);
  published.seal = digest(inputs.documents().back().bytes, "sha256");
  std::uint64_t total = 0;
  for (const Archive& archive : inputs.archives()) {
    total += archive.length;
  }
  const std::uint64_t work = 2 * total;

  NewFolder folder(published.directory);
  std::uint64_t copied = 0;
  for (const Archive& archive : inputs.archives()) {
    about(archive.file, [&] {
      copy_archive(archive, folder.path(),
                   [&](std::uint64_t done, std::uint64_t) { return !progress || progress(copied + done, work); });
    });
    copied += archive.length;
  }
  published.length = total;
  for (const Document& document : inputs.documents()) {
    write_new_file(folder.path() / document.name, document.bytes);
    published.length += document.bytes.size();
  }
  const NativePackage package = read_native_package(
      folder.path(), published.seal,
      [&](std::uint64_t done, std::uint64_t) { return !progress || progress(std::min(total + done, work), work); });
  published.root_expires = root_expiry(package.root_json);
  folder.commit();
  return published;
}

}  // namespace ravok
