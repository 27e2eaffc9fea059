#include "support/package_builder.hpp"

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/publish_snapshot.hpp"
#include "support/icon_builder.hpp"
#include "support/snapshot_builder.hpp"
#include "support/temporary_root.hpp"
#include "support/theme_builder.hpp"

namespace ravok::testing {
namespace {

constexpr std::string_view descriptor_name = "initial-package.json";

void write_bytes(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) {
    throw std::runtime_error("Cannot write a file of a package");
  }
}

std::string read_bytes(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_program(const TemporaryRoot& root, const std::string& name) {
  const std::filesystem::path path = root.write("tree/" + name, "#!" + name);
  if (chmod(path.c_str(), 0755) != 0) {
    throw std::runtime_error("Cannot make a program of a package");
  }
}

struct Release {
  Json manifest;
  std::string archive;
};

Release publish(const TemporaryRoot& root, SnapshotPublication publication) {
  publication.tree = root / "tree";
  publication.output = root.directory("output");
  publication.build_id = "build-1";
  publication.platform = native_platform();
  publication.level = 3;
  const PublishedSnapshot published = publish_snapshot(publication, {});
  return {Json::parse(read_bytes(published.manifest)), read_bytes(published.archive)};
}

const Release& bootstrap_release() {
  static const Release release = [] {
    const TemporaryRoot root;
    write_program(root, "bin/ravok-bootstrap");
    root.write("tree/data/notes", "notes");
    SnapshotPublication publication;
    publication.kind = SnapshotKind::bootstrap;
    publication.executable = "bin/ravok-bootstrap";
    return publish(root, publication);
  }();
  return release;
}

const Release& launcher_release() {
  static const Release release = [] {
    const TemporaryRoot root;
    write_program(root, "bin/launcher");
    write_program(root, "bin/window");
    SnapshotPublication publication;
    publication.kind = SnapshotKind::launcher;
    publication.executable = "bin/launcher";
    publication.gui_executable = "bin/window";
    return publish(root, publication);
  }();
  return release;
}

void set_archive(Json& manifest, std::string& archive, std::string bytes) {
  archive = std::move(bytes);
  manifest["archive"]["length"] = archive.size();
  manifest["archive"]["sha256"] = digest(archive, "sha256");
}

// A theme with one font and one image.
Json theme_of(const std::string& font, const std::string& icon) {
  Json definition = theme_definition();
  definition["fonts"] = {{"regular", font}};
  definition["images"] = {{"icon", {{"file", icon}, {"pixel_art", true}}}};
  return definition;
}

}  // namespace

InitialPackage::InitialPackage()
    : root_body(root_document({&key}, 1, "2999-12-31T23:59:59Z")),
      ca_bundle("-----BEGIN CERTIFICATE-----\n"),
      bootstrap(bootstrap_release().manifest),
      bootstrap_archive(bootstrap_release().archive),
      launcher(launcher_release().manifest),
      launcher_archive(launcher_release().archive),
      brand({{"name", "Acme Games"}, {"id", "acme"}, {"publisher", "Acme"}}),
      icon(brand_icon_file()),
      theme(theme_of("plain.ttf", "badge.bmp")),
      theme_files({{"plain.ttf", font_file()}, {"badge.bmp", bitmap(3, 2)}}),
      featured_game({{"id", "first-game"}, {"name", "The First Game"}}) {
  sign_root();
}

void InitialPackage::sign_root() { root = signed_document(root_body, {&key}); }

void InitialPackage::set_bootstrap_archive(std::string bytes) {
  set_archive(bootstrap, bootstrap_archive, std::move(bytes));
}

void InitialPackage::set_launcher_archive(std::string bytes) {
  set_archive(launcher, launcher_archive, std::move(bytes));
}

Json InitialPackage::descriptor() const {
  Json document = {{"schema_version", 1},
                   {"kind", "ravok-initial-package"},
                   {"platform", native_platform()},
                   {"origin", origin},
                   {"root", resource_of("root.json", root)},
                   {"ca_bundle", ca_bundle ? resource_of("ca.pem", *ca_bundle) : Json()},
                   {"bootstrap_manifest", resource_of("bootstrap.json", bootstrap.dump())},
                   {"launcher_manifest", resource_of("launcher.json", launcher.dump())}};
  if (brand) {
    document["brand"] = *brand;
    document["brand"]["icon"] = icon ? resource_of("brand.ico", *icon) : Json();
    if (theme) {
      Json files = Json::object();
      for (const auto& [name, content] : theme_files) {
        files[name] = resource_of("theme-" + name, content);
      }
      document["brand"]["theme"] = {{"definition", resource_of("theme.json", theme->dump())}, {"files", files}};
    }
  }
  if (featured_game) {
    document["featured_game"] = *featured_game;
  }
  return document;
}

std::map<std::string, std::string> InitialPackage::files() const {
  std::map<std::string, std::string> files = {{"root.json", root},
                                              {"bootstrap.json", bootstrap.dump()},
                                              {"launcher.json", launcher.dump()},
                                              {archive_name(bootstrap), bootstrap_archive},
                                              {archive_name(launcher), launcher_archive}};
  if (ca_bundle) {
    files["ca.pem"] = *ca_bundle;
  }
  if (brand && icon) {
    files["brand.ico"] = *icon;
  }
  if (brand && theme) {
    files["theme.json"] = theme->dump();
    for (const auto& [name, content] : theme_files) {
      files["theme-" + name] = content;
    }
  }
  return files;
}

std::string InitialPackage::write(const std::filesystem::path& directory) const {
  return write(directory, descriptor());
}

std::string InitialPackage::write(const std::filesystem::path& directory, const Json& descriptor) const {
  std::filesystem::create_directories(directory);
  for (const auto& [name, content] : files()) {
    write_bytes(directory / name, content);
  }
  return write_descriptor(directory, descriptor.dump());
}

std::string write_large_package(const std::filesystem::path& directory, std::uint64_t archive_bytes) {
  InitialPackage package;
  package.set_bootstrap_archive(noise(archive_bytes / 2, 1));
  package.set_launcher_archive(noise(archive_bytes - archive_bytes / 2, 2));
  return package.write(directory);
}

const std::string& archive_name(const Json& manifest) { return text_at(manifest.at("archive"), "target"); }

Json resource_of(const std::string& name, std::string_view content) {
  return {{"path", name}, {"length", content.size()}, {"sha256", digest(content, "sha256")}};
}

std::string write_descriptor(const std::filesystem::path& directory, std::string_view text) {
  write_bytes(directory / descriptor_name, text);
  return digest(text, "sha256");
}

std::string brand_icon_file() { return icon_of({icon_bitmap(), png_image(16, 16), png_image(32, 32)}); }

std::string icon_file(std::size_t size) {
  std::string bytes("\0\0\1\0", 4);
  bytes.resize(size, 'i');
  return bytes;
}

}  // namespace ravok::testing
