#include "app/launcher/launcher_runtime.hpp"

#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "app/launcher/launcher_image.hpp"
#include "app/launcher/launcher_startup.hpp"
#include "support/companion.hpp"
#include "support/failure.hpp"
#include "support/launcher_place.hpp"
#include "support/process.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"
#include "support/with_environment.hpp"

namespace ravok::launcher_runtime_test {
namespace {

using testing::bytes_of;
using testing::Companion;
using testing::failure_of;
using testing::is_lock_busy;
using testing::LauncherPlace;
using testing::same_tree;
using testing::TemporaryRoot;
using testing::tree_state;
using testing::WithEnvironment;
using testing::write_bytes;

constexpr const char* mismatch = "Launcher startup does not match this build, interface or data root";
constexpr const char* other_image = "Running launcher image differs from its verified native entry point";
constexpr const char* no_identity = "Native helper has no bounded launcher identity";
constexpr const char* other_role = "Running helper image differs from its declared native role";
constexpr const char* too_deep = "Native executable ancestry exceeds its bound";
constexpr const char* staged = "A staged Ravok image cannot initialize; start the installed bootstrap";
constexpr const char* in_use = "Another Ravok operation is using this state";

// The environment of this process, changed for as long as the object lives.
class WithVariables {
 public:
  explicit WithVariables(const std::map<std::string, std::string>& variables) {
    for (const auto& [name, value] : variables) {
      changes_.push_back(std::make_unique<WithEnvironment>(name, value));
    }
  }

 private:
  std::vector<std::unique_ptr<WithEnvironment>> changes_;
};

void make_program(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  write_bytes(path, bytes);
  chmod(path.c_str(), 0755);
}

class LauncherRuntimes : public ::testing::Test {
 protected:
  std::string data_root() const { return place_.root.path().string(); }
  std::filesystem::path program(const std::string& name = "bin/program") const {
    return place_.store.payload(version_) / name;
  }

  Json begin() const {
    place_.set("candidate", version_);
    return place_.store.begin_candidate();
  }
  ProcessEnvironment authority(const Json& attempt, const std::string& interface = "cli") const {
    return place_.store.health_environment(attempt, interface);
  }

  // What a launcher says that runs with these variables and this task.
  std::string say(const std::filesystem::path& image, const ProcessEnvironment& variables, const std::string& task,
                  const std::string& interface = "cli", const std::string& root = {}) const {
    const testing::ProgramResult result = testing::run_program(
        {image.string(), {"--data-dir", root.empty() ? data_root() : root, interface, task}, variables, {}});
    EXPECT_EQ(result.errors, "");
    return result.output;
  }

  static std::string companion() { return bytes_of(RAVOK_LAUNCHER_COMPANION); }

  const LauncherPlace place_;
  const Json version_ = place_.add_version("build-1", {companion(), companion() + " ", companion() + "  "});
};

TEST_F(LauncherRuntimes, AreNoneOfAProgramThatNoStoreManages) {
  const TemporaryRoot other;
  for (const ProcessEnvironment& variables : {ProcessEnvironment(), cleared_startup_environment()}) {
    const std::string gone = variables.empty() ? "-----" : "+++++";
    EXPECT_EQ(say(RAVOK_LAUNCHER_COMPANION, variables, "outside", "cli", other.path().string()),
              "not attached\nnot pending" + gone + "\n");
  }
  EXPECT_TRUE(other.names().empty());
  EXPECT_EQ(LauncherRuntime::attach("build-1", "gui", other.path()), nullptr);
  report_launcher_health(nullptr);
}

TEST_F(LauncherRuntimes, KnowTheVersionThatTheyRunFromWithoutAnAttempt) {
  const TemporaryRoot other;
  const auto before = tree_state(place_.root / "launcher/health");
  for (const ProcessEnvironment& variables : {ProcessEnvironment(), cleared_startup_environment()}) {
    // The store is that of the image, whatever folder the launcher was told.
    EXPECT_EQ(say(program(), variables, "outside", "cli", other.path().string()),
              data_root() + " " + version_.dump() +
                  " null\nnot pending-----\n"
                  "launcher_health: Launcher startup health needs its live native leases\n");
  }
  EXPECT_TRUE(std::filesystem::exists(place_.version_lease_path(version_)));
  EXPECT_TRUE(std::filesystem::is_empty(place_.root / "launcher/leases/attempts"));
  EXPECT_TRUE(same_tree(tree_state(place_.root / "launcher/health"), before));
  EXPECT_TRUE(other.names().empty());
}

TEST_F(LauncherRuntimes, AreTheEntryOfTheirInterface) {
  EXPECT_EQ(say(program(), {}, "run", "gui"), std::string("launcher_identity: ") + other_image + "\n");
  EXPECT_EQ(say(program("bin/window"), {}, "outside"), std::string("launcher_identity: ") + other_image + "\n");
  EXPECT_EQ(say(program("bin/helper"), {}, "outside"), std::string("launcher_identity: ") + other_image + "\n");
  EXPECT_EQ(say(program("bin/window"), {}, "outside", "gui").substr(0, data_root().size()), data_root());
}

TEST_F(LauncherRuntimes, AcknowledgeAndReportAsAnAttempt) {
  const Json attempt = begin();
  const WithVariables variables(authority(attempt));
  Companion launcher(program(), {"--data-dir", data_root(), "cli", "stay"});
  EXPECT_EQ(launcher.read_line(), "not pending-----");
  const Json acknowledgement = Json::parse(bytes_of(place_.store.startup_ack_path(attempt)));
  const std::uint64_t pid = acknowledgement.at("pid").get<std::uint64_t>();
  const LauncherManifest manifest = place_.store.manifest(version_);
  EXPECT_EQ(acknowledgement, lease_document(manifest, attempt, pid, "cli"));
  // No parent has given this launcher a channel, so it does not claim that contract.
  EXPECT_EQ(Json::parse(bytes_of(place_.store.health_path(attempt))),
            manifest.startup_health(attempt, pid, "cli", false));
  struct stat status = {};
  EXPECT_EQ(stat(place_.store.health_path(attempt).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, mode_t{S_IFREG | 0600});
  // The runtime is gone, and the leases last as long as the process.
  EXPECT_TRUE(is_lock_busy(place_.store.startup_lease_path(attempt)));
  EXPECT_TRUE(is_lock_busy(place_.version_lease_path(version_)));
  EXPECT_FALSE(is_lock_busy(place_.version_lease_path(version_), LockMode::shared));
  launcher.close_input();
  EXPECT_EQ(launcher.wait(), 0);
  EXPECT_FALSE(is_lock_busy(place_.store.startup_lease_path(attempt)));
  EXPECT_FALSE(is_lock_busy(place_.version_lease_path(version_)));
}

TEST_F(LauncherRuntimes, KnowTheirDataFolderByAnyForm) {
  const TemporaryRoot other;
  std::filesystem::create_symlink(place_.root.path(), other / "link");
  ProcessEnvironment variables = authority(begin());
  variables["RAVOK_LAUNCHER_DATA_ROOT"] = (other / "link/launcher/..").string();
  const std::string said = say(program(), variables, "outside", "cli", (other / "link/./").string());
  EXPECT_EQ(said, data_root() + " " + version_.dump() + " " + place_.value("attempt").dump() + "\nnot pending-----\n");
}

TEST_F(LauncherRuntimes, ReportOnce) {
  const Json attempt = begin();
  const std::string said = say(program(), authority(attempt), "twice");
  EXPECT_EQ(said, "reported\nfile_write: Cannot create export; the destination may already exist (" +
                      std::to_string(EEXIST) + ")\n");
  EXPECT_TRUE(Json::accept(bytes_of(place_.store.health_path(attempt))));
}

TEST_F(LauncherRuntimes, DoNotAttachToAnAttemptThatIsOver) {
  const Json attempt = begin();
  place_.store.reject_candidate(attempt, "startup_failed");
  const std::string before = place_.document_text();
  EXPECT_EQ(say(program(), authority(attempt), "run"),
            "launcher_health: Launcher startup is no longer pending or cannot protect its content\n");
  EXPECT_EQ(place_.document_text(), before);
  EXPECT_FALSE(std::filesystem::exists(place_.store.startup_ack_path(attempt)));
}

TEST_F(LauncherRuntimes, DoNotReportForAnAttemptThatIsOver) {
  const Json attempt = begin();
  const WithVariables variables(authority(attempt));
  Companion launcher(program(), {"--data-dir", data_root(), "cli", "late"});
  EXPECT_EQ(launcher.read_line(), "attached");
  place_.store.reject_candidate(attempt, "startup_failed");
  launcher.close_input();
  EXPECT_EQ(launcher.read_line(), "launcher_health: Launcher startup attempt is no longer pending");
  EXPECT_EQ(launcher.wait(), 3);
  EXPECT_FALSE(std::filesystem::exists(place_.store.health_path(attempt)));
}

TEST_F(LauncherRuntimes, DoNotReportForAManifestThatChangedMeanwhile) {
  const Json attempt = begin();
  const WithVariables variables(authority(attempt));
  Companion launcher(program(), {"--data-dir", data_root(), "cli", "late"});
  EXPECT_EQ(launcher.read_line(), "attached");
  const std::filesystem::path manifest = place_.manifest_path(attempt.at("reference"));
  write_bytes(manifest, bytes_of(manifest) + " ");
  launcher.close_input();
  EXPECT_EQ(launcher.read_line(), "content_mismatch: Stored launcher manifest changed");
  EXPECT_EQ(launcher.wait(), 3);
  EXPECT_FALSE(std::filesystem::exists(place_.store.health_path(attempt)));
}

TEST_F(LauncherRuntimes, GiveUpTheirAuthorityOrFail) {
  const Json attempt = begin();
  EXPECT_EQ(say(program(), authority(attempt), "mute"), "launcher_health: Cannot clear launcher startup authority\n");
  EXPECT_FALSE(std::filesystem::exists(place_.store.health_path(attempt)));
}

TEST_F(LauncherRuntimes, DoNotRunFromAStagingArea) {
  const auto image = place_.root / "launcher/staging/0/bin/program";
  make_program(image, companion());
  const std::string refusal = std::string("launcher_staging: ") + staged + "\nhint: self status\n";
  EXPECT_EQ(say(image, {}, "outside"), refusal);
  EXPECT_EQ(say(image, authority(begin()), "outside"), refusal);
}

TEST_F(LauncherRuntimes, DoNotRunFromATemporaryCopyOfTheHelper) {
  const auto image = place_.root / "ravok-maintenance-1/program";
  make_program(image, companion());
  EXPECT_EQ(say(image, {}, "outside"), "maintenance_copy: A temporary maintenance helper cannot start Ravok\n");
}

TEST_F(LauncherRuntimes, DoNotRunInAnUnfinishedInstallation) {
  place_.root.write(".ravok-setup-incomplete", "");
  EXPECT_EQ(say(program(), {}, "outside"),
            "native_install_incomplete: Ravok setup did not finish in " + data_root() +
                ". Run the Ravok installer again to repair it.\nhint: Run the Ravok installer and choose Repair\n");
}

TEST_F(LauncherRuntimes, DoNotAttachWhileTheirVersionIsBeingRemoved) {
  const Json attempt = begin();
  const std::string refusal = std::string("busy: ") + in_use + "\n";
  {
    const auto removal = place_.store.version_guard(version_, LockMode::exclusive);
    EXPECT_EQ(say(program(), {}, "outside"), refusal);
    EXPECT_EQ(say(program(), authority(attempt), "outside"), refusal);
  }
  const FileLock probe(place_.store.startup_lease_path(attempt), false, LockMode::exclusive);
  EXPECT_EQ(say(program(), authority(attempt), "outside"), refusal);
  EXPECT_FALSE(std::filesystem::exists(place_.store.startup_ack_path(attempt)));
}

TEST_F(LauncherRuntimes, CheckWhatTheyAreTold) {
  EXPECT_FAILURE(LauncherRuntime::attach("build-1", "tui", place_.root.path()), "launcher_interface",
                 "Choose the CLI or GUI launcher interface");
  EXPECT_EQ(failure_of([&] { LauncherRuntime::attach("Build", "cli", place_.root.path()); }).value().code,
            "invalid_identity");
  EXPECT_FAILURE(LauncherRuntime::attach("build-1", "cli", "/"), "unsafe_path", "Path must be a safe relative path");
}

// This test's own program stands for a launcher whose environment is wrong.
TEST_F(LauncherRuntimes, BelieveNoEnvironmentThatDisagrees) {
  const TemporaryRoot other;
  const Json attempt = begin();
  const auto before = tree_state(place_.root.path());
  const auto attach_with = [&](const std::string& name, const std::optional<std::string>& value) {
    const WithVariables authorised(authority(attempt));
    const WithEnvironment changed(name, value);
    return failure_of([&] { LauncherRuntime::attach("build-1", "cli", place_.root.path()); });
  };
  const auto expect = [&](const std::string& name, const std::optional<std::string>& value, const std::string& code,
                          const std::string& message) {
    const auto failure = attach_with(name, value);
    ASSERT_TRUE(failure) << name;
    EXPECT_EQ(failure->code, code) << name;
    EXPECT_EQ(failure->what(), message) << name;
  };
  using Value = std::optional<std::string>;
  for (const Value& value : {Value("build-2"), Value(""), Value()}) {
    expect("RAVOK_LAUNCHER_BUILD", value, "launcher_health", mismatch);
  }
  for (const Value& value : {Value("gui"), Value(""), Value()}) {
    expect("RAVOK_LAUNCHER_INTERFACE", value, "launcher_health", mismatch);
  }
  for (const Value& value : {Value(other.path().string()), Value((other / "none").string()), Value(""), Value()}) {
    expect("RAVOK_LAUNCHER_DATA_ROOT", value, "launcher_health", mismatch);
  }
  for (const Value& value : {Value(std::string(64, 'A')), Value("x"), Value(""), Value()}) {
    expect("RAVOK_LAUNCHER_MANIFEST", value, "launcher_state", "Launcher manifest identity is invalid");
  }
  for (const Value& value : {Value("x"), Value(std::string(32, 'A')), Value(std::string(33, 'a'))}) {
    expect("RAVOK_LAUNCHER_HEALTH_NONCE", value, "launcher_state", "Launcher startup identity is invalid");
  }
  for (const std::string_view name : startup_variables) {
    expect(std::string(name), std::string(8193, 'a'), "environment_limit",
           "Native process text exceeds its byte bound");
  }
  EXPECT_TRUE(same_tree(tree_state(place_.root.path()), before));
}

TEST_F(LauncherRuntimes, HoldNothingAfterARefusal) {
  const Json attempt = begin();
  const WithVariables variables(authority(attempt));
  EXPECT_FAILURE(LauncherRuntime::attach("build-1", "cli", place_.root.path()), "launcher_identity", other_image);
  EXPECT_FALSE(is_lock_busy(place_.store.startup_lease_path(attempt)));
  EXPECT_FALSE(is_lock_busy(place_.version_lease_path(version_)));
  EXPECT_FALSE(std::filesystem::exists(place_.store.startup_ack_path(attempt)));
  EXPECT_TRUE(launcher_startup_pending());
}

TEST_F(LauncherRuntimes, TellWhetherAnAttemptIsPending) {
  constexpr const char* name = "RAVOK_LAUNCHER_HEALTH_NONCE";
  const WithEnvironment none(name, std::nullopt);
  EXPECT_FALSE(launcher_startup_pending());
  const WithEnvironment empty(name, "");
  EXPECT_FALSE(launcher_startup_pending());
  const WithEnvironment any(name, "x");
  EXPECT_TRUE(launcher_startup_pending());
  const WithEnvironment too_long(name, std::string(8193, 'x'));
  EXPECT_FAILURE(launcher_startup_pending(), "environment_limit", "Native process text exceeds its byte bound");
}

// Where images lie.

std::string folders(int count) {
  std::string path;
  for (int i = 0; i < count; ++i) {
    path += "/d";
  }
  return path;
}

TEST(LauncherImage, BelongsToTheVersionAboveIt) {
  const std::string hash(64, 'a');
  for (const char* below : {"program", "bin/program", "a/b/c/../program"}) {
    const auto version = managed_version("/data/launcher/versions/" + hash + "/" + below);
    ASSERT_TRUE(version) << below;
    EXPECT_EQ(version->root, "/data");
    EXPECT_EQ(version->manifest_sha256, hash);
  }
  // The nearest version counts.
  const auto inner =
      managed_version("/data/launcher/versions/" + hash + "/launcher/versions/" + std::string(64, 'b') + "/program");
  ASSERT_TRUE(inner);
  EXPECT_EQ(inner->manifest_sha256, std::string(64, 'b'));
}

TEST(LauncherImage, BelongsToNoVersionElsewhere) {
  const std::string hash(64, 'a');
  for (const std::string& path :
       {"/data/launcher/versions/" + hash, "/data/launcher/version/" + hash + "/program",
        "/data/launchers/versions/" + hash + "/program", "/data/launcher/versions/" + hash.substr(1) + "/program",
        "/data/launcher/versions/x/" + hash + "/program", std::string("/program")}) {
    EXPECT_FALSE(managed_version(path)) << path;
  }
  for (const std::string& name : {std::string(64, 'A'), std::string(64, 'g')}) {
    EXPECT_FAILURE(managed_version("/data/launcher/versions/" + name + "/program"), "launcher_state",
                   "Launcher manifest identity is invalid");
  }
}

TEST(LauncherImage, IsLookedForWithinBounds) {
  EXPECT_FALSE(managed_version(folders(256) + "/program"));
  EXPECT_FAILURE(managed_version(folders(257) + "/program"), "launcher_identity", too_deep);
  reject_staged_image(folders(256) + "/program");
  EXPECT_EQ(failure_of([&] { reject_staged_image(folders(257) + "/program"); }).value().code, "unsafe_path");
}

TEST(LauncherImage, IsRefusedInAStagingArea) {
  for (const char* path : {"/data/launcher/staging/program", "/data/launcher/staging/0/bin/program",
                           "/data/launcher/staging/0/launcher/versions/x/program", "/launcher/staging/x/../program"}) {
    const auto failure = failure_of([&] { reject_staged_image(path); });
    ASSERT_TRUE(failure) << path;
    EXPECT_EQ(failure->code, "launcher_staging");
    EXPECT_STREQ(failure->what(), staged);
    EXPECT_EQ(failure->details, std::vector<std::string>{"self status"});
  }
  for (const char* path : {"/data/staging/program", "/data/launcher/staging", "/data/launcher/x/staging/program",
                           "/data/launcher/staging2/program"}) {
    EXPECT_NO_THROW(reject_staged_image(path)) << path;
  }
}

// Helpers.

class LauncherHelpers : public LauncherRuntimes {
 protected:
  std::unique_ptr<FileLock> guard(const std::filesystem::path& image, const std::string& role = "maintenance",
                                  const std::string& build_id = "build-1") const {
    return launcher_helper_guard(image, role, build_id);
  }
};

TEST_F(LauncherHelpers, HoldTheirVersionUntilTheProcessEnds) {
  Companion helper(program("bin/helper"), {"--data-dir", data_root(), "cli", "helper", "maintenance"});
  EXPECT_EQ(helper.read_line(), "attached");
  EXPECT_TRUE(is_lock_busy(place_.version_lease_path(version_)));
  EXPECT_FALSE(is_lock_busy(place_.version_lease_path(version_), LockMode::shared));
  helper.close_input();
  EXPECT_EQ(helper.wait(), 0);
  EXPECT_FALSE(is_lock_busy(place_.version_lease_path(version_)));
}

TEST_F(LauncherHelpers, AreKnownByTheirPathTheirRoleAndTheirBytes) {
  const auto lease = guard(program("bin/helper"));
  EXPECT_TRUE(lease->matches_path(place_.version_lease_path(version_)));
}

TEST_F(LauncherHelpers, HaveOneOfThreeRoles) {
  for (const char* role : {"", "Maintenance", "maintenance-cli", "cli"}) {
    EXPECT_FAILURE(guard(program("bin/helper"), role), "launcher_helper", "Unsupported native helper role");
  }
  for (const char* role : {"crash-handler", "maintenance-gui"}) {
    EXPECT_FAILURE(guard(program("bin/helper"), role), "launcher_helper", other_role);
  }
  EXPECT_FALSE(is_lock_busy(place_.version_lease_path(version_)));
}

TEST_F(LauncherHelpers, AreNotTheEntryOrACopy) {
  EXPECT_FAILURE(guard(program()), "launcher_helper", other_role);
  make_program(program("bin/copy"), companion() + "  ");
  EXPECT_FAILURE(guard(program("bin/copy")), "launcher_helper", other_role);
  EXPECT_FAILURE(guard(program("bin/none")), "launcher_helper", other_role);
  EXPECT_FAILURE(guard(RAVOK_LAUNCHER_COMPANION), "launcher_helper", no_identity);
}

TEST_F(LauncherHelpers, HaveTheBytesOfTheRelease) {
  make_program(program("bin/helper"), companion());
  EXPECT_FAILURE(guard(program("bin/helper")), "content_mismatch",
                 "Native helper image differs from its verified launcher inventory");
  std::filesystem::remove(program("bin/helper"));
  EXPECT_EQ(failure_of([&] { guard(program("bin/helper")); }).value().code, "file_read");
  EXPECT_FALSE(is_lock_busy(place_.version_lease_path(version_)));
}

TEST_F(LauncherHelpers, BelongToTheirBuild) {
  EXPECT_EQ(failure_of([&] { guard(program("bin/helper"), "maintenance", "Build"); }).value().code, "invalid_identity");
  EXPECT_FAILURE(guard(program("bin/helper"), "maintenance", "build-2"), "launcher_helper", no_identity);
  const std::string text = bytes_of(place_.manifest_path(version_));
  Json other_kind = Json::parse(text);
  other_kind["kind"] = "ravok-bootstrap-release";
  for (const std::string& document :
       {std::string("[]"), std::string("{}"), std::string(R"({"build_id":1,"kind":1})"), other_kind.dump()}) {
    write_bytes(place_.manifest_path(version_), document);
    EXPECT_FAILURE(guard(program("bin/helper")), "launcher_helper", no_identity);
  }
  write_bytes(place_.manifest_path(version_), text + " ");
  EXPECT_FAILURE(guard(program("bin/helper")), "content_mismatch", "Stored launcher manifest changed");
  write_bytes(place_.manifest_path(version_), std::string(524'289, ' '));
  EXPECT_FAILURE(guard(program("bin/helper")), "size_limit", "File exceeds read limit");
}

TEST_F(LauncherHelpers, AreNamedByTheirPhysicalPath) {
  for (const std::filesystem::path& image :
       {program("bin/../bin/helper"), program("bin/helper").lexically_relative(std::filesystem::current_path())}) {
    const auto failure = failure_of([&] { guard(image); });
    ASSERT_TRUE(failure) << image;
    EXPECT_EQ(failure->code, "launcher_identity") << image;
    EXPECT_STREQ(failure->what(), "Native helper image must be an ordinary physical path");
  }
}

TEST_F(LauncherHelpers, DoNotRunFromAStagingArea) {
  const auto image = place_.root / "launcher/staging/0/bin/helper";
  make_program(image, companion());
  EXPECT_FAILURE(guard(image), "launcher_staging", staged);
}

TEST_F(LauncherHelpers, DoNotRunWhileTheirVersionIsBeingRemoved) {
  const auto removal = place_.store.version_guard(version_, LockMode::exclusive);
  EXPECT_FAILURE(guard(program("bin/helper")), "busy", in_use);
}

}  // namespace
}  // namespace ravok::launcher_runtime_test
