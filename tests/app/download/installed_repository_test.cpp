#include "app/download/installed_repository.hpp"

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/data_layout.hpp"
#include "domain/json.hpp"
#include "domain/repository_layout.hpp"
#include "platform/file/posix_files.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "support/tree_state.hpp"
#include "support/tuf_repository.hpp"

namespace ravok {
namespace {

constexpr const char* unsupported_record = "unsupported_schema";

// A data folder with the trust of a repository that nobody serves.
class InstalledRepositoryTest : public ::testing::Test {
 protected:
  InstalledRepositoryTest() {
    private_directory(paths_.trust);
    repository_.publish();
    TufClient::initialize(paths_.trust, repository_.root_text());
  }

  void record(const std::string& text) const { root_.write("data/repository.json", text); }
  void record(const std::string& origin, const std::string& bundle) const {
    record(Json({{"schema_version", 1}, {"origin", origin}, {"ca_bundle", bundle}}).dump());
  }
  void expect_refused(const std::string& text, const std::string& code, const std::string& message) const {
    record(text);
    EXPECT_FAILURE(installed_repository(data_), code, message) << text;
  }
  void expect_malformed(const std::string& text) const {
    expect_refused(text, unsupported_record, "Repository record is malformed: " + paths_.repository_record.string());
  }

  const testing::TemporaryRoot root_;
  const std::filesystem::path data_ = root_.directory("data");
  const DataPaths paths_{data_};
  testing::TufRepository repository_;
};

TEST(RepositoryLayout, PutsTheTwoFoldersBelowTheOrigin) {
  EXPECT_EQ(metadata_address("https://games.example:8443"), "https://games.example:8443/tuf/metadata/");
  EXPECT_EQ(targets_address("https://games.example:8443"), "https://games.example:8443/tuf/targets/");
}

TEST(InstalledTufLimits, AllowWhatTheTransportAllowsAndWhatTheInstallerTook) {
  const TufLimits limits = installed_tuf_limits();
  EXPECT_EQ(limits.root_bytes, 524'288u);
  EXPECT_EQ(limits.timestamp_bytes, 262'144u);
  EXPECT_EQ(limits.metadata_bytes, 16'777'216u);
  EXPECT_EQ(limits.root_rotations, 256u);
  EXPECT_EQ(limits.delegations, 64u);
  // The transport refuses a request for one byte more, before it asks for anything.
  HttpsTransport transport("https://127.0.0.1:1", {});
  EXPECT_FAILURE(transport.get("timestamp.json", limits.metadata_bytes + 1), "size_limit",
                 "In-memory response limit exceeds 16 MiB");
}

TEST_F(InstalledRepositoryTest, ReadsWhatTheInstallerRecords) {
  record("https://games.example:8443", "");
  const RepositoryRecord without = installed_repository(data_);
  EXPECT_EQ(without.origin, "https://games.example:8443");
  EXPECT_EQ(without.ca_bundle, "");

  root_.write("data/repository-ca.pem", "certificates");
  record("https://games.example", paths_.repository_ca);
  const RepositoryRecord with = installed_repository(data_);
  EXPECT_EQ(with.origin, "https://games.example");
  EXPECT_EQ(with.ca_bundle, paths_.repository_ca);
}

TEST_F(InstalledRepositoryTest, NamesAFolderThatHasNoRecord) {
  EXPECT_FAILURE(
      installed_repository(data_), "not_configured",
      "No repository for updates is recorded in " + data_.string() + "; run the Ravok installer and choose Repair");
}

TEST_F(InstalledRepositoryTest, RefusesARecordOfAnotherSchema) {
  const std::string message = "Unsupported repository record " + paths_.repository_record.string();
  for (const char* const version : {"2", "0", "-1", "\"1\"", "null", "true"}) {
    expect_refused(std::string(R"({"schema_version":)") + version + R"(,"of":"a later client"})", unsupported_record,
                   message);
  }
}

TEST_F(InstalledRepositoryTest, RefusesAMalformedRecord) {
  for (const char* const text :
       {"", "{", "null", "[]", "1", "{}", R"({"schema_version":1})", R"({"schema_version":1.0})",
        R"({"schema_version":1,"origin":"https://games.example"})", R"({"schema_version":1,"ca_bundle":""})",
        R"({"schema_version":1,"origin":"https://games.example","ca_bundle":null})",
        R"({"schema_version":1,"origin":["https://games.example"],"ca_bundle":""})",
        R"({"schema_version":1,"origin":"https://games.example","ca_bundle":"","more":1})",
        R"({"schema_version":1,"origin":"https://games.example","origin":"https://other.example","ca_bundle":""})",
        R"({"schema_version":1,"origin":"https://games.example","ca_bundle":"repository-ca.pem"})"}) {
    expect_malformed(text);
  }
  expect_malformed(std::string(65, '[') + std::string(65, ']'));
}

TEST_F(InstalledRepositoryTest, RefusesARecordThatIsNoPlainFileOfItsSize) {
  expect_refused(std::string(65'537, ' '), "size_limit", "File exceeds read limit");
  std::filesystem::remove(paths_.repository_record);
  root_.write("elsewhere.json", R"({"schema_version":1,"origin":"https://games.example","ca_bundle":""})");
  std::filesystem::create_symlink(root_ / "elsewhere.json", paths_.repository_record);
  EXPECT_EQ(testing::failure_of([&] { installed_repository(data_); }).value().code, "unsafe_path");
}

TEST_F(InstalledRepositoryTest, RefusesWhatIsNoPlainOrigin) {
  record("https://games.example/", "");
  EXPECT_FAILURE(installed_repository(data_), "invalid_origin", "The package origin must be a plain HTTPS origin");
  record("https://games.example/path", "");
  EXPECT_FAILURE(installed_repository(data_), "invalid_origin", "The package origin must be a plain HTTPS origin");
  record("http://games.example", "");
  EXPECT_FAILURE(installed_repository(data_), "https_required", "Ravok service URLs must use HTTPS");
  record("https://user@games.example", "");
  EXPECT_FAILURE(installed_repository(data_), "invalid_url",
                 "Service URL must not contain credentials, query, or fragment");
}

TEST_F(InstalledRepositoryTest, NamesCertificatesThatAreMissing) {
  record("https://games.example", paths_.repository_ca);
  EXPECT_FAILURE(installed_repository(data_), "ca_bundle",
                 "The certificates of the repository are missing: " + paths_.repository_ca.string() +
                     "; run the Ravok installer and choose Repair");
}

TEST_F(InstalledRepositoryTest, OpensAClientThatHasAskedForNothing) {
  record("https://127.0.0.1:1", "");
  const auto before = testing::tree_state(data_);
  {
    InstalledRepository repository(data_);
    EXPECT_EQ(repository.origin(), "https://127.0.0.1:1");
    EXPECT_EQ(repository.tuf().trusted().root().at("signed").at("version"), 1);
  }
  EXPECT_EQ(testing::tree_state(data_), before);
}

TEST_F(InstalledRepositoryTest, FailsWhereNobodyServes) {
  record("https://127.0.0.1:1", "");
  InstalledRepository repository(data_);
  EXPECT_EQ(testing::failure_of([&] { repository.tuf().refresh(); }).value().code, "network");
}

TEST_F(InstalledRepositoryTest, KeepsItsSearchWithinTheBudget) {
  record("https://127.0.0.1:1", "");
  const auto budget = std::make_shared<HttpsBudget>();
  budget->deadline = std::chrono::steady_clock::now() - std::chrono::seconds(1);
  InstalledRepository repository(data_, {}, budget);
  EXPECT_FAILURE(repository.tuf().refresh(), "discovery_timeout", "Optional update check exhausted its time budget");
}

TEST_F(InstalledRepositoryTest, AsksForNothingOnceTheUserHasCalledItOff) {
  record("https://127.0.0.1:1", "");
  bool called_off = false;
  InstalledRepository repository(data_, [&] { return called_off; });
  EXPECT_EQ(testing::failure_of([&] { repository.tuf().refresh(); }).value().code, "network");
  called_off = true;
  EXPECT_FAILURE(repository.tuf().refresh(), "cancelled", "Optional update check cancelled");
}

TEST_F(InstalledRepositoryTest, LetsOneProcessInAtATime) {
  record("https://127.0.0.1:1", "");
  const InstalledRepository first(data_);
  EXPECT_FAILURE(InstalledRepository(data_), "busy", "Another Ravok is looking for updates; try again when it is done");
}

TEST_F(InstalledRepositoryTest, BelievesNothingOfAnInstallationThatIsNotComplete) {
  record("https://127.0.0.1:1", "");
  root_.write("data/.ravok-setup-incomplete", "{}");
  EXPECT_EQ(testing::failure_of([&] { InstalledRepository{data_}; }).value().code, "native_install_incomplete");
}

}  // namespace
}  // namespace ravok
