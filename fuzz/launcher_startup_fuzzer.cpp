// The input is what a started launcher has left: its acknowledgement or its health document. A version becomes active
// on exactly the documents of its attempt, which a second, naive check confirms; on any other the store refuses in
// words and its document stays as it is. "$sha256" in the input stands for the version's digest.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <string_view>

#include "app/launcher/launcher_startup.hpp"
#include "app/launcher/launcher_store.hpp"
#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "memory_volume.hpp"
#include "property.hpp"
#include "support/launcher_builder.hpp"
#include "support/manifest_builder.hpp"
#include "support/temporary_root.hpp"

namespace {

using ravok::Json;
using ravok::LauncherStore;
using ravok::fuzz::must_hold;

constexpr std::uint64_t pid = 4711;
constexpr std::string_view nonce = "0123456789abcdef0123456789abcdef";
constexpr std::size_t limit = 4096;

std::string content_of(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A store with one version, of which an attempt is under way.
class Place {
 public:
  Place() : root_(ravok::fuzz::memory_volume()), store(root_.path()) {
    const std::string program = "#!program";
    const std::string window = "#!window";
    Json document = ravok::testing::as_launcher(
        ravok::testing::manifest_document({{"bin/window", window.size(), 0755, ravok::digest(window, "sha256")}}));
    document["platform"] = ravok::native_platform();
    document["files"][0]["length"] = program.size();
    document["files"][0]["sha256"] = ravok::digest(program, "sha256");
    document["archive"]["expanded_length"] = program.size() + window.size();
    const std::string text = document.dump();
    sha256 = ravok::digest(text, "sha256");
    root_.write("launcher/manifests/" + sha256 + ".json", text);
    for (const auto& [name, content] : std::map<std::string, std::string>{{"program", program}, {"window", window}}) {
      const auto path = root_.write("launcher/versions/" + sha256 + "/bin/" + name, content);
      std::filesystem::permissions(path, std::filesystem::perms{0755});
    }
    attempt = {{"nonce", nonce}, {"reference", {{"manifest_sha256", sha256}, {"build_id", "build-1"}}}};
    Json state = store.load();
    state["attempt"] = attempt;
    store.save(state);
    state_text = content_of(state_path());
  }

  std::filesystem::path state_path() const { return store.store() / "installation.json"; }
  void begin_again() const { std::ofstream(state_path(), std::ios::binary) << state_text; }

 private:
  const ravok::testing::TemporaryRoot root_;

 public:
  const LauncherStore store;
  std::string sha256;
  Json attempt;
  std::string state_text;
};

std::string with_digest(std::string text, const std::string& sha256) {
  constexpr std::string_view mark = "$sha256";
  for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + sha256.size())) {
    text.replace(at, mark.size(), sha256);
  }
  return text;
}

// Whether the value is an object of exactly these members. Types count.
bool is_exactly(const Json& value, const std::map<std::string, Json>& members) {
  if (!value.is_object() || value.size() != members.size()) {
    return false;
  }
  for (const auto& [key, member] : members) {
    if (!value.contains(key) || value.at(key).is_number_integer() != member.is_number_integer() ||
        value.at(key).dump() != member.dump()) {
      return false;
    }
  }
  return true;
}

std::map<std::string, Json> common(const Place& place) {
  return {{"schema_version", 1}, {"nonce", nonce},     {"manifest_sha256", place.sha256}, {"build_id", "build-1"},
          {"pid", pid},          {"interface", "cli"}, {"application_schema", 1}};
}

std::map<std::string, Json> with(std::map<std::string, Json> members, const std::map<std::string, Json>& more) {
  members.insert(more.begin(), more.end());
  return members;
}

bool is_lease_document(const Place& place, const Json& value) {
  return is_exactly(value, with(common(place), {{"state", "leased"}, {"runtime_lease_abi", 2}}));
}

bool is_health_document(const Place& place, const Json& value) {
  return is_exactly(value, with(common(place), {{"state", "ready"}, {"health_abi", 1}, {"console_interrupt_abi", 1}}));
}

// A refusal is fine. Every other exception is a defect and ends the run.
template <typename Work>
bool succeeds(Work work) {
  try {
    work();
  } catch (const ravok::Error& refusal) {
    must_hold(!refusal.code.empty() && refusal.what()[0] != '\0', "a refusal has a code and words");
    return false;
  }
  return true;
}

void confirm(const Place& place, const std::string& acknowledgement, const Json& health, bool expected) {
  std::ofstream(place.store.startup_ack_path(place.attempt), std::ios::binary) << acknowledgement;
  const bool confirmed = succeeds([&] { place.store.confirm_candidate(place.attempt, health, pid, "cli"); });
  must_hold(confirmed == expected, "a version is confirmed on exactly its own documents");
  if (confirmed) {
    must_hold(place.store.load().at("active") == place.attempt.at("reference"), "a confirmed version is active");
    place.begin_again();
  }
  must_hold(content_of(place.state_path()) == place.state_text, "a refused version changes nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Place place;
  static const ravok::LauncherManifest manifest = place.store.manifest(place.attempt.at("reference"));
  static const Json right_health = manifest.startup_health(place.attempt, pid, "cli", true);
  static const std::string right_lease = ravok::lease_document(manifest, place.attempt, pid, "cli").dump();
  static const bool both_are_right =
      is_lease_document(place, ravok::parse_json(right_lease, limit)) && is_health_document(place, right_health);
  must_hold(both_are_right, "a launcher's own documents are as the second check wants them");
  const std::string text = with_digest(std::string(reinterpret_cast<const char*>(data), size), place.sha256);

  Json value;
  const bool is_json = succeeds([&] { value = ravok::parse_json(text, limit); });
  const bool is_lease = is_json && is_lease_document(place, value);
  const bool is_health = is_json && is_health_document(place, value);
  confirm(place, text, right_health, is_lease);
  if (is_json) {
    confirm(place, right_lease, value, is_health);
  }
  return 0;
}
