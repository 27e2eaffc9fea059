// The input takes the place of the launcher store's document. Every operation that reads it succeeds or refuses in
// words; a document that is loaded keeps every rule, which a second, naive check confirms; and the file stays as it is.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "app/launcher/launcher_store.hpp"
#include "domain/error.hpp"
#include "memory_volume.hpp"
#include "property.hpp"
#include "support/temporary_root.hpp"

namespace {

using ravok::Json;
using ravok::LauncherStore;
using ravok::fuzz::must_hold;

bool is_hexadecimal(const Json& value, std::size_t characters) {
  return value.is_string() && value.get<std::string>().size() == characters &&
         value.get<std::string>().find_first_not_of("0123456789abcdef") == std::string::npos;
}

bool is_reference(const Json& value) {
  return value.is_null() || (is_hexadecimal(value.at("manifest_sha256"), 64) && value.at("build_id").is_string());
}

void check(const Json& document) {
  must_hold(document.at("schema_version") == 1 && document.at("format") == "ravok-launcher-store-v1",
            "the document is of the one known form");
  must_hold(document.at("generation").is_number_integer() && document.at("generation") != 0,
            "a saved document has a generation");
  for (const char* key : {"active", "rollback", "candidate"}) {
    must_hold(is_reference(document.at(key)), "a version is named by its digest");
  }
  const Json& attempt = document.at("attempt");
  if (!attempt.is_null()) {
    must_hold(is_hexadecimal(attempt.at("nonce"), 32), "an attempt has an identity");
    must_hold(!attempt.at("reference").is_null() && is_reference(attempt.at("reference")),
              "an attempt is of a version");
    must_hold(document.at("candidate").is_null(), "a version is a candidate or attempted");
  }
  must_hold(document.at("failed_candidate").is_null() || is_reference(document.at("failed_candidate").at("reference")),
            "what failed is named by its digest");
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

void use_reference(const LauncherStore& store, const Json& reference) {
  succeeds([&] {
    const std::filesystem::path folder = store.payload(reference);
    must_hold(folder.parent_path() == store.store() / "versions", "a version lies among the versions");
  });
  must_hold(!succeeds([&] { store.manifest(reference); }), "no manifest is stored");
}

void read_all(const LauncherStore& store) {
  Json document;
  const bool loaded = succeeds([&] { document = store.load(); });
  succeeds([&] {
    Json status = store.status();
    must_hold(loaded && status.at("installed") == !document.at("active").is_null(),
              "the status is that of the document");
  });
  succeeds([&] { must_hold(store.selection() == document, "the selection is the document, or null"); });
  must_hold(!succeeds([&] { store.fallback_active(); }), "no version is there");
  must_hold(succeeds([&] { LauncherStore::existing(store.root()); }) == loaded, "a store opens with its document");
  if (loaded) {
    check(document);
    for (const Json& value : document) {
      use_reference(store, value);
    }
  }
}

std::string content_of(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A document that is loaded can be saved again, as the next generation, unless its generation is the last.
void save_again(const LauncherStore& store) {
  Json document;
  if (!succeeds([&] { document = store.load(); })) {
    return;
  }
  if (succeeds([&] { store.save(document); })) {
    document["generation"] = document.at("generation").get<std::uint64_t>() + 1;
    must_hold(store.load() == document, "what is saved is loaded");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const ravok::testing::TemporaryRoot root(ravok::fuzz::memory_volume());
  static const LauncherStore store(root.path());
  const std::filesystem::path path = store.store() / "installation.json";
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  read_all(store);
  must_hold(content_of(path) == text, "the document stays as it is");
  save_again(store);
  std::filesystem::remove(path);
  return 0;
}
