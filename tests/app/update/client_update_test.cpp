#include "app/update/client_update.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "app/launcher/launcher_store.hpp"
#include "app/update/update_console.hpp"
#include "domain/data_layout.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/file/posix_files.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/tuf_repository.hpp"

namespace ravok::client_update_test {
namespace {

using Lines = std::vector<std::string>;

Json skip(const char* reason) { return {{"staged", false}, {"skipped", reason}}; }

PartUpdate done(Json result) { return {std::move(result), std::nullopt}; }
PartUpdate failed(const std::string& code, const std::string& message) { return {nullptr, Error(code, message)}; }

std::string launcher_line(const Json& result) {
  const Lines lines = update_lines({.launcher = done(result), .bootstrap = {}});
  EXPECT_EQ(lines.size(), 1u);
  return lines.empty() ? "" : lines.front();
}
std::string bootstrap_line(const Json& result) {
  const Lines lines = update_lines({.launcher = {}, .bootstrap = done(result)});
  EXPECT_EQ(lines.size(), 1u);
  return lines.empty() ? "" : lines.front();
}

TEST(UpdateLines, SayWhatCameOfTheLauncher) {
  EXPECT_EQ(
      launcher_line(
          {{"staged", true}, {"activated", false}, {"build_id", "2.0.0"}, {"manifest_sha256", std::string(64, 'a')}}),
      "Ravok 2.0.0 is ready; the next start tries it.");
  EXPECT_EQ(launcher_line({{"staged", false}, {"already_current", true}}), "Ravok is up to date.");
  EXPECT_EQ(launcher_line(skip("candidate_pending")), "A newer Ravok is ready already; the next start tries it.");
  EXPECT_EQ(launcher_line(skip("cleanup_pending")), "A clean-up of Ravok has to end first.");
  EXPECT_EQ(launcher_line(skip("failed_before")), "The newest Ravok failed when it was tried; this one stays.");
  EXPECT_EQ(launcher_line(skip("not_installed")), "No version of Ravok has been started yet.");
  EXPECT_EQ(launcher_line(skip("not_published")), "No Ravok is published for this system.");
  EXPECT_EQ(launcher_line(skip("startup_pending")), "Ravok is being started; updates wait until it has.");
  EXPECT_EQ(launcher_line(skip("network")), "No answer about updates of Ravok: network.");
}

TEST(UpdateLines, SayWhatCameOfTheBootstrap) {
  EXPECT_EQ(bootstrap_line({{"status", "staged"}}), "An update of the bootstrap is ready; the next start applies it.");
  EXPECT_EQ(bootstrap_line({{"status", "pending"}}),
            "An update of the bootstrap is ready already; the next start applies it.");
  EXPECT_EQ(bootstrap_line({{"status", "current"}}), "The bootstrap is up to date.");
  EXPECT_EQ(bootstrap_line({{"status", "rejected"}}), "The newest bootstrap failed when it was tried; this one stays.");
  EXPECT_EQ(bootstrap_line({{"status", "not_published"}}), "No bootstrap is published for this system.");
  EXPECT_EQ(bootstrap_line({{"status", "skipped"}, {"skipped", "network"}}),
            "No answer about updates of the bootstrap.");
}

TEST(UpdateLines, SayNothingOfAPartThatFailedOrWasNotBegun) {
  EXPECT_EQ(update_lines({.launcher = failed("network", "No server"), .bootstrap = {}}), Lines{});
}

TEST(ClientUpdate, HoldsBothPartsInItsDocument) {
  const ClientUpdate update = {.launcher = done(skip("network")), .bootstrap = done({{"status", "current"}})};
  EXPECT_EQ(update.problem(), nullptr);
  EXPECT_EQ(update.to_json(),
            (Json{{"schema_version", 1}, {"launcher", skip("network")}, {"bootstrap", {{"status", "current"}}}}));
}

TEST(ClientUpdate, EndsWithTheFirstFailureAndKeepsTheOtherPart) {
  const Json launcher = {{"code", "size_limit"}, {"message", "Too much"}};
  const Json bootstrap = {{"code", "network"}, {"message", "No server"}};
  const ClientUpdate both = {.launcher = failed("size_limit", "Too much"), .bootstrap = failed("network", "No server")};
  EXPECT_EQ(both.to_json(), (Json{{"schema_version", 1},
                                  {"launcher", {{"problem", launcher}}},
                                  {"bootstrap", {{"problem", bootstrap}}},
                                  {"problem", launcher}}));
  const ClientUpdate second = {.launcher = done(skip("failed_before")), .bootstrap = failed("network", "No server")};
  EXPECT_EQ(second.problem()->code, "network");
  EXPECT_EQ(second.to_json().at("problem"), bootstrap);
  const ClientUpdate not_begun = {.launcher = failed("cancelled", "Cancelled"), .bootstrap = {}};
  EXPECT_TRUE(not_begun.to_json().at("bootstrap").is_null());
}

TEST(ClientUpdate, ShowsBytesThatAreNoTextInItsDocument) {
  const ClientUpdate update = {.launcher = failed("file_read", "Cannot read \xff"), .bootstrap = {}};
  EXPECT_EQ(text_at(update.to_json().at("problem"), "message"), "Cannot read \\xff");
}

// An installation whose repository nobody serves.
class UpdateWithoutServer : public ::testing::Test {
 protected:
  UpdateWithoutServer() {
    private_directory(paths_.trust);
    repository_.publish();
    TufClient::initialize(paths_.trust, repository_.root_text());
    root_.write("data/repository.json", R"({"schema_version":1,"origin":"https://127.0.0.1:1","ca_bundle":""})");
    root_.write("data/native/installation.json", "{}");
  }

  const testing::TemporaryRoot root_;
  const std::filesystem::path data_ = root_.directory("data");
  const DataPaths paths_{data_};
  testing::TufRepository repository_;
};

TEST_F(UpdateWithoutServer, TellsThatTheRepositoryCannotBeReachedOnceAndLeavesTheBootstrap) {
  std::vector<std::string> begun;
  const UpdateObserver observer = {[&](std::string_view work) { begun.emplace_back(work); }, {}};
  const ClientUpdate update = update_client(data_, observer, false, {});
  ASSERT_NE(update.problem(), nullptr);
  EXPECT_EQ(update.problem()->code, "network");
  EXPECT_TRUE(update.bootstrap.to_json().is_null());
  EXPECT_EQ(begun, Lines{"Looking for updates"});
}

TEST_F(UpdateWithoutServer, AsksNobodyInTheBackgroundWhileNoVersionWorks) {
  const ClientUpdate update = update_client(data_, {}, true, {});
  EXPECT_EQ(update.to_json(),
            (Json{{"schema_version", 1}, {"launcher", skip("not_installed")}, {"bootstrap", nullptr}}));
}

TEST_F(UpdateWithoutServer, AsksTheRepositoryBeforeItTakesTheStore) {
  const LauncherStore store(data_);
  Json document = store.load();
  document["active"] = {{"manifest_sha256", std::string(64, 'a')}, {"build_id", "build-1"}};
  store.save(document);
  const auto owner = store.owner();
  EXPECT_EQ(update_client(data_, {}, true, {}).to_json(),
            (Json{{"schema_version", 1}, {"launcher", skip("network")}, {"bootstrap", nullptr}}));
  const ClientUpdate update = update_client(data_, {}, false, {});
  ASSERT_NE(update.problem(), nullptr);
  EXPECT_EQ(update.problem()->code, "network");
}

TEST_F(UpdateWithoutServer, StopsWhereTheUserHasCancelled) {
  const ClientUpdate update = update_client(data_, {}, false, [] { return true; });
  ASSERT_NE(update.problem(), nullptr);
  EXPECT_EQ(update.problem()->code, "cancelled");
  EXPECT_TRUE(update.bootstrap.to_json().is_null());
}

TEST_F(UpdateWithoutServer, FailsAsAWholeWhereTheInstallationNamesNoRepository) {
  std::filesystem::remove(paths_.repository_record);
  const std::string message =
      "No repository for updates is recorded in " + data_.string() + "; run the Ravok installer and choose Repair";
  EXPECT_FAILURE(update_client(data_, {}, false, {}), "not_configured", message);
  EXPECT_FAILURE(update_client(data_, {}, true, {}), "not_configured", message);
}

TEST_F(UpdateWithoutServer, SkipsTheCheckWhileAnotherIsAtIt) {
  const FileLock other(paths_.trust / ".lock", false, LockMode::exclusive);
  EXPECT_EQ(update_client(data_, {}, true, {}).to_json(),
            (Json{{"schema_version", 1}, {"launcher", skip("busy")}, {"bootstrap", nullptr}}));
  EXPECT_FAILURE(update_client(data_, {}, false, {}), "busy",
                 "Another Ravok is looking for updates; try again when it is done");
}

TEST(UpdateCommand, IsOneOfThree) {
  EXPECT_TRUE(is_update_command({"self", "update"}));
  EXPECT_TRUE(is_update_command({"updates", "check", "--background"}));
  EXPECT_TRUE(is_update_command({"self", "cleanup"}));
  EXPECT_TRUE(is_update_command({"self", "cleanup", "--keep-bytes", "1"}));
  for (const std::vector<std::string>& other :
       {std::vector<std::string>{}, {"self"}, {"self", "status"}, {"updates", "check"}, {"update", "first-game"}}) {
    EXPECT_FALSE(is_update_command(other));
  }
}

}  // namespace
}  // namespace ravok::client_update_test
