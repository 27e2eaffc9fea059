// Histories of releases that reach a client through a network that poisons them. Each update ends right, with the new
// versions staged byte for byte as they were signed, or in a failure that is told by a code that the poison explains;
// what the client trusts is signed and never older than before; and through a clean network a later try succeeds.
//
//   RAVOK_NETWORK_UPDATES  how many updates there are
//   RAVOK_NETWORK_SEED     the seed of the first history; the others have those that follow
//   RAVOK_NETWORK_PATIENT  where it is set, a few stalls last until the client itself gives up

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "app/download/receipt_folder.hpp"
#include "app/launcher/bootstrap_release.hpp"
#include "app/launcher/launcher_cleanup.hpp"
#include "app/launcher/launcher_store.hpp"
#include "app/update/client_update.hpp"
#include "domain/crypto.hpp"
#include "domain/data_layout.hpp"
#include "domain/launcher_contract.hpp"
#include "domain/text_rules.hpp"
#include "platform/file/posix_files.hpp"
#include "platform/process/native_platform.hpp"
#include "support/bootstrap_place.hpp"
#include "support/bytes_of.hpp"
#include "support/fast_volume.hpp"
#include "support/poisoned_network.hpp"
#include "support/staging_place.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"
#include "support/tuf_repository.hpp"

namespace ravok::poisoned_update_test {
namespace {

using testing::BootstrapRelease;
using testing::LauncherUpdate;
using testing::Poison;
using testing::PoisonedConnection;
using testing::TreeState;

using Codes = std::set<std::string>;
using Counts = std::map<std::string, std::uint64_t>;

constexpr std::size_t updates_of_a_history = 25;
// Time that a request takes only where the client itself may end it: a connection may take 10 seconds to be made. A
// machine that stands still for so long makes failures of its own.
constexpr std::chrono::seconds slow_time(9);
constexpr unsigned longest_update = 1'200;  // seconds, many times those that the client waits for any answer

std::uint64_t number_from_environment(const char* variable, std::uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : std::stoull(text);
}

// Codes that bytes can have which are not those that were signed.
const Codes wrong_bytes = {"depth_limit",      "duplicate_key",     "hash_mismatch",   "invalid_expiry",
                           "invalid_hashes",   "invalid_json",      "invalid_length",  "invalid_number",
                           "invalid_metadata", "invalid_threshold", "invalid_version", "keyid_mismatch",
                           "length_mismatch",  "metadata_type",     "size_limit",      "signature_threshold",
                           "unsupported_hash", "unsupported_spec",  "version_mismatch"};

Codes together(Codes codes, const Codes& others) {
  codes.insert(others.begin(), others.end());
  return codes;
}

// The codes with which an update may fail over one connection that was treated like this.
Codes codes_of(Poison poison) {
  switch (poison) {
    case Poison::delayed:
    case Poison::pieces:
    case Poison::changed_tag:
    case Poison::whole_for_part:
    case Poison::chunked:
    case Poison::no_length:
      return {};
    case Poison::refused:
    case Poison::no_handshake:
    case Poison::cut_handshake:
    case Poison::no_tls:
    case Poison::other_certificate:
    case Poison::dropped:
      return {"network"};
    case Poison::stalled:
      return {"network", "cancelled", "discovery_timeout"};
    case Poison::interim:
      return {"download_headers"};
    case Poison::reset:
    case Poison::ended:
    case Poison::cut:
    case Poison::flipped_and_cut:
      return {"network", "download_headers", "length_mismatch", "invalid_json"};
    case Poison::doubled_bytes:
    case Poison::flipped_head:
      return together(wrong_bytes, {"network", "download_headers", "download_range", "http_status", "redirect_rejected",
                                    "discovery_budget"});
    case Poison::twice:
      return together(wrong_bytes, {"network", "download_headers"});
    case Poison::flipped_body:
      return wrong_bytes;
    case Poison::garbage:
      return {"network", "download_headers", "invalid_json", "http_status", "size_limit", "length_mismatch"};
    case Poison::older:
    case Poison::other_path:
      return together(wrong_bytes, {"rollback", "http_status", "target_not_found"});
    case Poison::refusal:
      // A root that is said not to be there leaves the client with the keys before it.
      return {"http_status", "signature_threshold", "expired_metadata"};
    case Poison::redirect:
      return {"redirect_rejected"};
    case Poison::wrong_length:
    case Poison::broken_chunks:
      return together(wrong_bytes, {"network", "download_headers"});
    case Poison::encoded:
      return {"download_headers"};
    case Poison::endless_head:
      return {"network", "download_headers"};
    case Poison::endless_body:
      return together(wrong_bytes, {"network", "download_headers", "discovery_budget", "discovery_timeout"});
    case Poison::wrong_range:
      // A range whose end is no number is a header that cannot be read.
      return {"download_headers", "download_range", "length_mismatch"};
    case Poison::other_bytes:
      return {"hash_mismatch"};
    case Poison::part_for_whole:
      return {"download_range", "http_status"};
  }
  return {};
}

// Whether it can keep something newer from a client that then takes the state it has, or an earlier one, for the
// newest.
bool holds_back(Poison poison) {
  return poison == Poison::older || poison == Poison::other_path || poison == Poison::refusal;
}

// Ends the program where an update hangs, and says which.
std::array<char, 256> hanging_words{};
void tell_of_hanging(int) {
  const std::string_view words(hanging_words.data());
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, words.data(), words.size());
  _exit(1);
}
class HangWatch {
 public:
  explicit HangWatch(const std::string& words) {
    words.copy(hanging_words.data(), hanging_words.size() - 1);
    std::signal(SIGALRM, tell_of_hanging);
    alarm(longest_update);
  }
  ~HangWatch() { alarm(0); }
  HangWatch(const HangWatch&) = delete;
  HangWatch& operator=(const HangWatch&) = delete;
};

// The releases that were the newest together, by their numbers.
struct Published {
  std::size_t launcher = 0;
  std::size_t bootstrap = 0;

  bool operator==(const Published&) const = default;
};

// What came of one run of an update.
struct Attempt {
  bool is_right = false;  // both parts are what was published last
  bool is_honest = true;  // no failure, whatever it believes to be the newest
  bool is_slow = false;   // so that the client may have lost its patience
  Codes codes;            // of its failures
};

class History {
 public:
  History(std::uint64_t seed, bool is_patient)
      : random_(seed), network_(authority_, root_.directory("served"), random_()), is_patient_(is_patient) {
    repository_.consistent = !one_in(3);
    repository_.lengths = !one_in(4);
    repository_.hashes = one_in(4) ? std::vector<std::string>{} : std::vector<std::string>{"sha256"};
    if (one_in(2)) {
      role_ = "clients";
      repository_.delegate("targets", {.name = role_, .paths = {"*.json", "builds/*", "bootstrap/*"}});
    }
    root_.write("authority.pem", authority_.root());
    release(true);
    begin();
  }

  // One release, and how it reaches the client.
  void update() {
    constexpr std::array<unsigned, 6> rates = {3, 10, 25, 50, 80, 100};
    const unsigned rate = rates.at(below(rates.size()));
    release(one_in(3));
    const std::size_t tries = 1 + below(5);
    const bool only_targets = one_in(2);
    story_ = "through poison of " + std::to_string(rate) + "%" + (only_targets ? " of the targets" : "");
    bool is_right = false;
    for (std::size_t attempt = 1; attempt <= tries && !is_right && !::testing::Test::HasFailure(); ++attempt) {
      if (one_in(2)) {
        sign_again();
      }
      network_.poison({.percent = rate, .only_targets = only_targets, .may_stall = one_in(6)});
      is_right = try_update(one_in(4)).is_right;
      ++counts_[is_right ? (attempt == 1 ? "right at the first try" : "right at a later try through poison")
                         : "tries through poison that did not end right"];
    }
    network_.poison({});
    if (!is_right && !::testing::Test::HasFailure()) {
      ++counts_["right at a try through a clean network"];
      try_clean();
    }
    if (!::testing::Test::HasFailure()) {
      start();
    }
  }

  const Counts& counts() const { return counts_; }
  const Counts& codes() const { return codes_; }
  std::map<Poison, std::uint64_t> injected() const { return network_.counts(); }
  std::uint64_t connections() const { return network_.connections(); }

 private:
  std::size_t below(std::size_t bound) { return static_cast<std::size_t>(random_() % bound); }
  bool one_in(std::size_t count) { return below(count) == 0; }

  // --- The publisher ---------------------------------------------------------------------------

  void release(bool with_bootstrap) {
    const std::string number = std::to_string(launchers_.size());
    const std::size_t size = one_in(40) ? 9'000'000 : 1 + below(one_in(3) ? 300'000 : 30'000);
    const std::string note = testing::noise(size, static_cast<std::uint32_t>(random_()));
    launchers_.emplace_back("poisoned-" + number, note);
    if (with_bootstrap) {
      const std::string build = "bootstrap-" + std::to_string(bootstraps_.size());
      bootstraps_.push_back(testing::bootstrap_release(
          build, testing::ending_program(0, build),
          {{"data/file", testing::noise(1 + below(200'000), static_cast<std::uint32_t>(random_()))}}));
    }
    if (one_in(4) && launchers_.size() > 1) {
      constexpr std::array roles = {"root", "timestamp", "snapshot", "targets"};
      repository_.rotate(roles.at(below(roles.size())));
      ++counts_["changes of keys"];
    }
    testing::TestRole& role = repository_.role(role_);
    role.targets.clear();
    role.contents.clear();
    const LauncherUpdate& launcher = launchers_.back();
    const BootstrapRelease& bootstrap = bootstraps_.back();
    const std::vector<std::string> algorithms =
        one_in(3) ? std::vector<std::string>{"sha256", "sha512"} : std::vector<std::string>{"sha256"};
    for (const auto& [target, bytes] :
         {std::pair(launcher_manifest_target(), launcher.text()), std::pair(launcher.target(), launcher.archive),
          std::pair(bootstrap_manifest_target(), bootstrap.text()),
          std::pair(bootstrap.archive_target(), bootstrap.archive)}) {
      role.add(target, bytes, algorithms);
      signed_targets_.insert(digest(bytes, "sha256"));
    }
    publish();
  }

  // A publisher signs the timestamp again before it expires, whether there is anything new or not.
  void sign_again() {
    publish();
    ++counts_["timestamps signed again"];
  }

  void publish() {
    repository_.publish();
    for (const std::string& name :
         {std::string("root"), std::string("timestamp"), std::string("snapshot"), std::string("targets"), role_}) {
      signed_bodies_.insert(body_of(repository_.text_of(name)));
    }
    published_[body_of(repository_.text_of(role_))] = newest();
    serve(repository_.metadata(), "metadata/");
    serve(repository_.target_files(), "targets/");
  }

  void serve(const testing::TufRepository::Files& files, const std::string& folder) {
    for (const auto& [name, bytes] : files) {
      std::string& known = served_[folder + name];
      if (known != bytes) {
        known = bytes;
        root_.write("served/tuf/" + folder + name, bytes);
      }
    }
  }

  Published newest() const { return {launchers_.size() - 1, bootstraps_.size() - 1}; }

  // What is signed of a document, whatever its signatures look like.
  static std::string body_of(const std::string& text) { return Json::parse(text).at("signed").dump(); }

  // --- The client ------------------------------------------------------------------------------

  void begin() {
    root_.directory("data");
    private_directory(paths_.trust);
    TufClient::initialize(paths_.trust, repository_.root_text());
    root_.write(
        "data/repository.json",
        Json{{"schema_version", 1}, {"origin", network_.origin()}, {"ca_bundle", (root_ / "authority.pem").native()}}
            .dump());
    bootstrap_.install(bootstraps_.front());
    store_.emplace(data_);
    try_clean();
    start();
  }

  Attempt try_update(bool background) {
    // What the last request has left on the server's side ends by itself.
    while (network_.is_stalled()) {
      std::this_thread::yield();
    }
    network_.take_connections();
    const bool waits = one_in(40) && is_patient_;
    const auto is_cancelled = [&] { return !waits && network_.is_stalled(); };
    const UpdateObserver observer = {{}, [&](std::uint64_t, std::uint64_t) { return !is_cancelled(); }};
    const std::set<std::string> leftovers = partial_files();
    Attempt attempt;
    const auto begin = std::chrono::steady_clock::now();
    const ClientUpdate update = update_client(data_, observer, background, is_cancelled);
    const std::vector<PoisonedConnection> connections = network_.take_connections();
    std::ostringstream happened;
    happened << story_ << ", " << (background ? "a check" : "an update") << ": " << update.to_json();
    Codes explained;
    bool held_back = false;
    attempt.is_slow = std::chrono::steady_clock::now() - begin >= slow_time;
    if (attempt.is_slow) {
      explained = {"network", "discovery_timeout"};
      ++counts_["slow tries"];
    }
    for (const auto& [path, poison] : connections) {
      happened << "\n  " << poison_name(poison) << " " << path;
      explained = together(std::move(explained), codes_of(poison));
      held_back = held_back || holds_back(poison);
    }
    SCOPED_TRACE(happened.str());

    note_failure(update.launcher, "launcher", explained, !leftovers.empty(), attempt);
    note_failure(update.bootstrap, "bootstrap", explained, !leftovers.empty(), attempt);
    judge_trust();
    const std::optional<Published> believed = believed_release();
    const bool launcher = judge_launcher(update.launcher, believed);
    const bool bootstrap = judge_bootstrap(update.bootstrap, believed);
    attempt.is_honest = launcher && bootstrap;
    const bool is_newest = believed == newest();
    attempt.is_right = attempt.is_honest && is_newest;
    if (attempt.is_honest && !is_newest) {
      EXPECT_TRUE(held_back) << "The newest release was not seen";
      ++counts_["tries that were held back by another answer"];
    }
    judge_store();
    if (attempt.codes.contains("hash_mismatch") && !explained.contains("hash_mismatch")) {
      EXPECT_NE(partial_files(), leftovers) << "Poisoned bytes stay";
    }
    return attempt;
  }

  void note_failure(const PartUpdate& part, const std::string& name, const Codes& explained, bool had_leftovers,
                    Attempt& attempt) {
    std::string code;
    if (part.problem) {
      code = part.problem->code;
      const std::string message = part.problem->what();
      EXPECT_FALSE(message.empty());
      EXPECT_EQ(message.find('\n'), std::string::npos) << message;
    } else if (part.result.is_object() && part.result.contains("skipped") &&
               part.result.at("skipped") != "candidate_pending") {
      code = text_at(part.result, "skipped");
    }
    if (code.empty()) {
      return;
    }
    attempt.codes.insert(code);
    ++codes_[name + ": " + code];
    // Bytes that came through poison earlier are found out when the file is whole.
    const bool is_late = had_leftovers && code == "hash_mismatch";
    EXPECT_TRUE(explained.contains(code) || is_late) << "No poison explains the failure " << code;
  }

  // Through a clean network nothing can fail but a file that was begun through a poisoned one. It goes then, so each of
  // the targets costs one try at most.
  void try_clean() {
    constexpr int targets = 4;
    constexpr int patience = 20;
    int slow = 0;
    for (int attempt = 0; attempt <= targets + slow; ++attempt) {
      const Attempt done = try_update(false);
      if (done.is_right) {
        return;
      }
      if (done.is_slow && !done.codes.contains("hash_mismatch") && slow < patience) {
        ++slow;
        continue;
      }
      ++counts_["clean tries that found out about poisoned bytes"];
      EXPECT_EQ(done.codes, Codes{"hash_mismatch"});
    }
    ADD_FAILURE() << "No try through a clean network ended right";
  }

  // What the next start of the client does.
  void start() {
    Json document = store_->load();
    if (!document.at("candidate").is_null()) {
      document["rollback"] = document.at("active");
      document["active"] = document.at("candidate");
      document["candidate"] = nullptr;
      store_->save(document);
    }
    settled_ = store_->load();
    candidate_ = nullptr;
    if (const std::optional<std::size_t> prepared = prepared_bootstrap()) {
      installed_bootstrap_ = *prepared;
      bootstrap_.install(bootstraps_.at(*prepared));
    }
    was_prepared_ = false;
    ++releases_since_cleanup_;
    if (one_in(3) || releases_since_cleanup_ >= 5) {
      EXPECT_EQ(clean_launcher_store(*store_).at("kept"), Json::array());
      EXPECT_EQ(target_download_receipts(store_->store()), Json::array());
      EXPECT_TRUE(std::filesystem::is_empty(launcher_.downloads));
      releases_since_cleanup_ = 0;
    }
    judge_store();
  }

  // --- The judge -------------------------------------------------------------------------------

  std::optional<Json> trusted(const std::string& role) const {
    const std::filesystem::path file = TufClient::role_cache(paths_.trust, role);
    if (!std::filesystem::exists(file)) {
      return std::nullopt;
    }
    const std::string text = testing::bytes_of(file);
    const std::string body = body_of(text);
    EXPECT_TRUE(signed_bodies_.contains(body)) << "Nobody has signed what is trusted as " << role << ": " << text;
    return Json::parse(text).at("signed");
  }

  static std::set<std::string> online_keys(const Json& root) {
    std::set<std::string> keys;
    for (const char* const role : {"timestamp", "snapshot"}) {
      for (const Json& key : root.at("roles").at(role).at("keyids")) {
        keys.insert(role + key.get<std::string>());
      }
    }
    return keys;
  }

  // Only a change of the online keys lets a client forget which timestamp it has seen.
  void judge_trust() {
    const std::optional<Json> root = trusted("root");
    ASSERT_TRUE(root);
    if (known_root_.is_object() && online_keys(known_root_) != online_keys(*root)) {
      highest_.erase("timestamp");
    }
    known_root_ = *root;
    for (const std::string& role :
         {std::string("root"), std::string("timestamp"), std::string("snapshot"), std::string("targets"), role_}) {
      if (const std::optional<Json> document = trusted(role)) {
        const auto version = document->at("version").get<std::uint64_t>();
        EXPECT_GE(version, highest_[role]) << "What is trusted as " << role << " went backwards";
        highest_[role] = version;
      }
    }
    for (const auto& entry : std::filesystem::directory_iterator(paths_.trust)) {
      EXPECT_FALSE(entry.path().native().ends_with(".tmp")) << entry.path();
    }
  }

  std::optional<Published> believed_release() const {
    const std::filesystem::path file = TufClient::role_cache(paths_.trust, role_);
    if (!std::filesystem::exists(file)) {
      return std::nullopt;
    }
    const auto found = published_.find(body_of(testing::bytes_of(file)));
    return found == published_.end() ? std::nullopt : std::optional(found->second);
  }

  // Returns whether the part says that it is as new as what is believed.
  bool judge_launcher(const PartUpdate& part, const std::optional<Published>& believed) {
    const Json state = store_->load();
    for (const char* const key : {"active", "rollback", "attempt", "failed_candidate"}) {
      if (settled_.is_object()) {
        EXPECT_EQ(state.at(key), settled_.at(key)) << key;
      }
    }
    const bool is_waiting = part.result.is_object() && part.result.value("skipped", "") == "candidate_pending";
    const bool is_staged = part.result.is_object() && part.result.at("staged").get<bool>();
    const bool is_current = part.result.is_object() && part.result.contains("already_current");
    if (!is_staged && !is_current && !is_waiting) {
      EXPECT_EQ(state.at("candidate"), candidate_) << "A launcher was staged by an update that has failed";
      return false;
    }
    EXPECT_TRUE(believed);
    if (!believed) {
      return false;
    }
    const Json reference = launchers_.at(believed->launcher).reference();
    if (is_staged) {
      EXPECT_EQ(part.result, testing::staged(launchers_.at(believed->launcher)));
      candidate_ = reference;
    }
    EXPECT_EQ(state.at(is_current ? "active" : "candidate"), reference);
    EXPECT_EQ(state.at("candidate"), candidate_);
    return true;
  }

  bool judge_bootstrap(const PartUpdate& part, const std::optional<Published>& believed) {
    const std::string status = part.result.is_object() ? text_at(part.result, "status") : "";
    EXPECT_TRUE(bootstrap_.holds(bootstraps_.at(installed_bootstrap_)));
    const bool is_prepared = std::filesystem::exists(bootstrap_.paths.update_manifest);
    EXPECT_EQ(is_prepared, status == "staged" || status == "pending" || was_prepared_);
    was_prepared_ = is_prepared;
    EXPECT_FALSE(std::filesystem::exists(bootstrap_.paths.partial_tree));
    if (is_prepared) {
      const std::optional<std::size_t> prepared = prepared_bootstrap();
      EXPECT_TRUE(prepared) << "An update of the bootstrap that nobody has signed";
      if (prepared) {
        EXPECT_TRUE(testing::same_tree(testing::BootstrapPlace::files_in(bootstrap_.paths.update_tree),
                                       testing::BootstrapPlace::files_of(bootstraps_.at(*prepared))));
      }
    }
    if (status != "staged" && status != "pending" && status != "current") {
      return false;
    }
    EXPECT_TRUE(believed);
    return believed.has_value();
  }

  // Which of the releases waits to be applied.
  std::optional<std::size_t> prepared_bootstrap() const {
    const std::filesystem::path& manifest = bootstrap_.paths.update_manifest;
    for (std::size_t at = 0; std::filesystem::exists(manifest) && at < bootstraps_.size(); ++at) {
      if (testing::bytes_of(manifest) == bootstraps_[at].text()) {
        return at;
      }
    }
    return std::nullopt;
  }

  static TreeState files_of(const LauncherUpdate& release) {
    TreeState files;
    for (const testing::SampleFile& file : release.files) {
      files[file.path] = (file.mode == 0755 ? "700 file " : "600 file ") + file.content;
    }
    return files;
  }

  void judge_store() {
    for (const auto& entry : std::filesystem::directory_iterator(launcher_.versions)) {
      const LauncherUpdate* found = nullptr;
      for (const LauncherUpdate& release : launchers_) {
        found = entry.path().filename() == digests_.of(release) ? &release : found;
      }
      EXPECT_NE(found, nullptr) << "A version that was never released: " << entry.path();
      if (found != nullptr) {
        EXPECT_TRUE(testing::same_tree(testing::BootstrapPlace::files_in(entry.path()), files_of(*found)))
            << entry.path();
      }
    }
    judge_downloads(launcher_.downloads);
    judge_downloads(bootstrap_.paths.downloads);
    EXPECT_TRUE(std::filesystem::is_empty(launcher_.staging));
    EXPECT_TRUE(std::filesystem::is_empty(launcher_.intents));
    const Json receipts = target_download_receipts(store_->store());
    // However many tries there were, a release leaves no more than its two targets and, of each, one beginning.
    EXPECT_LE(receipts.size(), 2 * (releases_since_cleanup_ + 1) + 2) << receipts;
    EXPECT_LE(partial_files().size(), 4u) << "Partial files pile up";
  }

  static bool is_partial(const std::filesystem::path& path) {
    return path.native().find(".partial") != std::string::npos;
  }

  void judge_downloads(const std::filesystem::path& folder) {
    std::error_code missing;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, missing)) {
      if (entry.is_regular_file() && !is_partial(entry.path())) {
        EXPECT_TRUE(signed_targets_.contains(digest(testing::bytes_of(entry.path()), "sha256")))
            << "Nobody has signed what was downloaded: " << entry.path();
      }
    }
  }

  std::set<std::string> partial_files() const {
    std::set<std::string> found;
    for (const std::filesystem::path& folder : {launcher_.downloads, bootstrap_.paths.downloads}) {
      std::error_code missing;
      for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, missing)) {
        if (entry.path().native().ends_with(".partial")) {
          found.insert(entry.path());
        }
      }
    }
    return found;
  }

  // The digests of manifests, each computed once.
  struct Digests {
    std::map<const LauncherUpdate*, std::string> known;
    const std::string& of(const LauncherUpdate& release) {
      std::string& digest = known[&release];
      return digest.empty() ? digest = release.sha256() : digest;
    }
  };

  std::mt19937_64 random_;
  const testing::TemporaryRoot root_{testing::fast_volume()};
  const testing::CertificateAuthority authority_;
  testing::PoisonedNetwork network_;
  const bool is_patient_;
  testing::TufRepository repository_;
  std::string role_ = "targets";  // that describes the releases
  std::deque<LauncherUpdate> launchers_;
  std::deque<BootstrapRelease> bootstraps_;
  std::set<std::string> signed_bodies_;
  std::set<std::string> signed_targets_;
  std::map<std::string, Published> published_;  // by what is signed of the role
  std::map<std::string, std::string> served_;

  const std::filesystem::path data_ = root_ / "data";
  const DataPaths paths_{data_};
  const LauncherPaths launcher_{paths_.launcher};
  const testing::BootstrapPlace bootstrap_{data_};
  std::optional<LauncherStore> store_;
  Json settled_;    // the store's document since the last start
  Json candidate_;  // that was staged since then
  std::size_t installed_bootstrap_ = 0;
  bool was_prepared_ = false;
  std::size_t releases_since_cleanup_ = 0;
  Json known_root_;
  std::map<std::string, std::uint64_t> highest_;
  Digests digests_;

  std::string story_;
  Counts counts_;
  Counts codes_;
};

void add(Counts& all, const Counts& some) {
  for (const auto& [name, count] : some) {
    all[name] += count;
  }
}

void print(const std::string& title, const Counts& counts) {
  std::cout << title << ":\n";
  for (const auto& [name, count] : counts) {
    std::cout << "  " << count << " " << name << "\n";
  }
}

TEST(PoisonedNetworkUpdates, EndRightOrInAToldFailureAndSucceedLater) {
  const std::uint64_t first = number_from_environment("RAVOK_NETWORK_SEED", 1);
  const std::uint64_t updates = number_from_environment("RAVOK_NETWORK_UPDATES", 50);
  const bool is_patient = std::getenv("RAVOK_NETWORK_PATIENT") != nullptr;
  Counts counts;
  Counts codes;
  Counts injected;
  std::uint64_t seed = first;
  for (std::uint64_t done = 0; done < updates; ++seed) {
    const std::string again = "Run this again: scripts/check-network --updates " +
                              std::to_string(updates_of_a_history) + " --seed " + std::to_string(seed);
    const HangWatch watch("An update does not end. " + again + "\n");
    SCOPED_TRACE(again);
    try {
      History history(seed, is_patient);
      for (std::size_t update = 0; update < updates_of_a_history && done < updates; ++update, ++done) {
        const HangWatch one("An update does not end. " + again + "\n");
        history.update();
        if (HasFailure()) {
          FAIL() << "Update " << update + 1 << " of seed " << seed;
        }
      }
      add(counts, history.counts());
      add(codes, history.codes());
      counts["connections"] += history.connections();
      for (const auto& [poison, count] : history.injected()) {
        injected[poison_name(poison)] += count;
      }
    } catch (const std::exception& problem) {
      FAIL() << problem.what();
    }
  }
  std::cout << "Seeds " << first << " to " << seed - 1 << ", " << updates << " updates\n";
  print("How they ended", counts);
  print("Told failures of tries", codes);
  print("Poison", injected);
  EXPECT_FALSE(injected.empty());
  if (updates >= 500) {
    for (std::size_t kind = 0; kind < testing::poison_kinds; ++kind) {
      EXPECT_GT(injected[poison_name(static_cast<Poison>(kind))], 0u) << poison_name(static_cast<Poison>(kind));
    }
  }
}

}  // namespace
}  // namespace ravok::poisoned_update_test
