#include "app/launcher/launcher_store.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "domain/crypto.hpp"
#include "platform/file/files.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/file/status.hpp"
#include "platform/snapshot/complete_install.hpp"
#include "support/clock_calls.hpp"
#include "support/companion.hpp"
#include "support/failure.hpp"
#include "support/launcher_builder.hpp"
#include "support/mounted_volume.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"

namespace ravok::launcher_store_test {
namespace {

using testing::failure_of;
using testing::SampleLauncher;
using testing::TemporaryRoot;

using Names = std::vector<std::string>;

constexpr const char* malformed = "Launcher installation record is malformed; it was preserved";
constexpr const char* unknown = "Unknown launcher state was preserved";
constexpr const char* bad_hash = "Launcher manifest identity is invalid";
constexpr const char* bad_nonce = "Launcher startup identity is invalid";
constexpr const char* contradictory = "Launcher candidate/startup state is contradictory";
constexpr const char* differs = "Launcher identity/platform differs from its local reference";
constexpr const char* nothing_to_start = "No installed Ravok version could be started";
constexpr const char* in_use = "Initial launcher seeding requires a new owned profile";
constexpr const char* beyond_limit = "File exceeds read limit";

constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();

const Names store_names = {
    "launcher/",           "launcher/download-intents/", "launcher/downloads/",       "launcher/health/",
    "launcher/intents/",   "launcher/leases/",           "launcher/leases/attempts/", "launcher/leases/versions/",
    "launcher/manifests/", "launcher/staging/",          "launcher/versions/"};

std::string sha(char digit) { return std::string(64, digit); }

Json reference(char digit = 'a') { return {{"manifest_sha256", sha(digit)}, {"build_id", "build-1"}}; }

std::string sha_of(const Json& reference) { return text_at(reference, "manifest_sha256"); }

Json attempt() { return {{"nonce", std::string(32, '0')}, {"reference", reference('d')}}; }

Json fresh() {
  return {{"schema_version", 1}, {"format", "ravok-launcher-store-v1"},
          {"generation", 0},     {"active", nullptr},
          {"rollback", nullptr}, {"candidate", nullptr},
          {"attempt", nullptr},  {"failed_candidate", nullptr}};
}

// A document that names a version in every place that it can have at once.
Json full() {
  Json document = fresh();
  document["generation"] = 7;
  document["active"] = reference('a');
  document["rollback"] = reference('b');
  document["attempt"] = attempt();
  document["failed_candidate"] = {{"reference", reference('e')}, {"problem", "startup_interrupted"}};
  return document;
}

Json with(const std::string& pointer, const Json& value) {
  Json document = full();
  document[Json::json_pointer(pointer)] = value;
  return document;
}

Json without(const std::string& object, const std::string& key) {
  Json document = full();
  document[Json::json_pointer(object)].erase(key);
  return document;
}

// A document that a store refuses, with the code and the message.
struct Refusal {
  std::string text;
  std::string code;
  std::string message;
};

std::vector<Refusal> malformed_documents() {
  std::vector<Json> documents = {Json::array(), Json("text"), Json(nullptr), Json(1), Json::object(), Json({1})};
  for (const char* key :
       {"schema_version", "format", "generation", "active", "rollback", "candidate", "attempt", "failed_candidate"}) {
    documents.push_back(without("", key));
  }
  for (const char* place : {"/active", "/rollback", "/attempt/reference", "/failed_candidate/reference"}) {
    for (const char* key : {"manifest_sha256", "build_id"}) {
      documents.push_back(without(place, key));
      for (const Json& value : {Json(nullptr), Json(1), Json::object(), Json({"x"})}) {
        documents.push_back(with(std::string(place) + "/" + key, value));
      }
    }
  }
  for (const char* place : {"/active", "/rollback", "/candidate", "/attempt", "/attempt/reference", "/failed_candidate",
                            "/failed_candidate/reference"}) {
    for (const Json& value : {Json(1), Json("x"), Json(true), Json::array(), Json::object()}) {
      documents.push_back(with(place, value));
    }
  }
  documents.push_back(without("/attempt", "nonce"));
  documents.push_back(without("/attempt", "reference"));
  documents.push_back(without("/failed_candidate", "reference"));
  documents.push_back(with("/attempt/nonce", 1));
  std::vector<Refusal> refusals;
  for (const Json& document : documents) {
    refusals.push_back({document.dump(), "launcher_state", malformed});
  }
  return refusals;
}

std::vector<Refusal> contradictory_documents() {
  std::vector<Refusal> refusals;
  const auto add = [&](const Json& document, const char* message) {
    refusals.push_back({document.dump(), "launcher_state", message});
  };
  for (const char* place : {"/active", "/rollback", "/attempt/reference", "/failed_candidate/reference"}) {
    for (const std::string& text : {std::string(), std::string(63, 'a'), std::string(65, 'a'), std::string(64, 'A'),
                                    std::string(64, 'g'), std::string(63, 'a') + "/", std::string("../") + sha('a')}) {
      add(with(std::string(place) + "/manifest_sha256", text), bad_hash);
    }
  }
  for (const std::string& text : {std::string(), std::string(31, 'a'), std::string(33, 'a'), std::string(32, 'A'),
                                  std::string(32, 'g'), std::string(64, 'a')}) {
    add(with("/attempt/nonce", text), bad_nonce);
  }
  add(with("/attempt/reference", nullptr), contradictory);
  add(with("/candidate", reference('c')), contradictory);
  return refusals;
}

std::vector<Refusal> unknown_documents() {
  std::vector<Refusal> refusals;
  for (const Json& version : {Json(2), Json(0), Json(-1), Json("1"), Json(nullptr), Json(largest)}) {
    refusals.push_back({with("/schema_version", version).dump(), "unsupported_schema", unknown});
  }
  for (const Json& format : {Json("ravok-launcher-store-v2"), Json(""), Json(1), Json(nullptr)}) {
    refusals.push_back({with("/format", format).dump(), "unsupported_schema", unknown});
  }
  refusals.push_back(
      {R"({"schema_version":2,"format":"ravok-launcher-store-v2","all":["other"]})", "unsupported_schema", unknown});
  return refusals;
}

std::vector<Refusal> documents_of_bad_generation() {
  std::vector<Refusal> refusals = {
      {with("/generation", 0).dump(), "invalid_version", "Metadata version must be positive"}};
  for (const Json& generation : {Json(-1), Json("1"), Json(nullptr), Json(true), Json::array()}) {
    refusals.push_back(
        {with("/generation", generation).dump(), "invalid_version", "Metadata version must be a positive integer"});
  }
  return refusals;
}

// Documents that the parser refuses with messages of its own.
std::vector<Refusal> documents_that_are_no_json() {
  const std::string text = full().dump();
  std::vector<Refusal> refusals;
  for (const std::string& damaged :
       {std::string(), std::string("{"), text.substr(0, text.size() / 2), text.substr(0, text.size() - 1), text + "x",
        text + text, std::string("\xff\xfe"), std::string(512, '\0'), std::string("{\"a\":1,\"a\":1}"),
        std::string(100, '[') + std::string(100, ']'), std::string("{\"schema_version\":1.0}"),
        "\xef\xbb\xbf" + text}) {
    // The parser may skip a byte order mark; it refuses all others.
    if (const auto failure = failure_of([&] { parse_json(damaged, 32'768); })) {
      refusals.push_back({damaged, failure->code, failure->what()});
    }
  }
  return refusals;
}

std::vector<Refusal> too_large_documents() {
  const std::string text = full().dump();
  return {{text + std::string(32'769 - text.size(), ' '), "size_limit", beyond_limit},
          {std::string(1 << 20, ' '), "size_limit", beyond_limit}};
}

std::vector<Refusal> all_refusals() {
  std::vector<Refusal> all;
  for (const auto& some : {malformed_documents(), contradictory_documents(), unknown_documents(),
                           documents_of_bad_generation(), documents_that_are_no_json(), too_large_documents()}) {
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

// What must not change in a file that is preserved.
struct Preserved {
  ino_t inode;
  mode_t mode;
  std::string content;

  bool operator==(const Preserved&) const = default;
};

class LauncherStores : public ::testing::Test {
 protected:
  std::unique_ptr<LauncherStore> open() const { return std::make_unique<LauncherStore>(root_.path()); }

  std::filesystem::path document_path() const { return root_ / "launcher/installation.json"; }
  void write_document(const std::string& text) const {
    root_.write("launcher/installation.json", text);
    EXPECT_EQ(chmod(document_path().c_str(), 0600), 0);
  }
  std::string document_text() const { return root_.read("launcher/installation.json"); }

  Preserved preserved() const {
    const auto status = link_status_of(document_path());
    EXPECT_TRUE(status);
    return {status->inode, status->permissions, document_text()};
  }

  // Puts a version with this manifest into the store, so many seconds after a fixed time.
  Json store_version(const std::string& text, int seconds = 0) const {
    const std::string name = digest(text, "sha256");
    root_.write("launcher/manifests/" + name + ".json", text);
    make_version(name, seconds);
    const Json document = Json::parse(text, nullptr, false);
    return {{"manifest_sha256", name}, {"build_id", document.is_object() ? document.value("build_id", Json("")) : ""}};
  }
  void make_version(const std::string& name, int seconds = 0) const {
    const auto folder = root_.directory("launcher/versions/" + name);
    std::filesystem::last_write_time(folder, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1000) +
                                                 std::chrono::seconds(seconds));
  }
  Json store_build(const std::string& build_id, int seconds = 0) const {
    return store_version(SampleLauncher(root_, build_id).text(), seconds);
  }

  TemporaryRoot root_;
};

mode_t mode_of(const std::filesystem::path& path) {
  const auto status = link_status_of(path);
  return status ? status->permissions : 0;
}

TEST_F(LauncherStores, OpenWithAllTheirDirectoriesPrivateAndNoDocument) {
  const auto store = open();
  EXPECT_EQ(root_.names(), store_names);
  for (const std::string& name : store_names) {
    EXPECT_EQ(mode_of(root_ / name), 0700u) << name;
  }
  EXPECT_EQ(store->root(), root_.path());
  EXPECT_EQ(store->store(), root_ / "launcher");
}

TEST_F(LauncherStores, OpenAgain) {
  open()->save(fresh());
  chmod((root_ / "launcher/health").c_str(), 0755);
  EXPECT_EQ(open()->load().at("generation"), 1);
  EXPECT_EQ(mode_of(root_ / "launcher/health"), 0700u);
}

TEST_F(LauncherStores, KnowTheirRootByOneForm) {
  const TemporaryRoot other;
  std::filesystem::create_symlink(root_.path(), other / "link");
  root_.directory("a");
  for (const std::filesystem::path& path :
       {root_.path() / "", root_ / "a/..", root_ / "./", other / "link", other / "link/", other / "link/a/../.",
        std::filesystem::path("/") / root_.path().lexically_relative(std::filesystem::current_path().root_path()),
        root_.path().lexically_relative(std::filesystem::current_path())}) {
    EXPECT_EQ(LauncherStore::for_launch(path)->root(), root_.path()) << path;
  }
  EXPECT_EQ(LauncherStore::for_launch(root_ / "missing/../other/")->root(), root_ / "other");
}

TEST_F(LauncherStores, HaveNoRootOfAFileSystemAndNoUnsafeName) {
  EXPECT_FAILURE(LauncherStore::for_launch("/"), "unsafe_path", "Path must be a safe relative path");
  EXPECT_FAILURE(LauncherStore::for_launch(root_ / "a:b"), "unsafe_path", "Path contains an unsafe component");
}

TEST_F(LauncherStores, DoNotOpenInAnUnfinishedInstallation) {
  root_.write(".ravok-setup-incomplete", "");
  const std::string message =
      "Ravok setup did not finish in " + root_.path().string() + ". Run the Ravok installer again to repair it.";
  EXPECT_FAILURE(LauncherStore(root_.path()), "native_install_incomplete", message);
  EXPECT_FAILURE(LauncherStore(root_.path(), false), "native_install_incomplete", message);
  EXPECT_FAILURE(LauncherStore::existing(root_.path()), "native_install_incomplete", message);
  EXPECT_FAILURE(LauncherStore::for_launch(root_.path()), "native_install_incomplete", message);
  EXPECT_EQ(root_.names(), Names{".ravok-setup-incomplete"});
  EXPECT_EQ(LauncherStore(root_.path(), true).load(), fresh());
  EXPECT_TRUE(std::filesystem::is_directory(root_ / "launcher/versions"));
}

TEST_F(LauncherStores, DoNotOpenThroughALink) {
  const TemporaryRoot other;
  std::filesystem::create_symlink(other.path(), root_ / "launcher");
  ASSERT_EQ(chmod(root_.path().c_str(), 0777), 0);
  EXPECT_EQ(failure_of([&] { open(); }).value().code, "unsafe_path");
  EXPECT_FAILURE(LauncherStore::existing(root_.path()), "unsafe_path", "Cannot inspect prepared directory identity");
  EXPECT_TRUE(other.names().empty());
}

TEST_F(LauncherStores, ThatMustBeThereAreNotMade) {
  EXPECT_FAILURE(LauncherStore::existing(root_.path()), "unsafe_path", "Cannot inspect prepared directory identity");
  EXPECT_TRUE(root_.names().empty());
  for (const char* name : {"manifests", "downloads", "download-intents", "intents"}) {
    open();
    std::filesystem::remove(root_ / "launcher" / name);
    const Names before = root_.names();
    EXPECT_FAILURE(LauncherStore::existing(root_.path()), "unsafe_path", "Cannot inspect prepared directory identity");
    EXPECT_EQ(root_.names(), before);
  }
  open();
  for (const char* name : {"versions", "staging", "health", "leases/versions", "leases/attempts"}) {
    std::filesystem::remove(root_ / "launcher" / name);
  }
  const Names before = root_.names();
  EXPECT_EQ(LauncherStore::existing(root_.path())->load(), fresh());
  EXPECT_EQ(root_.names(), before);
}

TEST_F(LauncherStores, ForALaunchLookAtNothing) {
  EXPECT_EQ(LauncherStore::for_launch(root_.path())->store(), root_ / "launcher");
  EXPECT_TRUE(root_.names().empty());
  write_document("damaged");
  EXPECT_NO_THROW(LauncherStore::for_launch(root_.path()));
}

TEST_F(LauncherStores, LoadAFreshDocumentUntilTheFirstIsSaved) {
  const auto store = open();
  EXPECT_EQ(store->load(), fresh());
  EXPECT_EQ(store->selection(), fresh());
  EXPECT_FALSE(std::filesystem::exists(document_path()));
  store->save(store->load());
  Json expected = fresh();
  expected["generation"] = 1;
  EXPECT_EQ(store->load(), expected);
}

TEST_F(LauncherStores, SaveCompactlyWithTheNextGeneration) {
  const auto store = open();
  store->save(full());
  const Json expected = with("/generation", 8);
  EXPECT_EQ(document_text(), expected.dump());
  EXPECT_EQ(mode_of(document_path()), 0600u);
  EXPECT_EQ(store->load(), expected);
  Names names = store_names;
  names.push_back("launcher/installation.json");
  std::sort(names.begin(), names.end());
  EXPECT_EQ(root_.names(), names);
}

TEST_F(LauncherStores, LoadEveryStateThatThereCanBe) {
  const auto store = open();
  Json candidate = with("/candidate", reference('c'));
  candidate["attempt"] = nullptr;
  for (const Json& document :
       {full(), candidate, with("/failed_candidate/reference", nullptr), without("/failed_candidate", "problem"),
        with("/failed_candidate/problem", 5), with("/generation", 1), with("/generation", largest),
        with("/later", {{"more", true}}), with("/active/build_id", "")}) {
    write_document(document.dump());
    EXPECT_EQ(store->load(), document);
    EXPECT_EQ(store->selection(), document);
  }
}

TEST_F(LauncherStores, LoadADocumentOfTheGreatestSize) {
  const std::string text = full().dump();
  write_document(text + std::string(32'768 - text.size(), ' '));
  EXPECT_EQ(LauncherStore::for_launch(root_.path())->load(), full());
}

TEST_F(LauncherStores, HaveAStatusThatTellsWhetherAVersionIsActive) {
  const auto store = open();
  Json expected = fresh();
  expected["installed"] = false;
  EXPECT_EQ(store->status(), expected);
  store->save(full());
  const std::string text = document_text();
  expected = with("/generation", 8);
  expected["installed"] = true;
  EXPECT_EQ(store->status(), expected);
  EXPECT_EQ(document_text(), text);
}

TEST_F(LauncherStores, EndAtTheLastGeneration) {
  const auto store = open();
  Json document = with("/generation", largest - 1);
  store->save(document);
  const std::string text = document_text();
  document = store->load();
  EXPECT_EQ(document.at("generation"), largest);
  document["active"] = nullptr;
  EXPECT_FAILURE(store->save(document), "launcher_state", "Launcher state generation is exhausted");
  EXPECT_EQ(document_text(), text);
}

TEST_F(LauncherStores, SaveNoDocumentThatCouldNotBeLoadedAgain) {
  const auto store = open();
  store->save(full());
  const std::string text = document_text();
  Json document = store->load();
  document["later"] = "";
  document["later"] = std::string(32'768 - document.dump().size(), 'x');
  Json larger = document;
  larger["later"] = larger.at("later").get<std::string>() + "x";
  EXPECT_FAILURE(store->save(larger), "launcher_state", "Launcher state exceeds its durable bound");
  EXPECT_EQ(document_text(), text);
  store->save(document);
  EXPECT_EQ(document_text().size(), 32'768u);
  EXPECT_EQ(store->load().at("generation"), 9);
}

TEST_F(LauncherStores, MeasureADocumentWithItsNextGeneration) {
  const auto store = open();
  Json document = with("/generation", 9);
  document["later"] = "";
  document["later"] = std::string(32'768 - document.dump().size(), 'x');
  EXPECT_FAILURE(store->save(document), "launcher_state", "Launcher state exceeds its durable bound");
  EXPECT_FALSE(std::filesystem::exists(document_path()));
}

TEST_F(LauncherStores, DoNotSaveThroughALink) {
  const auto store = open();
  root_.write("elsewhere", "content");
  std::filesystem::create_symlink(root_ / "elsewhere", document_path());
  EXPECT_FAILURE(store->save(full()), "unsafe_path", "Refusing to replace a symbolic link");
  EXPECT_EQ(root_.read("elsewhere"), "content");
  EXPECT_TRUE(std::filesystem::is_symlink(document_path()));
}

// Every operation, on a document that is refused with this code and message: each fails in the same way, or does not
// look at the document.
class RefusedDocuments : public LauncherStores {
 protected:
  void expect_preserved_by_all(const std::string& code, const std::string& message, const Json& version,
                               const std::function<void()>& expect_unchanged) const {
    const auto store = LauncherStore::for_launch(root_.path());
    const auto refused = [&](const std::function<void()>& work) {
      EXPECT_FAILURE(work(), code, message);
      expect_unchanged();
    };
    refused([&] { open(); });
    refused([&] { LauncherStore(root_.path(), true); });
    refused([&] { LauncherStore::existing(root_.path()); });
    refused([&] { store->load(); });
    refused([&] { store->status(); });
    refused([&] {
      Json document = store->load();
      document["candidate"] = nullptr;
      store->save(document);
    });
    refused([&] { store->seed_initial(SampleLauncher(root_).text(), root_ / "archive", {}); });
    if (code == "launcher_state" || code == "unsupported_schema" || code == "invalid_json") {
      EXPECT_EQ(store->selection(), Json(nullptr));
      expect_unchanged();
    } else {
      refused([&] { store->selection(); });
    }
    EXPECT_FAILURE(store->save(with("/generation", largest)), "launcher_state",
                   "Launcher state generation is exhausted");
    expect_unchanged();
    EXPECT_FAILURE(store->save(with("/later", std::string(32'768, 'x'))), "launcher_state",
                   "Launcher state exceeds its durable bound");
    expect_unchanged();
    EXPECT_EQ(store->fallback_active(), version);
    EXPECT_EQ(store->manifest(version).build_id, "build-1");
    EXPECT_EQ(store->payload(version), store->store() / "versions" / sha_of(version));
    expect_unchanged();
  }
};

TEST_F(RefusedDocuments, ArePreservedByEveryOperation) {
  open();
  const Json version = store_build("build-1");
  const std::vector<Refusal> refusals = all_refusals();
  EXPECT_GT(refusals.size(), 100u);
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.text.substr(0, 500));
    write_document(refusal.text);
    const Preserved before = preserved();
    expect_preserved_by_all(refusal.code, refusal.message, version, [&] { EXPECT_TRUE(preserved() == before); });
    if (HasFailure()) {
      return;
    }
  }
}

TEST_F(RefusedDocuments, OfAnotherKindThanAFileArePreserved) {
  open();
  const Json version = store_build("build-1");
  const std::string path = document_path();
  const auto expect_kept = [&](const std::string& message) {
    const Status before = *link_status_of(path);
    expect_preserved_by_all("unsafe_path", message + path, version, [&] {
      const auto now = link_status_of(path);
      ASSERT_TRUE(now);
      EXPECT_TRUE(same_file(*now, before));
      EXPECT_EQ(now->permissions, before.permissions);
    });
    std::filesystem::remove(path);
  };
  std::filesystem::create_symlink("nowhere", path);
  expect_kept("Cannot open file: ");
  root_.write("elsewhere", full().dump());
  std::filesystem::create_symlink(root_ / "elsewhere", path);
  expect_kept("Cannot open file: ");
  EXPECT_EQ(root_.read("elsewhere"), full().dump());
  std::filesystem::create_directory(path);
  expect_kept("Expected an ordinary file: ");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  expect_kept("Expected an ordinary file: ");
}

TEST_F(RefusedDocuments, ThatCannotBeReadArePreserved) {
  open();
  const Json version = store_build("build-1");
  SampleLauncher sample(root_);
  write_document(full().dump());
  ASSERT_EQ(chmod(document_path().c_str(), 0), 0);
  {
    const testing::OrdinaryUser user(root_);
    const Status before = *link_status_of(document_path());
    expect_preserved_by_all("file_read", "Cannot open file: " + document_path().string(), version, [&] {
      const auto now = link_status_of(document_path());
      ASSERT_TRUE(now);
      EXPECT_TRUE(same_file(*now, before));
      EXPECT_EQ(now->permissions, before.permissions);
    });
  }
  ASSERT_EQ(chmod(document_path().c_str(), 0600), 0);
  EXPECT_EQ(document_text(), full().dump());
}

TEST_F(LauncherStores, LoadADocumentOfAnyModeAndKeepIt) {
  const auto store = open();
  write_document(full().dump());
  ASSERT_EQ(chmod(document_path().c_str(), 0644), 0);
  const Preserved before = preserved();
  EXPECT_EQ(store->load(), full());
  EXPECT_EQ(store->selection(), full());
  EXPECT_TRUE(store->status().at("installed"));
  EXPECT_TRUE(preserved() == before);
  store->save(full());
  EXPECT_EQ(mode_of(document_path()), 0600u);
}

using StoredManifests = LauncherStores;

TEST_F(StoredManifests, AreFoundByTheirReference) {
  const auto store = open();
  const Json stored = store_build("build-2");
  const LauncherManifest manifest = store->manifest(stored);
  EXPECT_EQ(manifest.build_id, "build-2");
  EXPECT_EQ(manifest.gui_executable, "bin/window");
}

TEST_F(StoredManifests, AreNoneWithoutAReference) {
  EXPECT_FAILURE(open()->manifest(nullptr), "launcher_missing", "Install a verified launcher first");
}

TEST_F(StoredManifests, NeedAWholeReference) {
  const auto store = open();
  for (const Json& value :
       {Json(1), Json("x"), Json::array(), Json::object(), Json({{"build_id", "build-1"}}),
        Json({{"manifest_sha256", sha('a')}}), Json({{"manifest_sha256", sha('a')}, {"build_id", 1}}),
        Json({{"manifest_sha256", nullptr}, {"build_id", "build-1"}})}) {
    EXPECT_FAILURE(store->manifest(value), "launcher_state", malformed);
    EXPECT_FAILURE(store->payload(value), "launcher_state", malformed);
  }
  for (const std::string& hash : {std::string(), std::string(63, 'a'), std::string(64, 'A'), "../" + sha('a')}) {
    const Json value = {{"manifest_sha256", hash}, {"build_id", "build-1"}};
    EXPECT_FAILURE(store->manifest(value), "launcher_state", bad_hash);
    EXPECT_FAILURE(store->payload(value), "launcher_state", bad_hash);
  }
}

TEST_F(StoredManifests, AreFilesOfTheStore) {
  const auto store = open();
  const std::string path = root_ / ("launcher/manifests/" + sha('a') + ".json");
  EXPECT_FAILURE(store->manifest(reference()), "file_read", "Cannot open file: " + path);
  std::filesystem::create_symlink("nowhere", path);
  EXPECT_FAILURE(store->manifest(reference()), "unsafe_path", "Cannot open file: " + path);
}

TEST_F(StoredManifests, AreProvedByTheirDigest) {
  const auto store = open();
  Json stored = store_build("build-1");
  const std::string name = "launcher/manifests/" + sha_of(stored) + ".json";
  const std::string changed = root_.read(name) + "\n";
  root_.write(name, changed);
  EXPECT_FAILURE(store->manifest(stored), "content_mismatch", "Stored launcher manifest changed");
  EXPECT_EQ(root_.read(name), changed);
}

TEST_F(StoredManifests, AreBounded) {
  const auto store = open();
  const std::string text = SampleLauncher(root_).text();
  EXPECT_EQ(store->manifest(store_version(text + std::string(524'288 - text.size(), ' '))).build_id, "build-1");
  EXPECT_FAILURE(store->manifest(store_version(text + std::string(524'289 - text.size(), ' '))), "size_limit",
                 beyond_limit);
}

TEST_F(StoredManifests, MustBeOfTheBuildAndThePlatform) {
  const auto store = open();
  Json stored = store_build("build-1");
  stored["build_id"] = "build-2";
  EXPECT_FAILURE(store->manifest(stored), "launcher_state", differs);
  SampleLauncher other(root_);
  other.document["platform"] = "windows-x86_64";
  EXPECT_FAILURE(store->manifest(store_version(other.text())), "launcher_state", differs);
}

TEST_F(StoredManifests, MustBeThoseOfLaunchers) {
  const auto store = open();
  EXPECT_FAILURE(store->manifest(store_version("{}")), "invalid_manifest",
                 "Launcher manifest has missing or malformed fields");
  SampleLauncher other(root_);
  other.document["staging_abi"] = 2;
  EXPECT_FAILURE(store->manifest(store_version(other.text())), "launcher_incompatible",
                 "Unsupported launcher runtime contract");
}

TEST_F(StoredManifests, TellWhereTheirVersionLies) {
  const auto store = open();
  EXPECT_EQ(store->payload(reference('c')), root_ / ("launcher/versions/" + sha('c')));
  EXPECT_FALSE(std::filesystem::exists(store->payload(reference('c'))));
  EXPECT_FAILURE(store->payload(nullptr), "launcher_missing", "No working launcher is installed");
}

TEST_F(LauncherStores, ReadTheReferenceOfAVersionThatIsThere) {
  const auto store = open();
  const Json version = store_build("build-1");
  EXPECT_EQ(store->stored_reference(sha_of(version)), version);
  // What it says is proved only with the manifest.
  const std::string changed = sha_of(store_build("build-2"));
  root_.write("launcher/manifests/" + changed + ".json", R"({"build_id": "../other"})");
  EXPECT_EQ(store->stored_reference(changed), (Json{{"manifest_sha256", changed}, {"build_id", "../other"}}));
  EXPECT_FAILURE(store->manifest(store->stored_reference(changed)), "content_mismatch",
                 "Stored launcher manifest changed");
}

TEST_F(LauncherStores, ReadNoReferenceFromAManifestWithoutABuild) {
  const auto store = open();
  const std::string sha256 = sha_of(store_build("build-1"));
  for (const char* const text : {"{}", R"({"build_id": 1})", "[]", "null", "\"build-1\""}) {
    root_.write("launcher/manifests/" + sha256 + ".json", text);
    EXPECT_FAILURE(store->stored_reference(sha256), "launcher_state",
                   "Launcher installation record is malformed; it was preserved")
        << text;
  }
  for (const std::string& name : {std::string("short"), sha('A'), std::string("../") + sha('a')}) {
    EXPECT_FAILURE(store->stored_reference(name), "launcher_state", "Launcher manifest identity is invalid") << name;
  }
}

using Fallbacks = LauncherStores;

TEST_F(Fallbacks, AreTheNewestVersion) {
  const auto store = open();
  store_build("build-1", 10);
  const Json newest = store_build("build-2", 30);
  store_build("build-3", 20);
  EXPECT_EQ(store->fallback_active(), newest);
}

TEST_F(Fallbacks, AreNoneInAnEmptyStore) {
  EXPECT_FAILURE(open()->fallback_active(), "launcher_missing", nothing_to_start);
}

TEST_F(Fallbacks, AreNoneWithoutTheirFolder) {
  const auto store = open();
  store_build("build-1");
  std::filesystem::remove_all(root_ / "launcher/versions");
  EXPECT_FAILURE(store->fallback_active(), "launcher_missing", nothing_to_start);
}

TEST_F(Fallbacks, AreTheFirstInTheListingOfTwoAlike) {
  const auto store = open();
  const auto time = std::filesystem::file_time_type::clock::now();
  for (int i = 0; i < 8; ++i) {
    const std::string name = sha_of(store_build("build-" + std::to_string(i)));
    std::filesystem::last_write_time(root_ / ("launcher/versions/" + name), time);
  }
  const std::string first = std::filesystem::directory_iterator(root_ / "launcher/versions")->path().filename();
  EXPECT_EQ(store->fallback_active().at("manifest_sha256"), first);
}

TEST_F(Fallbacks, SkipWhatCouldNotBeStarted) {
  const auto store = open();
  const Json usable = store_build("build-1", 0);

  make_version(sha('a'), 10);  // without a manifest
  make_version(std::string(64, 'A'), 10);
  make_version(std::string(64, 'x'), 10);
  make_version("short", 10);
  store_version("{}", 10);
  store_version("damaged", 10);
  SampleLauncher foreign(root_);
  foreign.document["platform"] = "windows-x86_64";
  store_version(foreign.text(), 10);
  SampleLauncher incompatible(root_);
  incompatible.document["health_abi"] = 2;
  store_version(incompatible.text(), 10);
  SampleLauncher unnamed(root_);
  unnamed.document["build_id"] = 1;
  store_version(unnamed.text(), 10);
  const std::string changed = sha_of(store_build("build-2", 10));
  root_.write("launcher/manifests/" + changed + ".json", SampleLauncher(root_, "build-3").text());
  const std::string large = SampleLauncher(root_, "build-4").text();
  store_version(large + std::string(524'289 - large.size(), ' '), 10);
  EXPECT_EQ(store->fallback_active(), usable);
}

TEST_F(Fallbacks, SkipLinksAndFiles) {
  const auto store = open();
  const std::string linked = sha_of(store_build("build-1"));
  std::filesystem::rename(root_ / ("launcher/versions/" + linked), root_ / "elsewhere");
  std::filesystem::create_directory_symlink(root_ / "elsewhere", root_ / ("launcher/versions/" + linked));
  const std::string file = sha_of(store_build("build-2"));
  std::filesystem::remove(root_ / ("launcher/versions/" + file));
  root_.write("launcher/versions/" + file, "no directory");
  EXPECT_FAILURE(store->fallback_active(), "launcher_missing", nothing_to_start);
}

TEST_F(Fallbacks, AreChosenAmongAtMost64Entries) {
  const auto store = open();
  const Json usable = store_build("build-1");
  for (int i = 0; i < 63; ++i) {
    root_.write("launcher/versions/file-" + std::to_string(i), "");
  }
  EXPECT_EQ(store->fallback_active(), usable);
  root_.write("launcher/versions/one-more", "");
  EXPECT_FAILURE(store->fallback_active(), "launcher_state", "Too many launcher versions to choose a fallback");
}

TEST_F(Fallbacks, ServeWhereTheDocumentIsUnknown) {
  const auto store = open();
  const Json usable = store_build("build-1");
  write_document(with("/format", "ravok-launcher-store-v2").dump());
  EXPECT_EQ(store->selection(), Json(nullptr));
  EXPECT_EQ(store->fallback_active(), usable);
}

class Seeding : public LauncherStores {
 protected:
  Json seed(const ProgressCallback& progress = {}) const {
    return store_->seed_initial(sample_.text(), sample_.archive, progress);
  }

  void expect_nothing_seeded(const std::string& code, const std::string& message) {
    const Names before = root_.names();
    EXPECT_FAILURE(seed(), code, message);
    Names expected = before;
    if (std::find(before.begin(), before.end(), "launcher/bootstrap.lock") == before.end()) {
      expected.push_back("launcher/bootstrap.lock");
      std::sort(expected.begin(), expected.end());
    }
    EXPECT_EQ(root_.names(), expected);
  }

  const std::unique_ptr<LauncherStore> store_ = open();
  SampleLauncher sample_{root_};
};

TEST_F(Seeding, MakesTheFirstVersionTheCandidate) {
  std::uint64_t last = 0;
  const Json seeded = seed([&](std::uint64_t done, std::uint64_t total) {
    EXPECT_LE(done, total);
    last = total;
    return true;
  });
  EXPECT_EQ(seeded, sample_.reference());
  Json expected = fresh();
  expected["generation"] = 1;
  expected["candidate"] = seeded;
  EXPECT_EQ(store_->load(), expected);
  EXPECT_FALSE(store_->status().at("installed"));
  EXPECT_GT(last, 0u);
  const std::string name = sha_of(seeded);
  EXPECT_EQ(root_.read("launcher/manifests/" + name + ".json"), sample_.text());
  for (const auto& file : sample_.files) {
    EXPECT_EQ(root_.read("launcher/versions/" + name + "/" + file.path), file.content);
  }
  EXPECT_EQ(mode_of(store_->payload(seeded) / "bin/window"), 0700u);
  EXPECT_EQ(store_->manifest(seeded).build_id, "build-1");
  EXPECT_NO_THROW(store_->owner());
}

TEST_F(Seeding, ServesAnInstallationThatHasNotEnded) {
  root_.write(".ravok-setup-incomplete", "");
  const LauncherStore store(root_.path(), true);
  EXPECT_EQ(store.seed_initial(sample_.text(), sample_.archive, {}), sample_.reference());
}

TEST_F(Seeding, HappensOnce) {
  seed();
  const Preserved before = preserved();
  expect_nothing_seeded("already_installed", in_use);
  EXPECT_TRUE(preserved() == before);
}

TEST_F(Seeding, NeedsANewStore) {
  Json document = fresh();
  document["generation"] = 1;
  write_document(document.dump());
  expect_nothing_seeded("already_installed", in_use);
  for (const char* key : {"active", "candidate", "rollback"}) {
    Json used = document;
    used[key] = reference();
    write_document(used.dump());
    expect_nothing_seeded("already_installed", in_use);
    EXPECT_EQ(document_text(), used.dump());
  }
}

TEST_F(Seeding, NeedsAStoreWithoutManifestsAndVersions) {
  for (const char* name : {"launcher/manifests/stray", "launcher/versions/stray"}) {
    root_.write(name, "");
    expect_nothing_seeded("already_installed", in_use);
    std::filesystem::remove(root_ / name);
  }
  for (const char* name : {"launcher/manifests", "launcher/versions"}) {
    std::filesystem::remove(root_ / name);
    expect_nothing_seeded("already_installed", in_use);
    root_.directory(name);
  }
  EXPECT_NO_THROW(seed());
}

TEST_F(Seeding, TakesALauncherOfThisPlatform) {
  sample_.document["platform"] = "windows-x86_64";
  expect_nothing_seeded("launcher_incompatible", "Initial launcher targets another native platform");
}

TEST_F(Seeding, TakesTheManifestOfALauncher) {
  sample_.document["kind"] = "ravok-bootstrap-release";
  expect_nothing_seeded("unsupported_schema", "Unsupported launcher manifest; existing installation was preserved");
  EXPECT_FAILURE(store_->seed_initial("{\"a\":1,\"a\":1}", sample_.archive, {}), "duplicate_key",
                 "JSON contains a duplicate object key");
  EXPECT_FAILURE(store_->seed_initial(std::string(524'289, ' '), sample_.archive, {}), "size_limit",
                 "JSON exceeds its size limit");
}

TEST_F(Seeding, WithAnotherArchiveMakesNoCandidate) {
  root_.write("archive", std::string(root_.read("archive").size(), 'x'));
  EXPECT_EQ(failure_of([&] { seed(); }).value().code, "content_mismatch");
  EXPECT_FALSE(std::filesystem::exists(document_path()));
  EXPECT_TRUE(std::filesystem::is_empty(root_ / "launcher/versions"));
  EXPECT_NO_THROW(store_->owner());
}

TEST_F(Seeding, CanBeCancelled) {
  EXPECT_FAILURE(seed([](std::uint64_t, std::uint64_t) { return false; }), "cancelled",
                 "Operation cancelled at a safe boundary");
  EXPECT_FALSE(std::filesystem::exists(document_path()));
  EXPECT_NO_THROW(store_->owner());
}

TEST_F(Seeding, NeedsRoomOnItsVolume) {
  const std::filesystem::path place = root_.directory("volume");
  const testing::MountedVolume volume(place, "tmpfs", "size=1m,mode=0700");
  if (!volume.mounted()) {
    GTEST_SKIP() << "needs a user who may mount a volume";
  }
  const LauncherStore store(place);
  const auto failure = failure_of([&] { store.seed_initial(sample_.text(), sample_.archive, {}); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "insufficient_space");
  EXPECT_TRUE(std::string(failure->what()).starts_with("Storage at " + place.string() + " needs ")) << failure->what();
  EXPECT_EQ(failure->details, Names{"locations launcher"});
  EXPECT_TRUE(std::filesystem::is_empty(place / "launcher/manifests"));
  EXPECT_FALSE(std::filesystem::exists(place / "launcher/installation.json"));
}

using StoreOwners = LauncherStores;

TEST_F(StoreOwners, HoldTheLockOfTheStore) {
  const auto store = open();
  auto owner = store->owner();
  EXPECT_TRUE(owner->matches_path(root_ / "launcher/bootstrap.lock"));
  EXPECT_FAILURE(FileLock(root_ / "launcher/bootstrap.lock", false, LockMode::shared), "busy",
                 "Another Ravok operation is using this state");
  owner.reset();
  EXPECT_NO_THROW(store->owner());
}

TEST_F(StoreOwners, AreWaitedForTwoSeconds) {
  const auto store = open();
  const auto held = store->owner();
  const testing::StillClock clock;
  EXPECT_FAILURE(store->owner(), "busy", "Another Ravok operation is using this state");
  EXPECT_EQ(clock.slept(), std::chrono::seconds(2));
}

TEST_F(StoreOwners, FollowOneAnother) {
  const auto store = open();
  const std::filesystem::path lock = root_ / "launcher/bootstrap.lock";
  testing::Companion other(RAVOK_LOCK_COMPANION, {"hold", lock, "exclusive"});
  ASSERT_EQ(other.read_line(), "held");
  int left = 3;
  const testing::StillClock clock([&] {
    if (--left == 0) {
      other.close_input();
      EXPECT_EQ(other.wait(), 0);
    }
  });
  const auto owner = store->owner();
  EXPECT_EQ(clock.sleeps(), 3u);
  EXPECT_TRUE(owner->matches_path(lock));
  EXPECT_FAILURE(FileLock(lock, false, LockMode::shared), "busy", "Another Ravok operation is using this state");
}

TEST_F(StoreOwners, FailAtOnceForALockThatIsNotPrivate) {
  const auto store = open();
  root_.write("launcher/bootstrap.lock", "");
  ASSERT_EQ(chmod((root_ / "launcher/bootstrap.lock").c_str(), 0644), 0);
  const testing::StillClock clock;
  EXPECT_FAILURE(store->owner(), "lock_failed", "Operation lock must be an ordinary private owned file");
  EXPECT_EQ(clock.sleeps(), 0u);
}

}  // namespace
}  // namespace ravok::launcher_store_test
