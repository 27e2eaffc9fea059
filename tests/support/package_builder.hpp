// Builds whole initial packages for tests: small and valid until a test alters a piece.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.hpp"
#include "support/signing.hpp"

namespace ravok::testing {

// The pieces of a package. What is absent is left out of its descriptor too.
struct InitialPackage {
  // A package with every piece, for the platform that the tests run on.
  InitialPackage();

  // Signs the body of the root as it is now.
  void sign_root();
  // Put another archive, whatever it holds, into the package and into the manifest that names it.
  void set_bootstrap_archive(std::string bytes);
  void set_launcher_archive(std::string bytes);

  // The descriptor of the pieces as they are.
  Json descriptor() const;
  // The content of every file but the descriptor, by name.
  std::map<std::string, std::string> files() const;
  // Make a directory with these files and this descriptor, by default that of the pieces, and return the seal.
  std::string write(const std::filesystem::path& directory) const;
  std::string write(const std::filesystem::path& directory, const Json& descriptor) const;

  TestKey key = TestKey::ed25519();
  Json root_body;
  std::string root;
  std::string origin = "https://games.example";
  std::optional<std::string> ca_bundle;
  Json bootstrap;
  std::string bootstrap_archive;
  Json launcher;
  std::string launcher_archive;
  std::optional<Json> brand;  // without its icon and its theme
  std::optional<std::string> icon;
  std::optional<Json> theme;
  std::map<std::string, std::string> theme_files;
  std::optional<Json> featured_game;
};

// Makes a good package whose two archives have together so many bytes, without a pattern. Returns its seal.
std::string write_large_package(const std::filesystem::path& directory, std::uint64_t archive_bytes);

// The name under which a manifest's archive lies in the package.
const std::string& archive_name(const Json& manifest);

// What a descriptor says of a resource of this name and this content.
Json resource_of(const std::string& name, std::string_view content);

// Writes a descriptor, whatever it holds, and returns its seal.
std::string write_descriptor(const std::filesystem::path& directory, std::string_view text);

// The icon file of a brand: a bitmap, and two PNG images of which the last is the larger.
std::string brand_icon_file();

// Bytes that begin as an icon file does and hold no image, as many as told and at least 4.
std::string icon_file(std::size_t size);

}  // namespace ravok::testing
