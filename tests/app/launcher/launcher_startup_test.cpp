#include "app/launcher/launcher_startup.hpp"

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/failure.hpp"
#include "support/launcher_place.hpp"

namespace ravok::launcher_startup_test {
namespace {

using testing::failure_of;
using testing::is_lock_busy;
using testing::LauncherPlace;
using testing::write_bytes;

constexpr const char* malformed = "Launcher installation record is malformed; it was preserved";
constexpr const char* bad_nonce = "Launcher startup identity is invalid";
constexpr const char* bad_hash = "Launcher manifest identity is invalid";
constexpr const char* bad_interface = "Choose the CLI or GUI launcher interface";
constexpr const char* another_owner = "Launcher startup ownership changed";
constexpr const char* bad_health =
    "Launcher health does not match its build, process, mode, interrupt contract and attempt";
constexpr const char* no_acknowledgement = "Launcher startup did not acknowledge native content ownership";
constexpr const char* bad_acknowledgement =
    "Launcher lease acknowledgement does not match its build, process, mode and attempt";
constexpr const char* bad_problem = "Launcher startup problem code is invalid";
constexpr const char* still_running =
    "The unfinished launcher is still using its startup attempt; close it before restarting";
constexpr const char* in_use = "Another Ravok operation is using this state";

constexpr std::uint64_t pid = 4711;

const std::string nonce(32, 'a');

class LauncherStartup : public ::testing::Test {
 protected:
  // Makes a new version the candidate and begins its attempt.
  Json begin(const std::string& build_id = "build-1") const {
    place_.set("candidate", place_.add_version(build_id));
    return place_.store.begin_candidate();
  }

  LauncherManifest manifest_of(const Json& attempt) const { return place_.store.manifest(attempt.at("reference")); }
  Json health(const Json& attempt, const std::string& interface = "cli") const {
    return manifest_of(attempt).startup_health(attempt, pid, interface, interface == "cli");
  }
  Json acknowledgement(const Json& attempt, const std::string& interface = "cli") const {
    return lease_document(manifest_of(attempt), attempt, pid, interface);
  }
  void acknowledge(const Json& attempt, const std::string& interface = "cli") const {
    write_bytes(place_.store.startup_ack_path(attempt), acknowledgement(attempt, interface).dump());
  }
  void confirm(const Json& attempt) const { place_.store.confirm_candidate(attempt, health(attempt), pid, "cli"); }

  // The statement fails in this way and leaves the document as it was, byte for byte.
  void expect_refusal(const std::function<void()>& work, const std::string& code, const std::string& message) const {
    const std::string before = place_.document_text();
    EXPECT_FAILURE(work(), code, message);
    EXPECT_EQ(place_.document_text(), before);
  }

  const LauncherPlace place_;
  const LauncherStore& store_ = place_.store;
};

TEST_F(LauncherStartup, NamesTheFilesOfAnAttemptByItsNonce) {
  const Json attempt = {{"nonce", nonce}, {"reference", nullptr}};
  EXPECT_EQ(store_.startup_lease_path(attempt), place_.root / ("launcher/leases/attempts/" + nonce + ".lock"));
  EXPECT_EQ(store_.startup_ack_path(attempt), place_.root / ("launcher/leases/attempts/" + nonce + ".json"));
  EXPECT_EQ(store_.health_path(attempt), place_.root / ("launcher/health/" + nonce + ".json"));
}

TEST_F(LauncherStartup, NamesNoFileByANonceThatIsNone) {
  for (const std::string& text : {std::string(), std::string(31, 'a'), std::string(33, 'a'), std::string(32, 'A'),
                                  std::string(32, 'g'), "../" + std::string(29, 'a')}) {
    const Json attempt = {{"nonce", text}};
    EXPECT_FAILURE(store_.startup_lease_path(attempt), "launcher_state", bad_nonce);
    EXPECT_FAILURE(store_.startup_ack_path(attempt), "launcher_state", bad_nonce);
    EXPECT_FAILURE(store_.health_path(attempt), "launcher_state", bad_nonce);
    EXPECT_FAILURE(store_.health_environment(attempt, "cli"), "launcher_state", bad_nonce);
  }
  for (const Json& attempt : {Json(nullptr), Json("x"), Json::array(), Json::object(), Json{{"nonce", 1}}}) {
    EXPECT_FAILURE(store_.startup_lease_path(attempt), "launcher_state", malformed);
    EXPECT_FAILURE(store_.startup_ack_path(attempt), "launcher_state", malformed);
    EXPECT_FAILURE(store_.health_path(attempt), "launcher_state", malformed);
    EXPECT_FAILURE(store_.health_environment(attempt, "cli"), "launcher_state", malformed);
  }
}

TEST_F(LauncherStartup, KnowsTwoInterfaces) {
  interface_shape("cli");
  interface_shape("gui");
  for (const std::string& text : {std::string(), std::string("CLI"), std::string("cl"), std::string("cli "),
                                  std::string("tui"), std::string("cli\0", 4)}) {
    EXPECT_FAILURE(interface_shape(text), "launcher_interface", bad_interface);
  }
}

TEST_F(LauncherStartup, GivesALauncherItsAuthorityInFiveVariables) {
  const Json attempt = begin();
  const ProcessEnvironment expected = {{"RAVOK_LAUNCHER_HEALTH_NONCE", text_at(attempt, "nonce")},
                                       {"RAVOK_LAUNCHER_MANIFEST", text_at(attempt.at("reference"), "manifest_sha256")},
                                       {"RAVOK_LAUNCHER_BUILD", "build-1"},
                                       {"RAVOK_LAUNCHER_INTERFACE", "gui"},
                                       {"RAVOK_LAUNCHER_DATA_ROOT", place_.root.path().string()}};
  EXPECT_EQ(store_.health_environment(attempt, "gui"), expected);
  EXPECT_EQ(store_.health_environment(attempt, "cli").at("RAVOK_LAUNCHER_INTERFACE"), "cli");
}

TEST_F(LauncherStartup, GivesNoAuthorityForWhatItDoesNotKnow) {
  const Json attempt = begin();
  EXPECT_FAILURE(store_.health_environment(attempt, "tui"), "launcher_interface", bad_interface);
  // The interface is looked at first.
  EXPECT_FAILURE(store_.health_environment(nullptr, "tui"), "launcher_interface", bad_interface);
  for (const Json& reference : {Json(nullptr), Json::object(), Json{{"manifest_sha256", std::string(64, 'a')}}}) {
    EXPECT_FAILURE(store_.health_environment({{"nonce", nonce}, {"reference", reference}}, "cli"), "launcher_state",
                   malformed);
  }
}

TEST_F(LauncherStartup, ClearsTheSameVariables) {
  ProcessEnvironment expected = store_.health_environment(begin(), "cli");
  for (auto& [name, value] : expected) {
    value.clear();
  }
  EXPECT_EQ(cleared_startup_environment(), expected);
}

TEST_F(LauncherStartup, AcknowledgesLeasesInADocumentOfItsOwn) {
  const Json attempt = begin();
  const Json expected = {{"schema_version", 1},
                         {"nonce", attempt.at("nonce")},
                         {"manifest_sha256", attempt.at("reference").at("manifest_sha256")},
                         {"build_id", "build-1"},
                         {"pid", pid},
                         {"interface", "cli"},
                         {"application_schema", 1},
                         {"state", "leased"},
                         {"runtime_lease_abi", 2}};
  EXPECT_EQ(acknowledgement(attempt), expected);
  constexpr const char* needs = "Launcher health needs its exact native process and interface";
  EXPECT_FAILURE(lease_document(manifest_of(attempt), attempt, 0, "cli"), "launcher_health", needs);
  EXPECT_FAILURE(lease_document(manifest_of(attempt), attempt, pid, "tui"), "launcher_health", needs);
}

TEST_F(LauncherStartup, MakesTheCandidateAnAttemptBeforeAnythingIsStarted) {
  const Json reference = place_.add_version("build-1");
  place_.set("candidate", reference);
  const Json before = store_.load();
  const Json attempt = store_.begin_candidate();
  EXPECT_EQ(attempt.size(), 2u);
  EXPECT_EQ(attempt.at("reference"), reference);
  Json expected = before;
  expected["candidate"] = nullptr;
  expected["attempt"] = attempt;
  expected["generation"] = before.at("generation").get<int>() + 1;
  EXPECT_EQ(store_.load(), expected);
  EXPECT_FALSE(std::filesystem::exists(store_.startup_lease_path(attempt)));
}

TEST_F(LauncherStartup, NamesEachAttemptAnew) {
  const Json first = begin();
  store_.reject_candidate(first, "startup_failed");
  EXPECT_NE(begin().at("nonce"), first.at("nonce"));
}

TEST_F(LauncherStartup, BeginsNothingWithoutACandidate) {
  EXPECT_EQ(store_.begin_candidate(), nullptr);
  EXPECT_EQ(place_.document_text(), "");
  place_.set("active", place_.add_version("build-1"));
  const std::string before = place_.document_text();
  EXPECT_EQ(store_.begin_candidate(), nullptr);
  EXPECT_EQ(place_.document_text(), before);
}

TEST_F(LauncherStartup, BeginsOneAttemptAtATime) {
  begin();
  expect_refusal([&] { store_.begin_candidate(); }, "busy", "Another launcher startup needs recovery");
}

TEST_F(LauncherStartup, RecoversNothingWithoutAnAttempt) {
  store_.recover_attempt();
  EXPECT_EQ(place_.document_text(), "");
  place_.set("candidate", place_.add_version("build-1"));
  const std::string before = place_.document_text();
  store_.recover_attempt();
  EXPECT_EQ(place_.document_text(), before);
}

TEST_F(LauncherStartup, RecoversAnAttemptWhoseLauncherIsGone) {
  place_.set("active", place_.add_version("build-0"));
  for (const bool lease_is_there : {false, true}) {
    const Json attempt = begin(lease_is_there ? "build-2" : "build-1");
    const auto lease = store_.startup_lease_path(attempt);
    if (lease_is_there) {
      const FileLock once(lease, false, LockMode::shared);
    }
    Json expected = store_.load();
    store_.recover_attempt();
    expected["generation"] = expected.at("generation").get<int>() + 1;
    expected["attempt"] = nullptr;
    expected["failed_candidate"] = {{"reference", attempt.at("reference")}, {"problem", "startup_interrupted"}};
    EXPECT_EQ(store_.load(), expected);
    EXPECT_FALSE(is_lock_busy(lease));
    EXPECT_TRUE(std::filesystem::exists(lease));
    // It is not tried again by itself.
    EXPECT_EQ(store_.begin_candidate(), nullptr);
  }
}

TEST_F(LauncherStartup, RecoversNothingWhileTheLauncherRuns) {
  const Json attempt = begin();
  for (const LockMode mode : {LockMode::shared, LockMode::exclusive}) {
    const FileLock lease(store_.startup_lease_path(attempt), false, mode);
    const std::string before = place_.document_text();
    const auto failure = failure_of([&] { store_.recover_attempt(); });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code, "launcher_running");
    EXPECT_STREQ(failure->what(), still_running);
    EXPECT_EQ(failure->details, std::vector<std::string>{"self status"});
    EXPECT_EQ(place_.document_text(), before);
  }
}

TEST_F(LauncherStartup, RecoversNothingWhenTheLeaseCannotBeAsked) {
  const Json attempt = begin();
  write_bytes(store_.startup_lease_path(attempt), "");
  ASSERT_EQ(chmod(store_.startup_lease_path(attempt).c_str(), 0644), 0);
  expect_refusal([&] { store_.recover_attempt(); }, "lock_failed",
                 "Operation lock must be an ordinary private owned file");
}

TEST_F(LauncherStartup, SharesAVersionAmongThoseWhoRunIt) {
  const Json reference = place_.add_version("build-1");
  const auto first = store_.version_guard(reference, LockMode::shared);
  const auto second = store_.version_guard(reference, LockMode::shared);
  EXPECT_TRUE(first->matches_path(place_.version_lease_path(reference)));
  EXPECT_FAILURE(store_.version_guard(reference, LockMode::exclusive), "busy", in_use);
}

TEST_F(LauncherStartup, KeepsAllAwayFromAVersionThatIsToBeRemoved) {
  const Json reference = place_.add_version("build-1");
  const auto guard = store_.version_guard(reference, LockMode::exclusive);
  EXPECT_FAILURE(store_.version_guard(reference, LockMode::shared), "busy", in_use);
  EXPECT_NE(store_.version_guard(place_.add_version("build-2"), LockMode::shared), nullptr);
}

TEST_F(LauncherStartup, GuardsNoVersionThatIsNotNamed) {
  for (const LockMode mode : {LockMode::shared, LockMode::exclusive}) {
    EXPECT_FAILURE(store_.version_guard(nullptr, mode), "launcher_missing", "No launcher version was selected");
    EXPECT_FAILURE(store_.version_guard({{"manifest_sha256", "../x"}, {"build_id", "b"}}, mode), "launcher_state",
                   bad_hash);
    for (const Json& reference : {Json(1), Json::object(), Json{{"manifest_sha256", std::string(64, 'a')}}}) {
      EXPECT_FAILURE(store_.version_guard(reference, mode), "launcher_state", malformed);
    }
  }
  EXPECT_TRUE(std::filesystem::is_empty(place_.root / "launcher/leases/versions"));
}

TEST_F(LauncherStartup, LetsNobodyRemoveAVersionThatItDoesNotUnderstand) {
  constexpr const char* preserve = "This launcher version has an unknown contract; preserve its content";
  const Json reference = place_.add_version("build-1");
  const std::string text = testing::bytes_of(place_.manifest_path(reference));
  for (const std::string& other : {text + " ", std::string()}) {
    write_bytes(place_.manifest_path(reference), other);
    EXPECT_FAILURE(store_.version_guard(reference, LockMode::exclusive), "launcher_recovery_uncertain", preserve);
  }
  std::filesystem::remove(place_.manifest_path(reference));
  EXPECT_FAILURE(store_.version_guard(reference, LockMode::exclusive), "launcher_recovery_uncertain", preserve);
  EXPECT_FALSE(std::filesystem::exists(place_.version_lease_path(reference)));
  // Whoever only runs it does not depend on the manifest here.
  EXPECT_NE(store_.version_guard(reference, LockMode::shared), nullptr);
}

TEST_F(LauncherStartup, ConfirmsTheFirstVersion) {
  const Json attempt = begin();
  acknowledge(attempt);
  confirm(attempt);
  const Json document = store_.load();
  EXPECT_EQ(document.at("active"), attempt.at("reference"));
  for (const char* key : {"rollback", "candidate", "attempt", "failed_candidate"}) {
    EXPECT_EQ(document.at(key), nullptr) << key;
  }
  // The files of the attempt stay.
  EXPECT_TRUE(std::filesystem::exists(store_.startup_ack_path(attempt)));
}

TEST_F(LauncherStartup, ConfirmsAnUpgradeAndKeepsTheVersionBeforeIt) {
  const Json oldest = place_.add_version("build-0");
  const Json former = place_.add_version("build-1");
  place_.set("rollback", oldest);
  place_.set("active", former);
  place_.set("failed_candidate", {{"reference", oldest}, {"problem", "startup_failed"}});
  const Json attempt = begin("build-2");
  acknowledge(attempt, "gui");
  store_.confirm_candidate(attempt, health(attempt, "gui"), pid, "gui");
  const Json document = store_.load();
  EXPECT_EQ(document.at("active"), attempt.at("reference"));
  EXPECT_EQ(document.at("rollback"), former);
  EXPECT_EQ(document.at("failed_candidate"), nullptr);
}

TEST_F(LauncherStartup, ConfirmsOnce) {
  const Json attempt = begin();
  acknowledge(attempt);
  confirm(attempt);
  expect_refusal([&] { confirm(attempt); }, "launcher_state", another_owner);
}

TEST_F(LauncherStartup, ConfirmsOnlyTheAttemptThatIsUnderWay) {
  const Json attempt = begin();
  acknowledge(attempt);
  Json other = attempt;
  other["nonce"] = nonce;
  const Json proof = health(attempt);
  for (const Json& wrong : {Json(nullptr), Json::object(), other}) {
    expect_refusal([&] { store_.confirm_candidate(wrong, proof, pid, "cli"); }, "launcher_state", another_owner);
  }
  store_.reject_candidate(attempt, "startup_failed");
  for (const Json& gone : {Json(nullptr), attempt}) {
    expect_refusal([&] { store_.confirm_candidate(gone, proof, pid, "cli"); }, "launcher_state", another_owner);
  }
}

TEST_F(LauncherStartup, ConfirmsNoUnknownProcessAndNoUnknownInterface) {
  const Json attempt = begin();
  acknowledge(attempt);
  const Json proof = health(attempt);
  expect_refusal([&] { store_.confirm_candidate(attempt, proof, 0, "cli"); }, "launcher_health",
                 "Startup PID is invalid");
  expect_refusal([&] { store_.confirm_candidate(attempt, proof, 0, "tui"); }, "launcher_interface", bad_interface);
  // Both are looked at before the attempt.
  expect_refusal([&] { store_.confirm_candidate(nullptr, proof, 0, "cli"); }, "launcher_health",
                 "Startup PID is invalid");
}

TEST_F(LauncherStartup, ConfirmsNoLauncherThatSaysSomethingElseOfItself) {
  const Json attempt = begin();
  acknowledge(attempt);
  const Json proof = health(attempt);
  std::vector<Json> wrong = {nullptr, "ready", Json::array(), Json::object()};
  for (const auto& [key, value] : proof.items()) {
    for (const Json& other : {Json(nullptr), Json("x"), Json(7), Json(1.0), Json(static_cast<double>(pid))}) {
      wrong.push_back(proof);
      wrong.back()[key] = other;
    }
    wrong.push_back(proof);
    wrong.back().erase(key);
  }
  wrong.push_back(proof);
  wrong.back()["more"] = 1;
  for (const Json& document : wrong) {
    expect_refusal([&] { store_.confirm_candidate(attempt, document, pid, "cli"); }, "launcher_health", bad_health);
  }
  expect_refusal([&] { store_.confirm_candidate(attempt, proof, pid + 1, "cli"); }, "launcher_health", bad_health);
  expect_refusal([&] { store_.confirm_candidate(attempt, proof, pid, "gui"); }, "launcher_health", bad_health);
  confirm(attempt);
}

TEST_F(LauncherStartup, WantsTheInterruptContractOfTheConsoleAlone) {
  const Json attempt = begin();
  acknowledge(attempt);
  const Json silent = manifest_of(attempt).startup_health(attempt, pid, "cli", false);
  expect_refusal([&] { store_.confirm_candidate(attempt, silent, pid, "cli"); }, "launcher_health", bad_health);
  Json window = health(attempt, "gui");
  EXPECT_FALSE(window.contains("console_interrupt_abi"));
  window["console_interrupt_abi"] = 1;
  expect_refusal([&] { store_.confirm_candidate(attempt, window, pid, "gui"); }, "launcher_health", bad_health);
}

TEST_F(LauncherStartup, ConfirmsNoLauncherWithoutItsAcknowledgement) {
  const Json attempt = begin();
  expect_refusal([&] { confirm(attempt); }, "launcher_lease", no_acknowledgement);
  acknowledge(attempt);
  std::filesystem::remove(store_.startup_ack_path(attempt));
  expect_refusal([&] { confirm(attempt); }, "launcher_lease", no_acknowledgement);
}

TEST_F(LauncherStartup, ConfirmsNoLauncherWithTheAcknowledgementOfAnother) {
  const Json attempt = begin();
  const Json right = acknowledgement(attempt);
  std::vector<Json> wrong = {nullptr, Json::array(), Json::object(), health(attempt), acknowledgement(attempt, "gui")};
  for (const auto& [key, value] : right.items()) {
    for (const Json& other : {Json(nullptr), Json("x"), Json(7)}) {
      wrong.push_back(right);
      wrong.back()[key] = other;
    }
    wrong.push_back(right);
    wrong.back().erase(key);
  }
  wrong.push_back(right);
  wrong.back()["health_abi"] = 1;
  for (const Json& document : wrong) {
    write_bytes(store_.startup_ack_path(attempt), document.dump());
    expect_refusal([&] { confirm(attempt); }, "launcher_lease", bad_acknowledgement);
  }
}

TEST_F(LauncherStartup, ReadsAnAcknowledgementWithinBounds) {
  const Json attempt = begin();
  const auto path = store_.startup_ack_path(attempt);
  const std::string text = acknowledgement(attempt).dump();
  write_bytes(path, text + std::string(4097 - text.size(), ' '));
  expect_refusal([&] { confirm(attempt); }, "size_limit", "File exceeds read limit");
  std::filesystem::remove(path);
  std::filesystem::create_symlink(place_.root.write("elsewhere", text), path);
  EXPECT_EQ(failure_of([&] { confirm(attempt); }).value().code, "unsafe_path");
  std::filesystem::remove(path);
  write_bytes(path, "{");
  EXPECT_EQ(failure_of([&] { confirm(attempt); }).value().code, "invalid_json");
  EXPECT_EQ(place_.value("attempt"), attempt);
  write_bytes(path, text + std::string(4096 - text.size(), ' '));
  confirm(attempt);
  EXPECT_EQ(place_.value("active"), attempt.at("reference"));
}

TEST_F(LauncherStartup, ConfirmsNoVersionWhoseFilesAreDamaged) {
  const Json attempt = begin();
  acknowledge(attempt);
  const Json proof = health(attempt);
  const auto payload = store_.payload(attempt.at("reference"));
  write_bytes(payload / "data/file", "Content of build-1");
  expect_refusal([&] { store_.confirm_candidate(attempt, proof, pid, "cli"); }, "content_mismatch",
                 failure_of([&] { store_.confirm_candidate(attempt, proof, pid, "cli"); }).value().what());
  std::filesystem::remove(payload / "data/file");
  EXPECT_EQ(failure_of([&] { confirm(attempt); }).value().code, "missing_file");
  write_bytes(place_.manifest_path(attempt.at("reference")), "{}");
  expect_refusal([&] { store_.confirm_candidate(attempt, proof, pid, "cli"); }, "content_mismatch",
                 "Stored launcher manifest changed");
}

TEST_F(LauncherStartup, RejectsAVersionWithoutTouchingTheOthers) {
  place_.set("active", place_.add_version("build-1"));
  place_.set("rollback", place_.add_version("build-0"));
  const Json attempt = begin("build-2");
  Json expected = store_.load();
  store_.reject_candidate(attempt, "startup_failed");
  expected["generation"] = expected.at("generation").get<int>() + 1;
  expected["attempt"] = nullptr;
  expected["failed_candidate"] = {{"reference", attempt.at("reference")}, {"problem", "startup_failed"}};
  EXPECT_EQ(store_.load(), expected);
  EXPECT_EQ(store_.begin_candidate(), nullptr);
}

TEST_F(LauncherStartup, RejectsWithABoundedProblem) {
  const Json attempt = begin();
  for (const std::string& problem : {std::string(), std::string(81, 'a'), std::string("A"), std::string("a b"),
                                     std::string("a.b"), std::string("\xc3\xa4"), std::string("a\0", 2)}) {
    expect_refusal([&] { store_.reject_candidate(attempt, problem); }, "launcher_state", bad_problem);
  }
  const std::string longest = "az09_-" + std::string(74, 'a');
  store_.reject_candidate(attempt, longest);
  EXPECT_EQ(place_.value("failed_candidate").at("problem"), longest);
}

TEST_F(LauncherStartup, RejectsOnlyTheAttemptThatIsUnderWay) {
  expect_refusal([&] { store_.reject_candidate(nullptr, "x"); }, "launcher_state", another_owner);
  const Json attempt = begin();
  Json other = attempt;
  other["nonce"] = nonce;
  for (const Json& wrong : {Json(nullptr), Json::object(), other}) {
    expect_refusal([&] { store_.reject_candidate(wrong, "startup_failed"); }, "launcher_state", another_owner);
  }
}

// What the next bootstrap finds after a crash at each moment of a start.
TEST_F(LauncherStartup, IsRecognisedAfterACrashAtAnyMoment) {
  const Json reference = place_.add_version("build-1");
  place_.set("candidate", reference);
  store_.recover_attempt();
  EXPECT_EQ(place_.value("candidate"), reference);

  const Json attempt = store_.begin_candidate();
  {
    const FileLock launcher(store_.startup_lease_path(attempt), false, LockMode::shared);
    EXPECT_EQ(failure_of([&] { store_.recover_attempt(); }).value().code, "launcher_running");
    EXPECT_EQ(place_.value("attempt"), attempt);
  }
  store_.recover_attempt();
  EXPECT_EQ(place_.value("failed_candidate").at("problem"), "startup_interrupted");

  const Json next = begin("build-2");
  acknowledge(next);
  confirm(next);
  store_.recover_attempt();
  EXPECT_EQ(place_.value("active"), next.at("reference"));
  EXPECT_TRUE(std::filesystem::exists(store_.startup_ack_path(next)));
}

}  // namespace
}  // namespace ravok::launcher_startup_test
