// The publisher's side of the artefacts: builds, keys, signatures, repositories and packages.

#include <array>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "artefacts/artefact_builds.hpp"
#include "artefacts/artefact_maker.hpp"
#include "domain/crypto.hpp"
#include "domain/signature_scheme.hpp"
#include "platform/process/native_platform.hpp"
#include "publisher/publish_files.hpp"
#include "support/bytes_of.hpp"
#include "support/certificate.hpp"
#include "support/package_builder.hpp"
#include "support/single_file.hpp"
#include "support/theme_builder.hpp"
#include "support/tuf_repository.hpp"

namespace ravok::testing {
namespace {

// Signed documents last as long as the publisher's program lets them, so that a far version can still read them.
constexpr const char* far_day = "2125-01-01T00:00:00Z";
constexpr int most_days = 36'000;
const std::string most_days_text = std::to_string(most_days);

void write_file(const std::filesystem::path& path, const std::string& bytes, bool program = false) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
  std::filesystem::permissions(path, std::filesystem::perms(program ? 0755 : 0644));
}

// A scheme as a file is called by it.
std::string file_name(std::string name) {
  for (char& character : name) {
    character = character == '/' ? '-' : character;
  }
  return name;
}

void append(std::vector<std::string>& arguments, const std::vector<std::string>& more) {
  arguments.insert(arguments.end(), more.begin(), more.end());
}

}  // namespace

std::filesystem::path ArtefactMaker::make_launcher(const std::string& build, const std::string& console) const {
  const std::filesystem::path folder = work_ / ("launcher-" + build);
  const std::filesystem::path manifest =
      folder / "out" / ("launcher-" + std::string(native_platform()) + ".manifest.json");
  if (std::filesystem::exists(manifest)) {
    return manifest;
  }
  write_file(folder / "tree/bin/ravok", console, true);
  write_file(folder / "tree/bin/ravok-gui", kept_window(build), true);
  write_file(folder / "tree/bin/ravok-maintenance", "#!/bin/sh\n", true);
  write_file(folder / "tree/data/note", kept_filling(build, 1000));
  publish({"snapshot", folder / "tree", "--kind", "launcher", "--build-id", build, "--executable", "bin/ravok",
           "--gui-executable", "bin/ravok-gui", "--helper", "maintenance=bin/ravok-maintenance", "--output",
           folder / "out"});
  return manifest;
}

std::filesystem::path ArtefactMaker::make_bootstrap(const std::string& build) const {
  const std::filesystem::path folder = work_ / build;
  const std::filesystem::path manifest =
      folder / "out" / ("bootstrap-" + std::string(native_platform()) + ".manifest.json");
  if (std::filesystem::exists(manifest)) {
    return manifest;
  }
  write_file(folder / "tree/bin/ravok-bootstrap", kept_bootstrap(build), true);
  write_file(folder / "tree/data/note", build);
  write_file(folder / ("tree/data/of-" + build), build);
  publish({"snapshot", folder / "tree", "--kind", "bootstrap", "--build-id", build, "--executable",
           "bin/ravok-bootstrap", "--output", folder / "out"});
  return manifest;
}

std::filesystem::path ArtefactMaker::make_game(const std::string& build) const {
  const std::filesystem::path folder = work_ / build;
  const std::filesystem::path manifest =
      folder / "out" / ("first-game-" + std::string(native_platform()) + "-" + build + ".manifest.json");
  if (std::filesystem::exists(manifest)) {
    return manifest;
  }
  std::string picture = bitmap(3, 2);
  put_number(picture, 34, static_cast<std::uint32_t>(picture.size() - 54));
  const Json artwork = {
      {"format", "bmp-rgb24-v1"},
      {"width", 3},
      {"height", 2},
      {"bmp_hex", hex(std::span(reinterpret_cast<const std::uint8_t*>(picture.data()), picture.size()))},
      {"alternative_text", "A picture"}};
  write_file(
      folder / "presentation.json",
      Json({{"tagline", "Play it"}, {"description", "One\nTwo"}, {"monogram", "SG"}, {"artwork", artwork}}).dump());
  write_file(folder / "notes.txt", "What is new in " + build + "\n");
  write_file(folder / "tree/bin/game", "#!/bin/sh\necho game\n", true);
  write_file(folder / "tree/data/level", kept_filling(build, 500));
  publish({"snapshot", folder / "tree", "--kind", "game", "--build-id", build, "--executable", "bin/game", "--game-id",
           "first-game", "--display-name", "The First Game", "--presentation", folder / "presentation.json",
           "--release-notes", folder / "notes.txt", "--sdk-required", "--output", folder / "out"});
  return manifest;
}

void ArtefactMaker::make_publications() const {
  // Snapshots, each with the tree that it was made of.
  const std::filesystem::path snapshots = new_artefact("snapshots");
  std::filesystem::copy(make_launcher("1.0.0", kept_launcher("1.0.0")).parent_path().parent_path(),
                        snapshots / "launcher", std::filesystem::copy_options::recursive);
  std::filesystem::copy(make_bootstrap("bootstrap-1").parent_path().parent_path(), snapshots / "bootstrap",
                        std::filesystem::copy_options::recursive);
  std::filesystem::copy(make_game("game-1").parent_path().parent_path(), snapshots / "game",
                        std::filesystem::copy_options::recursive);

  // Keys of every scheme, one of each kind of file, and a file that all of them sign.
  const std::filesystem::path keys = new_artefact("keys");
  write_file(keys / "passphrase", "correct horse battery staple\n");
  std::filesystem::permissions(keys / "passphrase", std::filesystem::perms(0600));
  write_file(keys / "product.tar.gz", kept_filling("product", 300));
  Arguments sign = {"file", "sign", keys / "product.tar.gz", "--passphrase-file", keys / "passphrase"};
  for (const SignatureScheme& scheme : signature_schemes) {
    const std::filesystem::path key = keys / file_name(std::string(scheme.name));
    publish({"key", key, "--scheme", std::string(scheme.name)});
    append(sign, {"--key", key});
  }
  publish({"key", keys / "encrypted", "--encrypt", "--passphrase-file", keys / "passphrase"});
  append(sign, {"--key", keys / "encrypted"});
  publish(sign);

  // A repository of which every role has keys of all schemes, and all of them sign.
  const std::filesystem::path schemes = new_artefact("repository-schemes");
  Arguments root = {"root", schemes / "root.json", "--expires", far_day};
  Arguments release = {"repository", "release", schemes / "repository", "--manifest", make_bootstrap("bootstrap-2")};
  for (const char* const role : {"root", "timestamp", "snapshot", "targets"}) {
    const bool all = std::string_view(role) == "root" || std::string_view(role) == "targets";
    std::size_t count = 0;
    for (const SignatureScheme& scheme : signature_schemes) {
      if (all || scheme.name == "ed25519") {
        append(root, {std::string("--") + role, keys / file_name(std::string(scheme.name))});
        ++count;
      }
    }
    append(root, {std::string("--") + role + "-threshold", std::to_string(count)});
  }
  publish(root);
  publish({"repository", "init", schemes / "repository", "--root", schemes / "root.json", "--timestamp-days",
           most_days_text, "--snapshot-days", most_days_text, "--targets-days", most_days_text});
  for (const SignatureScheme& scheme : signature_schemes) {
    append(release, {"--key", keys / file_name(std::string(scheme.name))});
  }
  publish(release);

  // One with delegations, which the publisher's program reads and does not make.
  TufRepository delegated;
  for (const char* const role : {"root", "timestamp", "snapshot", "targets"}) {
    delegated.role(role).expires = far_day;
  }
  TestRole& games = delegated.delegate("targets", {.name = "games", .paths = {"games/*"}});
  games.expires = far_day;
  games.add("games/a", "the game a");
  delegated.delegate_bins("games", "bin-", 2);
  const std::string binned = "games/binned";
  for (const char* const bin : {"bin-0", "bin-1"}) {
    delegated.role(bin).expires = far_day;
  }
  delegated.role(TufRepository::bin("bin-", 2, binned)).add(binned, "the game in a bin");
  delegated.publish();
  delegated.write(new_artefact("repository-delegated") / "repository/public/tuf");
}

void ArtefactMaker::make_repository() const {
  const std::filesystem::path place = new_artefact("repository");
  write_file(place / "passphrase", "correct horse battery staple\n");
  std::filesystem::permissions(place / "passphrase", std::filesystem::perms(0600));
  publish({"key", place / "keys/root", "--encrypt", "--passphrase-file", place / "passphrase"});
  for (const char* const role : {"targets", "snapshot", "timestamp", "timestamp-2"}) {
    publish({"key", place / "keys" / role});
  }
  publish({"root", place / "root.json", "--expires", far_day, "--root", place / "keys/root", "--timestamp",
           place / "keys/timestamp", "--snapshot", place / "keys/snapshot", "--targets", place / "keys/targets",
           "--passphrase-file", place / "passphrase"});
  publish({"repository", "init", place / "repository", "--root", place / "root.json", "--timestamp-days",
           most_days_text, "--snapshot-days", most_days_text, "--targets-days", most_days_text, "--key",
           place / "keys/targets", "--key", place / "keys/snapshot", "--key", place / "keys/timestamp"});
  release({make_launcher("1.0.0", kept_launcher("1.0.0")), make_bootstrap("bootstrap-1")});
}

void ArtefactMaker::release(const std::vector<std::filesystem::path>& manifests) const {
  const std::filesystem::path place = artefact("repository");
  // The second timestamp key replaces the first one half-way.
  const bool rotated = std::filesystem::exists(place / "repository/public/tuf/metadata/2.root.json");
  Arguments arguments = {"repository",
                         "release",
                         place / "repository",
                         "--key",
                         place / "keys/targets",
                         "--key",
                         place / "keys/snapshot",
                         "--key",
                         place / (rotated ? "keys/timestamp-2" : "keys/timestamp")};
  for (const std::filesystem::path& manifest : manifests) {
    append(arguments, {"--manifest", manifest});
  }
  publish(arguments);
}

void ArtefactMaker::make_packages() const {
  const std::filesystem::path place = artefact("repository");
  const Arguments parts = {
      "--bootstrap", make_bootstrap("bootstrap-1"), "--launcher", make_launcher("1.0.0", kept_launcher("1.0.0")),
      "--root",      place / "root.json",           "--origin",   "https://updates.example.com"};
  const auto make = [&](const std::string& name, const Arguments& more) {
    Arguments arguments = {"package", new_artefact(name) / "package"};
    append(arguments, parts);
    append(arguments, more);
    const ProgramResult made = publish(arguments);
    write_file(artefact(name) / "seal", digest(bytes_of(artefact(name) / "package/initial-package.json"), "sha256"));
  };
  const std::filesystem::path theme = work_ / "theme";
  const InitialPackage sample;
  write_file(theme / "theme.json", sample.theme->dump());
  for (const auto& [name, bytes] : sample.theme_files) {
    write_file(theme / name, bytes);
  }
  write_file(work_ / "brand.ico", brand_icon_file());
  write_file(work_ / "ca.pem", certificate(most_days));
  const Arguments brand = {"--brand-name",     "Brightwood",    "--brand-id",        "brightwood", "--brand-publisher",
                           "Brightwood Games", "--brand-icon",  work_ / "brand.ico", "--theme",    theme,
                           "--ca-bundle",      work_ / "ca.pem"};
  Arguments featured = brand;
  append(featured, {"--featured-game", "first-game=The First Game"});
  make("package-plain", {});
  make("package-branded", brand);
  make("package-featured", featured);

  // One file, with bytes that stand for the installer's program.
  const std::filesystem::path single = new_artefact("package-single-file");
  write_single_file(artefact("package-plain") / "package", single / "installer");
  std::filesystem::copy_file(artefact("package-plain") / "seal", single / "seal");
}

}  // namespace ravok::testing
