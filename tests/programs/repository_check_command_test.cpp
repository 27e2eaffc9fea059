// ravok-publish repository check, and until when a package can be installed.

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/process/native_platform.hpp"
#include "publisher/checked_site.hpp"
#include "publisher/repository/repository_time.hpp"
#include "support/certificate.hpp"
#include "support/nginx_server.hpp"
#include "support/package_builder.hpp"
#include "support/process.hpp"
#include "support/repository_place.hpp"
#include "support/single_file.hpp"

namespace ravok {
namespace {

using testing::CheckedSite;
using testing::ProgramResult;
using testing::run_program;
using testing::TemporaryRoot;
using Arguments = std::vector<std::string>;

class RepositoryCheckCommand : public ::testing::Test {
 protected:
  static ProgramResult publisher(const Arguments& arguments) { return run_program({RAVOK_PUBLISH, arguments, {}, ""}); }

  static ProgramResult check(const Arguments& arguments) {
    Arguments all = {"repository", "check"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return publisher(all);
  }

  static Json document_of(const ProgramResult& result) {
    Json document = Json::parse(result.output);
    EXPECT_EQ(document.at("schema_version"), 1);
    return document;
  }

  // A package whose clients begin with the site's first root.
  std::string write_package(const std::string& origin = "https://games.example",
                            std::optional<std::string> ca_bundle = {}) const {
    testing::InitialPackage package;
    package.root = site.repository.root_text();
    package.origin = origin;
    package.ca_bundle = std::move(ca_bundle);
    return package.write(site.root / "package");
  }

  CheckedSite site;
};

TEST_F(RepositoryCheckCommand, TellsTheStateOfAFolder) {
  site.publish();
  site.replace("tuf/targets/old", "12");
  const std::string folder = site.root.path();
  const ProgramResult result = check({folder, "--at", "2030-01-01T00:00:00Z"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.errors, "");
  const auto line = [&](const std::string& text) {
    EXPECT_NE(result.output.find("\n" + text), std::string::npos) << text << "\nin\n" << result.output;
  };
  EXPECT_TRUE(result.output.starts_with("Repository: " + folder +
                                        ", as clients with root version 1 find it at 2030-01-01T00:00:00Z\n"))
      << result.output;
  line("  root: version 1, until 2035-01-01T00:00:00Z (1826 days), ");
  line("  timestamp: version 1, until 2030-02-01T00:00:00Z (31 days), ");
  line("  games: version 1, until 2032-01-01T00:00:00Z (730 days), ");
  line("Targets: 4 files, ");
  line("Release: launcher build-1 for linux-x86_64 (launcher-linux-x86_64.manifest.json)\n");
  line("Release: game one build-1 for linux-x86_64 (games/one.manifest.json)\n");
  line("Surplus, asked for by no client: 1 file, 2 bytes\n  tuf/targets/old\n");
  line("Clients can work until 2030-02-01T00:00:00Z (31 days), when timestamp expires\n");
}

TEST_F(RepositoryCheckCommand, EndsWithOneFromTheSecondOnInWhichAClientFails) {
  site.publish();
  const std::string folder = site.root.path();
  EXPECT_EQ(check({folder, "--at", "2030-01-31T23:59:59Z"}).exit_code, 0);
  EXPECT_EQ(check({folder, "--at", "2030-01-31"}).exit_code, 0);
  for (const char* const at : {"2030-02-01T00:00:00Z", "2030-02-01"}) {
    const ProgramResult result = check({folder, "--at", at});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.errors, "A client fails: timestamp expires at 2030-02-01T00:00:00Z (expired_metadata)\n");
    EXPECT_EQ(result.output.find("Clients can work"), std::string::npos);
  }
}

TEST_F(RepositoryCheckCommand, PrintsADocument) {
  site.publish();
  const std::string file = site.metadata("targets");
  Json found = document_of(check({site.root.path(), "--at", "2030-01-01T00:00:00Z", "--json"})).at("repository");
  EXPECT_EQ(found.at("place"), site.root.path().native());
  EXPECT_EQ(found.at("at"), "2030-01-01T00:00:00Z");
  EXPECT_EQ(found.at("works"), true);
  EXPECT_EQ(found.at("works_until"), "2030-02-01T00:00:00Z");
  EXPECT_EQ(found.at("first_to_expire"), "timestamp");
  EXPECT_EQ(found.at("first_root"), 1);
  EXPECT_EQ(found.at("newest_root"), 1);
  EXPECT_EQ(found.at("roles").at(1), (Json{{"role", "timestamp"},
                                           {"file", "timestamp.json"},
                                           {"version", 1},
                                           {"length", site.repository.text_of("timestamp").size()},
                                           {"expires", "2030-02-01T00:00:00Z"},
                                           {"days_left", 31},
                                           {"expired", false}}));
  EXPECT_EQ(found.at("targets").at("files"), 4);
  EXPECT_EQ(found.at("releases").size(), 2u);
  EXPECT_EQ(found.at("surplus"), Json::array());
  EXPECT_EQ(found.at("problems"), Json::array());

  site.remove(file);
  const ProgramResult result = check({site.root.path(), "--at", "2030-02-01T12:00:00Z", "--json"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "A client fails: targets, " + file +
                               ": The file is missing (http_status)\n"
                               "A client fails: timestamp expires at 2030-02-01T00:00:00Z (expired_metadata)\n");
  found = document_of(result).at("repository");
  EXPECT_EQ(found.at("works"), false);
  EXPECT_EQ(found.at("problems"),
            (Json{{{"code", "http_status"}, {"message", "The file is missing"}, {"role", "targets"}, {"file", file}}}));
  EXPECT_EQ(found.at("roles").at(1).at("days_left"), -1);
  EXPECT_EQ(found.at("roles").at(1).at("expired"), true);
  EXPECT_EQ(found.at("surplus"), nullptr);
}

TEST_F(RepositoryCheckCommand, BeginsWithTheRootThatItIsGiven) {
  site.publish();
  site.repository.rotate("root");
  site.publish();
  const std::string second = site.root.write("second.json", site.repository.root_text(2));
  const Arguments arguments = {site.served, "--at", "2030-01-01", "--json"};
  EXPECT_EQ(document_of(check(arguments)).at("repository").at("first_root"), 1);
  Arguments with_root = arguments;
  with_root.insert(with_root.end(), {"--root", second});
  EXPECT_EQ(document_of(check(with_root)).at("repository").at("first_root"), 2);
  testing::TufRepository other;
  other.publish();
  with_root.back() = site.root.write("other.json", other.root_text());
  EXPECT_EQ(check(with_root).exit_code, 1);
}

// The folder itself tells what clients have, whatever somebody has put into the part of it that is served.
TEST_F(RepositoryCheckCommand, BeginsWithTheRootThatTheRepositoryBeganWith) {
  const testing::RepositoryPlace place;
  place.init();
  const Arguments arguments = {place.folder, "--at", "2030-01-01"};
  EXPECT_EQ(check(arguments).exit_code, 0);
  const std::filesystem::path root = place.folder / "public/tuf/metadata/1.root.json";
  testing::TufRepository other;
  other.publish();
  place.root.write("repository/public/tuf/metadata/1.root.json", other.root_text());
  const ProgramResult changed = check(arguments);
  EXPECT_EQ(changed.exit_code, 1);
  EXPECT_EQ(changed.errors,
            "The root document 1.root.json is none that this repository had; fetch it from your site "
            "into " +
                root.parent_path().native() + "\n");
  std::filesystem::remove(root);
  const ProgramResult missing = check(arguments);
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_EQ(missing.errors, "The repository lacks a document: " + root.native() + "\n");
}

TEST_F(RepositoryCheckCommand, RefusesAWrongCommandLine) {
  site.publish();
  const std::string folder = site.served;
  const struct {
    Arguments arguments;
    int exit_code;
    std::string errors;
  } cases[] = {
      {{"https://updates.example.com"},
       2,
       "Name the root document that clients of this address have, with --root FILE\n"},
      {{folder, "--at", "tomorrow"}, 2, "Expiry must use a UTC ISO-8601 timestamp\n"},
      {{folder, "--at", "2030-02-30"}, 2, "Invalid UTC calendar time\n"},
      {{folder, "--live"}, 1, "--live and --repository are for a package, and there is none in " + folder + "\n"},
      {{folder, "--root", folder + "/missing"}, 1, "Cannot open file: " + folder + "/missing\n"},
      {{folder + "/missing"},
       1,
       "There is no repository in " + folder + "/missing: it holds neither public/tuf/metadata nor tuf/metadata\n"},
      {{folder, "--quick", "--metadata-only"},
       2,
       "--quick excludes --metadata-only\nRun with --help for more information.\n"}};
  for (const auto& refused : cases) {
    const ProgramResult result = check(refused.arguments);
    EXPECT_EQ(result.exit_code, refused.exit_code);
    EXPECT_EQ(result.errors, refused.errors);
    EXPECT_EQ(result.output, "");
  }
  EXPECT_EQ(check({"http://updates.example.com", "--root", folder}).exit_code, 2);
}

TEST_F(RepositoryCheckCommand, TellsUntilWhenAShippedPackageCanBeInstalled) {
  site.publish();
  const std::string seal = write_package();
  const std::string package = site.root / "package";
  ProgramResult result = check({package, "--at", "2034-12-31"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(result.output, "Package: " + package + " for " + std::string(native_platform()) +
                               ", of https://games.example\n  root: version 1, until 2035-01-01T00:00:00Z (less than "
                               "an hour); nobody can install it from then on\n");
  result = check({package, "--at", "2035-01-01T00:00:00Z", "--json"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors,
            "Nobody can install this package: its root expires at 2035-01-01T00:00:00Z (expired_metadata)\n");
  EXPECT_EQ(document_of(result), (Json{{"schema_version", 1},
                                       {"package",
                                        {{"path", package},
                                         {"seal", seal},
                                         {"platform", native_platform()},
                                         {"origin", "https://games.example"},
                                         {"root_version", 1},
                                         {"root_expires", "2035-01-01T00:00:00Z"},
                                         {"days_left", 0},
                                         {"installs", false}}}}));
  result = check({package, "--root", package});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "A package has a root document of its own, so --root is not for it\n");
}

TEST_F(RepositoryCheckCommand, FollowsARepositoryFromTheRootOfAPackage) {
  site.publish();
  write_package();
  const Arguments arguments = {site.root / "package", "--at", "2030-01-01", "--repository", site.root.path(), "--json"};
  for (int i = 0; i < 2; ++i) {
    site.repository.rotate("root");
    site.publish();
  }
  ProgramResult result = check(arguments);
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  Json found = document_of(result);
  EXPECT_EQ(found.at("package").at("installs"), true);
  EXPECT_EQ(found.at("repository").at("first_root"), 1);
  EXPECT_EQ(found.at("repository").at("newest_root"), 3);

  site.remove("tuf/metadata/2.root.json");
  result = check(arguments);
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_NE(result.errors.find("No client gets to this root: from version 1 on it asks for version 2"),
            std::string::npos)
      << result.errors;
}

TEST_F(RepositoryCheckCommand, ChecksAnInstallerWithItsPackage) {
  site.publish();
  write_package();
  const std::string folder = site.root / "installer";
  ProgramResult result = publisher({"installer", site.root / "package", folder, "--program",
                                    site.root.write("program",
                                                    "before ravok "
                                                    "initial package = " +
                                                        std::string(64, '-') + " after")});
  ASSERT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_NE(result.output.find("Can be installed until 2035-01-01T00:00:00Z"), std::string::npos) << result.output;
  EXPECT_EQ(check({folder}).exit_code, 0);
  site.root.write("installer/ravok-install", "another");
  result = check({folder});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, folder + "/ravok-install: This package is not the one this installer was built for\n");
  std::filesystem::remove(folder + "/ravok-install");
  site.root.write("installer/ravok-install-gui", "another");
  EXPECT_EQ(check({folder}).errors,
            folder + "/ravok-install-gui: This package is not the one this installer was built for\n");
  std::filesystem::remove(folder + "/ravok-install-gui");
  site.root.write("installer/initial-package/extra", "x");
  EXPECT_EQ(check({folder}).errors, "Initial package contains an unexpected entry: extra\n");
  EXPECT_EQ(check({folder, "--quick"}).exit_code, 0);
}

TEST_F(RepositoryCheckCommand, ChecksAnInstallerInOneFile) {
  site.publish();
  const std::string seal = write_package();
  const std::string file = site.root / "installer";
  const std::string slot = "ravok initial package = " + std::string(64, '-');
  ProgramResult result =
      publisher({"installer", site.root / "package", file, "--single-file", "--program",
                 site.root.write("program", "before " + slot + testing::empty_appended_slot() + " after")});
  ASSERT_EQ(result.exit_code, 0) << result.errors;
  result = check({file, "--at", "2030-01-01", "--repository", site.root.path(), "--json"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_EQ(document_of(result).at("package").at("seal"), seal);
  EXPECT_EQ(document_of(result).at("package").at("path"), file);

  const std::string whole = site.root.read("installer");
  site.root.write("installer", whole.substr(0, whole.size() - 1) + "?");
  result = check({file});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_NE(result.errors.find("Initial package resource changed: "), std::string::npos) << result.errors;
  EXPECT_EQ(check({file, "--quick"}).exit_code, 0);
  site.root.write("installer", whole + "?");
  EXPECT_EQ(check({file}).errors,
            file + ": This installer has bytes behind its end that do not belong to it; get it again\n");
  std::string other = whole;
  other.replace(other.find(seal), seal.size(), std::string(64, 'a'));
  site.root.write("installer", other);
  EXPECT_EQ(check({file}).errors, file + ": This package is not the one this installer was built for\n");
}

TEST_F(RepositoryCheckCommand, FollowsALiveRepositoryAtTheAddressOfAPackage) {
  if (!testing::NginxServer::is_installed()) {
    GTEST_SKIP() << "nginx is not installed";
  }
  const testing::CertificateAuthority authority;
  const testing::NginxServer server(authority.issue());
  site.publish();
  for (const auto& [name, text] : site.repository.metadata()) {
    server.serve("tuf/metadata/" + name, text);
  }
  for (const auto& [name, bytes] : site.repository.target_files()) {
    server.serve("tuf/targets/" + name, bytes);
  }
  const std::string origin = server.url().substr(0, server.url().size() - 1);
  write_package(origin, authority.root());
  ProgramResult result = check({site.root / "package", "--live", "--at", "2030-01-01", "--json"});
  EXPECT_EQ(result.exit_code, 0) << result.errors << server.complaints();
  EXPECT_EQ(document_of(result).at("repository").at("place"), origin);

  const std::string root = site.root.write("root.json", site.repository.root_text());
  const std::string bundle = site.root.write("authority.pem", authority.root());
  result = check({origin, "--root", root, "--ca-bundle", bundle, "--at", "2030-01-01", "--quick"});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  EXPECT_TRUE(result.output.starts_with("Repository: " + origin + ", as clients with root version 1 find it"));
  result = check({origin, "--root", root, "--ca-bundle", bundle, "--at", "2030-02-01", "--metadata-only"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_EQ(result.errors, "A client fails: timestamp expires at 2030-02-01T00:00:00Z (expired_metadata)\n");
}

TEST_F(RepositoryCheckCommand, WarnsOfAPackageThatCanBeInstalledForLessThanTwoYears) {
  const TemporaryRoot root;
  const std::string program =
      root.write("program", "before ravok initial package = " + std::string(64, '-') + " after");
  const auto installer = [&](const std::string& name, TufTime expires) {
    testing::InitialPackage package;
    package.root_body["expires"] = tuf_time_text(expires);
    package.sign_root();
    package.write(root / ("package-" + name));
    return publisher({"installer", root / ("package-" + name), root / name, "--program", program});
  };
  // An hour more or less, so that the time of the test does not count.
  const TufTime now = present_tuf_time();
  ProgramResult result = installer("long", days_after(now, 730) + std::chrono::hours(1));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.errors, "");
  result = installer("short", days_after(now, 729) + std::chrono::hours(1));
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.errors,
            "The root document in the package expires in 729 days, and nobody can install it from then on. Take one "
            "that lasts two years or more.\n");
}

}  // namespace
}  // namespace ravok
