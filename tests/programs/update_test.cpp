// Updates from end to end: a release on a real server, the client that finds it, prepares it, tries it out and chooses
// it, and everything that may go wrong on this way.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "platform/file/native_lock.hpp"
#include "programs/client_place.hpp"
#include "programs/update_place.hpp"
#include "support/failure.hpp"
#include "support/tree_state.hpp"

namespace ravok::update_test {
namespace {

using testing::NginxServer;
using testing::OpenedFile;
using testing::ProgramResult;
using testing::StartedProgram;
using testing::UpdatePlace;
using testing::wait_until;
using Arguments = std::vector<std::string>;

constexpr const char* second_build = "1.1.0";
constexpr const char* up_to_date = "Ravok is up to date.\nThe bootstrap is up to date.\n";
constexpr const char* second_ready = "Ravok 1.1.0 is ready; the next start tries it.\nThe bootstrap is up to date.\n";
const Arguments self_update = {"self", "update"};
const Arguments self_status = {"self", "status"};
const Arguments background_check = {"updates", "check", "--background"};

const Json current_launcher = {{"staged", false}, {"already_current", true}};
const Json current_bootstrap_part = {{"status", "current"}};

std::string words_of(const Json& reference) {
  return text_at(reference, "build_id") + " (" + text_at(reference, "manifest_sha256").substr(0, 12) + ")";
}

Arguments as_json(const Arguments& command) {
  Arguments arguments = command;
  arguments.insert(arguments.begin(), "--json");
  return arguments;
}

Json skipped(const char* reason) { return {{"staged", false}, {"skipped", reason}}; }

class Updates : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!NginxServer::is_installed()) {
      GTEST_SKIP() << "nginx is not installed";
    }
    client.emplace();
  }

  // Runs a command that says this on standard output and nothing on standard error.
  void expect_said(const Arguments& command, const std::string& output) {
    const ProgramResult result = client->run(command);
    EXPECT_EQ(result.exit_code, 0) << result.errors << client->server.complaints();
    EXPECT_EQ(result.output, output);
    EXPECT_EQ(result.errors, "");
  }
  // Runs a command with --json, which succeeds, and returns its one document.
  Json document_of(const Arguments& command) {
    const ProgramResult result = client->run(as_json(command));
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    return Json::parse(result.output);
  }
  static Json update_document(const Json& launcher, const Json& bootstrap) {
    return {{"schema_version", 1}, {"launcher", launcher}, {"bootstrap", bootstrap}};
  }

  // Runs a command that fails with this code, and says this and nothing else.
  void expect_failed(const Arguments& command, const std::string& code, const std::string& message) {
    const ProgramResult text = client->run(command);
    EXPECT_EQ(text.exit_code, 1);
    EXPECT_EQ(text.output, "");
    EXPECT_EQ(text.errors, message + "\n");
    const ProgramResult document = client->run(as_json(command));
    EXPECT_EQ(document.exit_code, 1);
    EXPECT_EQ(document.errors, message + "\n");
    EXPECT_EQ(Json::parse(document.output).at("problem"), (Json{{"code", code}, {"message", message}}));
  }
  // The same for a failure whose message is another's.
  void expect_failed(const Arguments& command, const std::string& code) {
    const ProgramResult result = client->run(as_json(command));
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
    EXPECT_EQ(Json::parse(result.output).at("problem").at("code"), code) << result.errors;
  }

  // Publishes version 1.1.0 and returns its reference.
  Json publish_second() {
    Json reference = client->release_launcher(second_build, RAVOK_NEXT_LAUNCHER, "second");
    client->publish();
    return reference;
  }

  // What must stay as it is while an update fails: the versions, what the store says of them, and the bootstrap.
  testing::TreeState installed() const {
    testing::TreeState kept = testing::only(client->place.state(), "launcher/versions");
    kept.merge(testing::only(client->place.state(), "native/bootstrap"));
    kept.emplace("state", client->state().dump());
    return kept;
  }

  std::optional<UpdatePlace> client;
};

TEST_F(Updates, GoFromTheReleaseThroughTheTrialToTheActiveVersion) {
  const Json first = client->state().at("active");
  expect_said(self_update, up_to_date);
  EXPECT_EQ(document_of(self_update), update_document(current_launcher, current_bootstrap_part));

  const Json second = publish_second();
  expect_said(self_update, second_ready);
  EXPECT_EQ(client->state().at("active"), first);
  EXPECT_EQ(client->state().at("candidate"), second);

  expect_said(self_status, "Ravok 1.1.0\nActive: " + words_of(first) +
                               "\nCandidate: none\nOn trial: " + words_of(second) + "\nRollback: none\n");
  EXPECT_EQ(client->state().at("active"), second);
  EXPECT_EQ(client->state().at("rollback"), first);
  expect_said(self_status, "Ravok 1.1.0\nActive: " + words_of(second) +
                               "\nCandidate: none\nOn trial: none\nRollback: " + words_of(first) + "\n");
  expect_said(self_update, up_to_date);
}

TEST_F(Updates, AreToldAsOneDocument) {
  const Json second = publish_second();
  EXPECT_EQ(document_of(self_update), update_document({{"staged", true},
                                                       {"activated", false},
                                                       {"build_id", second_build},
                                                       {"manifest_sha256", second.at("manifest_sha256")}},
                                                      current_bootstrap_part));
}

TEST_F(Updates, AreFoundQuietlyInTheBackground) {
  expect_said(background_check, "");
  EXPECT_EQ(document_of(background_check), update_document(current_launcher, current_bootstrap_part));
  const Json second = publish_second();
  expect_said(background_check, "");
  EXPECT_EQ(client->state().at("candidate"), second);
  // The next start is the trial, and so the check is skipped in it.
  EXPECT_EQ(document_of(background_check), update_document(skipped("startup_pending"), nullptr));
  EXPECT_EQ(client->state().at("active"), second);
}

TEST_F(Updates, AreLeftToALaterCommandByAVersionThatIsOnTrial) {
  const Json second = publish_second();
  expect_said(self_update, second_ready);
  const ProgramResult trial = client->run(self_update);
  EXPECT_EQ(trial.exit_code, 1);
  EXPECT_EQ(trial.output, "");
  EXPECT_EQ(trial.errors, "Ravok tries this version out right now; run the command again once it has started\n");
  EXPECT_EQ(client->state().at("active"), second);
  expect_said(self_update, up_to_date);
}

TEST_F(Updates, OfAVersionThatEndsAtItsStartAreRefusedAndRememberedByName) {
  const Json first = client->state().at("active");
  const Json failing = client->release_launcher("1.2.0", RAVOK_FAILING_LAUNCHER, "failing");
  client->publish();
  expect_said(self_update, "Ravok 1.2.0 is ready; the next start tries it.\nThe bootstrap is up to date.\n");

  const ProgramResult trial = client->run(self_status);
  EXPECT_EQ(trial.exit_code, 0) << trial.errors;
  const std::string status = "Ravok 1.0.0\nActive: " + words_of(first) +
                             "\nCandidate: none\nOn trial: none\nRollback: none\nFailed: " + words_of(failing) +
                             ": startup_failed\n";
  EXPECT_EQ(trial.output, status);
  expect_said(self_status, status);
  EXPECT_EQ(document_of(background_check), update_document(skipped("failed_before"), current_bootstrap_part));
  expect_said(background_check, "");

  // A later release is taken, and the failure is forgotten.
  const Json second = publish_second();
  expect_said(self_update, second_ready);
  EXPECT_TRUE(client->state().at("failed_candidate").is_null());
  EXPECT_EQ(client->run(self_status).exit_code, 0);
  EXPECT_EQ(client->state().at("active"), second);
}

TEST_F(Updates, FailWithoutTheServerAndLeaveEverything) {
  publish_second();
  const testing::TreeState before = installed();
  client->server.stop();
  expect_failed(self_update, "network");
  expect_said(background_check, "");
  EXPECT_EQ(document_of(background_check), update_document(skipped("network"), nullptr));
  EXPECT_TRUE(testing::same_tree(installed(), before));
  client->serve_all();
  expect_said(self_update, second_ready);
}

TEST_F(Updates, GoOnWhereTheServerWentDown) {
  publish_second();
  const testing::TreeState before = installed();
  const auto update = client->start_endless_update();
  client->server.stop();
  EXPECT_EQ(update->wait(), 1);
  EXPECT_TRUE(testing::same_tree(installed(), before));
  EXPECT_EQ(client->server.answered(206), 0u);
  client->serve_all();
  expect_said(self_update, second_ready);
  // It notes a request after it has sent the last byte.
  client->server.stop();
  EXPECT_EQ(client->server.answered(206), 1u);
}

TEST_F(Updates, EndWithCtrlCAndGoOnLater) {
  publish_second();
  const auto update = client->start_endless_update();
  update->send_signal(SIGINT);
  EXPECT_EQ(update->output(), "");
  EXPECT_EQ(update->errors(), "Transfer cancelled at a safe boundary\n");
  EXPECT_EQ(update->wait(), 4);
  EXPECT_TRUE(client->state().at("candidate").is_null());
  client->serve_all();
  expect_said(self_update, second_ready);
  // It notes a request after it has sent the last byte.
  client->server.stop();
  EXPECT_EQ(client->server.answered(206), 1u);
}

TEST_F(Updates, GoOnAfterTheyWereKilled) {
  publish_second();
  const auto update = client->start_endless_update();
  update->send_signal(SIGKILL);
  EXPECT_EQ(update->wait(), -SIGKILL);
  client->serve_all();
  expect_said(self_update, second_ready);
}

TEST_F(Updates, AreTakenFromNoServerThatTheInstallationDoesNotTrust) {
  publish_second();
  const testing::TreeState before = installed();
  client->server.start(testing::CertificateAuthority().issue());
  expect_failed(self_update, "network");
  client->server.start(client->authority.issue(testing::Flaw::expired));
  expect_failed(self_update, "network");
  client->server.start(client->authority.issue(testing::Flaw::other_name));
  expect_failed(self_update, "network");
  EXPECT_TRUE(testing::same_tree(installed(), before));
  std::filesystem::remove(client->place.paths().repository_ca);
  expect_failed(self_update, "ca_bundle",
                "The certificates of the repository are missing: " + client->place.paths().repository_ca.string() +
                    "; run the Ravok installer and choose Repair");
}

TEST_F(Updates, AreTakenFromNoExpiredRepository) {
  constexpr const char* expired = "Repository metadata has expired; previously installed games remain playable";
  publish_second();
  const testing::TreeState before = installed();
  client->repository.timestamp().expires = "2001-01-01T00:00:00Z";
  client->publish();
  expect_failed(self_update, "expired_metadata", expired);
  expect_failed(background_check, "expired_metadata", expired);
  EXPECT_TRUE(testing::same_tree(installed(), before));
  client->repository.timestamp().expires = "2035-01-01T00:00:00Z";
  client->publish();
  expect_said(self_update, second_ready);
}

TEST_F(Updates, AreTakenFromNoRepositoryThatWentBack) {
  const testing::TufRepository old = client->repository;
  publish_second();
  expect_said(self_update, second_ready);
  EXPECT_EQ(client->run(self_status).exit_code, 0);
  const testing::TreeState before = installed();
  client->server.serve("tuf/metadata/timestamp.json", old.text_of("timestamp"));
  expect_failed(self_update, "rollback", "Timestamp version went backwards");
  EXPECT_TRUE(testing::same_tree(installed(), before));
}

TEST_F(Updates, FollowTheKeysOfTheRepository) {
  for (const char* const role : {"root", "timestamp", "snapshot", "targets"}) {
    client->repository.rotate(role);
    client->publish();
  }
  client->repository.rotate("root");
  publish_second();
  expect_said(self_update, second_ready);
  EXPECT_GE(client->place.record("trust/root.json").at("signed").at("version"), 4);
  EXPECT_EQ(client->run(self_status).exit_code, 0);
  EXPECT_EQ(client->active(), second_build);
}

TEST_F(Updates, AreRefusedWhereTheirBytesAreOthersThanThoseSigned) {
  constexpr const char* other_bytes = "Target hash does not match signed metadata";
  publish_second();
  const testing::TreeState before = installed();
  for (const auto& [name, bytes] : client->repository.target_files()) {
    if (name.find("launcher") != std::string::npos) {
      std::string other = bytes;
      other.back() = static_cast<char>(other.back() ^ 1);
      client->server.serve("tuf/targets/" + name, other);
    }
  }
  const ProgramResult result = client->run(as_json(self_update));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, std::string(other_bytes) + "\n");
  const Json problem = {{"code", "hash_mismatch"}, {"message", other_bytes}};
  EXPECT_EQ(Json::parse(result.output), (Json{{"schema_version", 1},
                                              {"launcher", {{"problem", problem}}},
                                              {"bootstrap", current_bootstrap_part},
                                              {"problem", problem}}));
  EXPECT_TRUE(testing::same_tree(installed(), before));
  client->publish();
  expect_said(self_update, second_ready);
}

TEST_F(Updates, OfTheBootstrapAreAppliedAtTheNextStart) {
  const std::string manifest = client->release_bootstrap("second");
  client->publish();
  EXPECT_EQ(document_of(self_update), update_document(current_launcher, {{"status", "staged"}}));
  // The start of this command is the next one.
  expect_said(self_update, up_to_date);
  EXPECT_EQ(client->place.read("native/bootstrap.json"), manifest);
  EXPECT_EQ(client->place.read("native/bootstrap/data/note"), "second");
}

TEST_F(Updates, OfTheBootstrapAreNamedInTheStatusWhileTheyWait) {
  client->release_bootstrap("second");
  client->publish();
  expect_said(self_update, "Ravok is up to date.\nAn update of the bootstrap is ready; the next start applies it.\n");
  // The launcher that is started by itself applies nothing.
  const auto store = LauncherStore::existing(client->place.data());
  const std::string program = store->payload(store->load().at("active")) / "bin/ravok";
  const auto by_hand = [&](const Arguments& command) {
    return testing::run_program({program, command, {{"HOME", client->place.home()}}, ""});
  };
  const ProgramResult status = by_hand(self_status);
  EXPECT_EQ(status.exit_code, 0) << status.errors;
  EXPECT_TRUE(status.output.ends_with("\nBootstrap: an update waits for the next start\n")) << status.output;
  EXPECT_EQ(Json::parse(by_hand(as_json(self_status)).output).at("bootstrap_update_pending"), true);
  EXPECT_EQ(by_hand(self_update).output,
            "Ravok is up to date.\nAn update of the bootstrap is ready already; the next start applies it.\n");
  EXPECT_FALSE(document_of(self_status).at("bootstrap_update_pending").get<bool>());
}

TEST_F(Updates, OfTheBootstrapThatDoNotStartAreUndoneAndRememberedUntilTheNextRelease) {
  const testing::TreeState before = testing::only(client->place.state(), "native/bootstrap");
  client->release_bootstrap("bad", "/bin/false");
  client->publish();
  EXPECT_EQ(document_of(self_update).at("bootstrap"), (Json{{"status", "staged"}}));
  const ProgramResult start = client->run(self_update);
  EXPECT_EQ(start.exit_code, 0) << start.errors;
  EXPECT_EQ(start.output, "Ravok is up to date.\nThe newest bootstrap failed when it was tried; this one stays.\n");
  EXPECT_TRUE(testing::same_tree(testing::only(client->place.state(), "native/bootstrap"), before));
  EXPECT_EQ(document_of(background_check).at("bootstrap"), (Json{{"status", "rejected"}}));

  client->release_bootstrap("good");
  client->publish();
  EXPECT_EQ(document_of(self_update).at("bootstrap"), (Json{{"status", "staged"}}));
  expect_said(self_update, up_to_date);
  EXPECT_EQ(client->place.read("native/bootstrap/data/note"), "good");
}

TEST_F(Updates, LeaveNothingBehindOnceTheyAreCleanedUp) {
  const Json empty = {{"cleaned", true}, {"schema_version", 1}, {"bytes", 0}, {"kept", Json::array()}};
  const std::string first = text_at(client->state().at("active"), "manifest_sha256");
  publish_second();
  expect_said(self_update, second_ready);
  EXPECT_EQ(client->run(self_status).exit_code, 0);
  client->release_launcher("1.2.0", RAVOK_FAILING_LAUNCHER, "failing");
  client->publish();
  expect_said(self_update, "Ravok 1.2.0 is ready; the next start tries it.\nThe bootstrap is up to date.\n");
  EXPECT_EQ(client->run(self_status).exit_code, 0);
  const Json failed = client->state().at("failed_candidate");
  const ProgramResult result = client->run({"self", "cleanup"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  EXPECT_TRUE(result.output.starts_with("Removed ")) << result.output;
  EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;

  // What can be started stays, and so does what is known of the failure.
  EXPECT_EQ(client->active(), second_build);
  EXPECT_EQ(client->state().at("failed_candidate"), failed);
  EXPECT_EQ(client->build_of("rollback"), RAVOK_LAUNCHER_BUILD_ID);
  EXPECT_TRUE(std::filesystem::exists(client->launcher.version(first)));
  Json again = document_of({"self", "cleanup"});
  again.erase("removed");
  EXPECT_EQ(again, empty);
  expect_said({"self", "cleanup"}, "There was nothing to remove.\n");
  EXPECT_EQ(document_of(background_check), update_document(skipped("failed_before"), current_bootstrap_part));
}

TEST_F(Updates, AreCleanedUpWithoutOptions) {
  expect_failed({"self", "cleanup", "--keep-bytes", "1"}, "unavailable",
                "This self cleanup removes old versions alone and has no options");
}

TEST_F(Updates, AreMadeByOneProcessAtATime) {
  publish_second();
  const auto update = client->start_endless_update();
  expect_failed(self_update, "busy", "Another Ravok is looking for updates; try again when it is done");
  expect_said(background_check, "");
  EXPECT_EQ(document_of(background_check), update_document(skipped("busy"), nullptr));
  update->send_signal(SIGINT);
  EXPECT_EQ(update->wait(), 4);
  client->serve_all();
  expect_said(self_update, second_ready);
}

TEST_F(Updates, DoNotKeepTheClientFromBeingStarted) {
  publish_second();
  const auto update = client->start_endless_update();
  EXPECT_EQ(document_of(self_status).at("version"), RAVOK_LAUNCHER_BUILD_ID);
  update->send_signal(SIGINT);
  EXPECT_EQ(update->wait(), 4);
}

TEST_F(Updates, WaitForNoStartThatIsUnderWay) {
  publish_second();
  const testing::TreeState before = installed();
  {
    const FileLock start(client->launcher.owner_lock, false, LockMode::exclusive);
    const ProgramResult result = client->run(self_update);
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.output, "The bootstrap is up to date.\n");
    EXPECT_EQ(result.errors, "Another Ravok operation is using this state\n");
    EXPECT_EQ(document_of(background_check), update_document(skipped("busy"), current_bootstrap_part));
  }
  EXPECT_TRUE(testing::same_tree(installed(), before));
  expect_said(self_update, second_ready);
}

TEST_F(Updates, KeepARepairFromBeginning) {
  publish_second();
  const auto update = client->start_endless_update();
  EXPECT_FAILURE(client->place.repair(), "ravok_running",
                 "Ravok or a game from this folder is still running; close it and try again");
  update->send_signal(SIGINT);
  EXPECT_EQ(update->wait(), 4);
  EXPECT_NO_THROW(client->place.repair());
  client->serve_all();
  expect_said(self_update, second_ready);
}

TEST_F(Updates, KeepTheirStoreFromTheClientsOwnUninstall) {
  publish_second();
  const testing::TreeState before = installed();
  const auto update = client->start_endless_update();
  expect_failed({"self", "uninstall"}, "busy", "Another Ravok operation is using this state");
  EXPECT_TRUE(testing::same_tree(installed(), before));
  update->send_signal(SIGINT);
  EXPECT_EQ(update->wait(), 4);
}

TEST_F(Updates, KeepAnUninstallWaitingUntilTheyHaveEnded) {
  publish_second();
  const auto update = client->start_endless_update();
  const OpenedFile lock(client->place.paths().bootstrap_lock);
  testing::ProgramStart start = client->start_of({"uninstall", "--data-dir", client->place.data()});
  start.program = RAVOK_MAINTENANCE;
  StartedProgram uninstall(start);
  // It asks again and again whether the update has ended.
  lock.wait(3);
  EXPECT_FALSE(uninstall.has_ended());
  update->send_signal(SIGINT);
  EXPECT_EQ(update->wait(), 4);
  EXPECT_EQ(uninstall.output(), "Removed Ravok from " + client->place.data().native() + ".\n");
  EXPECT_EQ(uninstall.wait(), 0) << uninstall.errors();
  EXPECT_FALSE(std::filesystem::exists(client->place.data() / "native"));
}

TEST_F(Updates, WaitForASetupAndTakeNothingFromOneThatDidNotEnd) {
  publish_second();
  const auto store = LauncherStore::existing(client->place.data());
  testing::ProgramStart start = client->start_of(self_update);
  // Started by itself, so that no bootstrap waits before it.
  start.program = store->payload(store->load().at("active")) / "bin/ravok";
  for (const bool ends : {true, false}) {
    std::optional<NativeFileLock> setup;
    setup.emplace(client->place.paths().bootstrap_lock, true, NativeLockSharing::others, LockMode::exclusive);
    const OpenedFile lock(client->place.paths().bootstrap_lock);
    StartedProgram update(start);
    lock.wait(2);
    EXPECT_FALSE(update.has_ended());
    if (!ends) {
      client->place.write(".ravok-setup-incomplete", "{}");
    }
    setup.reset();
    EXPECT_EQ(update.errors(), ends ? ""
                                    : "Ravok setup did not finish in " + client->place.data().native() +
                                          ". Run the Ravok installer again to repair it.\n");
    EXPECT_EQ(update.output(), ends ? second_ready : "");
    EXPECT_EQ(update.wait(), ends ? 0 : 1);
  }
}

}  // namespace
}  // namespace ravok::update_test
