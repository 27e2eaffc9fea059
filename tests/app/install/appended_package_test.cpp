#include "app/install/appended_package.hpp"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/install/native_install.hpp"
#include "app/install/native_package.hpp"
#include "domain/crypto.hpp"
#include "support/failure.hpp"
#include "support/install_place.hpp"
#include "support/single_file.hpp"

namespace ravok {
namespace {

constexpr const char* malformed_index_message = "The index of this installer's package is malformed";

std::string digest_text() { return std::string(32, 'a') + std::string(32, '0'); }

TEST(AppendedPlace, IsTheOneThatItsTextStates) {
  const AppendedPlace place = {1, 0x23456789abcdef01, UINT64_MAX, digest_text()};
  const std::string text = appended_place_text(place);
  EXPECT_EQ(text, "000000000000000123456789abcdef01ffffffffffffffff" + digest_text());
  const std::optional<AppendedPlace> read = parse_appended_place(text);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->program_bytes, place.program_bytes);
  EXPECT_EQ(read->index_bytes, place.index_bytes);
  EXPECT_EQ(read->file_bytes, place.file_bytes);
  EXPECT_EQ(read->index_sha256, place.index_sha256);
}

TEST(AppendedPlace, IsNotInAnyOtherText) {
  const std::string good = appended_place_text({1, 2, 3, digest_text()});
  for (const std::string& text : {std::string(), good.substr(1), good + "0", "A" + good.substr(1), "g" + good.substr(1),
                                  "-" + good.substr(1), std::string(good.size(), '-')}) {
    EXPECT_FALSE(parse_appended_place(text)) << text;
  }
}

TEST(AppendedPlace, IsReadFromTheSlotOfTheImage) {
  AppendedSlot filled = make_appended_slot();
  const std::string text = appended_place_text({1, 2, 3, digest_text()});
  text.copy(filled.place.data(), filled.place.size());
  const volatile AppendedSlot slot = filled;
  ASSERT_TRUE(read_appended_place(slot));
  EXPECT_EQ(read_appended_place(slot)->file_bytes, 3u);
  const volatile AppendedSlot empty = make_appended_slot();
  EXPECT_FALSE(read_appended_place(empty));
}

TEST(AppendedPlace, IsNotReadFromADamagedSlot) {
  const std::string place = appended_place_text({1, 2, 3, digest_text()});
  const std::string none(appended_place_characters, '-');
  for (const std::string& good : {place, none}) {
    for (std::size_t at = 0; at < good.size(); ++at) {
      std::string text = good;
      text[at] = static_cast<char>(text[at] ^ 0x40);
      AppendedSlot filled = make_appended_slot();
      text.copy(filled.place.data(), filled.place.size());
      const volatile AppendedSlot slot = filled;
      EXPECT_FAILURE(read_appended_place(slot), "content_mismatch", "This installer was damaged; get it again") << text;
    }
  }
}

TEST(PackageIndex, ListsTheFilesInTheirOrder) {
  const std::string text = package_index_text({{"second", 3}, {"first", 0}, {"third.json", 4}});
  const std::vector<AppendedFile> files = parse_package_index(text, 7);
  ASSERT_EQ(files.size(), 3u);
  EXPECT_EQ(files[0].name, "second");
  EXPECT_EQ(files[0].length, 3u);
  EXPECT_EQ(files[1].name, "first");
  EXPECT_EQ(files[2].length, 4u);
  EXPECT_TRUE(parse_package_index(package_index_text({}), 0).empty());
}

TEST(PackageIndex, HasFilesThatFillThePlaceExactly) {
  const std::string text = package_index_text({{"one", 3}, {"two", 4}});
  for (const std::uint64_t bytes : {std::uint64_t{0}, std::uint64_t{6}, std::uint64_t{8}, UINT64_MAX}) {
    EXPECT_FAILURE(parse_package_index(text, bytes), "invalid_native_package", malformed_index_message) << bytes;
  }
  // Their sum as a number of 64 bits would be 7.
  EXPECT_FAILURE(parse_package_index(package_index_text({{"one", UINT64_MAX}, {"two", 8}}), 7),
                 "invalid_native_package", malformed_index_message);
}

TEST(PackageIndex, NamesEachFileOnce) {
  EXPECT_FAILURE(parse_package_index(package_index_text({{"one", 3}, {"one", 4}}), 7), "invalid_native_package",
                 "Initial package resources overlap");
}

TEST(PackageIndex, HasNamesOfOnePartOnly) {
  EXPECT_FAILURE(parse_package_index(package_index_text({{"a/b", 3}}), 3), "invalid_native_package",
                 malformed_index_message);
  for (const char* name : {"", "..", "/etc", "a\\b"}) {
    const auto failure = testing::failure_of([&] { parse_package_index(package_index_text({{name, 3}}), 3); });
    ASSERT_TRUE(failure) << name;
    EXPECT_EQ(failure->code, "unsafe_path") << name;
  }
}

TEST(PackageIndex, HasNoOtherForm) {
  for (const char* text :
       {R"(null)", R"([])", R"({})", R"({"files":[]})", R"({"schema_version":1})", R"({"schema_version":1,"files":{}})",
        R"({"schema_version":1,"files":[],"more":1})", R"({"schema_version":1,"files":[1]})",
        R"({"schema_version":1,"files":[{"name":"a"}]})", R"({"schema_version":1,"files":[{"name":"a","length":-1}]})",
        R"({"schema_version":1,"files":[{"name":"a","length":"1"}]})",
        R"({"schema_version":1,"files":[{"name":1,"length":1}]})",
        R"({"schema_version":1,"files":[{"name":"a","length":1,"offset":0}]})"}) {
    EXPECT_FAILURE(parse_package_index(text, 1), "invalid_native_package", malformed_index_message) << text;
  }
  EXPECT_FAILURE(parse_package_index(R"({"schema_version":2,"files":[]})", 0), "unsupported_schema",
                 "The index of this installer's package has a form that is not known here");
  EXPECT_FAILURE(parse_package_index(std::string(524'289, ' '), 0), "size_limit", "JSON exceeds its size limit");
}

class AppendedPackageTest : public ::testing::Test {
 protected:
  std::shared_ptr<const AppendedPackage> open() const { return AppendedPackage::in_file(installer, where); }
  std::string bytes() const { return place.root().read("installer"); }
  void write(const std::string& content) const { place.root().write("installer", content); }
  void expect_refused(const std::string& code, const std::string& message) const {
    EXPECT_FAILURE(open(), code, message);
  }
  // Gives the file another index, of which the place knows.
  void replace_index(const std::string& index) {
    const std::string whole = bytes();
    write(whole.substr(0, where.program_bytes) + index + whole.substr(where.program_bytes + where.index_bytes));
    where.file_bytes = where.file_bytes - where.index_bytes + index.size();
    where.index_bytes = index.size();
    where.index_sha256 = digest(index, "sha256");
  }

  testing::InstallPlace place;
  const std::filesystem::path installer = place.root() / "installer";
  AppendedPlace where = testing::write_single_file(place.package_directory(), installer);
};

TEST_F(AppendedPackageTest, HasTheFilesOfThePackageAndNothingElse) {
  const auto package = open();
  EXPECT_EQ(package->path(), installer);
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(place.package_directory())) {
    const std::string name = entry.path().filename();
    ASSERT_TRUE(package->find(name)) << name;
    EXPECT_EQ(read_range(*package->find(name), 1'000'000), place.root().read("package/" + name));
    ++count;
  }
  EXPECT_EQ(package->names().size(), count);
  EXPECT_FALSE(package->find("other"));
  EXPECT_FALSE(package->find(""));
}

TEST_F(AppendedPackageTest, StaysReadableWhateverTakesItsName) {
  const auto package = open();
  std::filesystem::remove(installer);
  write("another");
  EXPECT_EQ(read_native_package(package, place.seal(), {}).origin, "https://games.example");
}

TEST_F(AppendedPackageTest, IsReadAsTheOneInADirectory) {
  const auto package = open();
  const NativePackage read = read_native_package(package, place.seal(), {});
  const NativePackage expected = read_native_package(place.package_directory(), place.seal(), {});
  EXPECT_EQ(read.directory, installer);
  EXPECT_EQ(read.appended, package);
  EXPECT_EQ(expected.appended, nullptr);
  EXPECT_EQ(read.root_json, expected.root_json);
  EXPECT_EQ(read.ca_bundle, expected.ca_bundle);
  EXPECT_EQ(read.bootstrap_manifest_json, expected.bootstrap_manifest_json);
  EXPECT_EQ(read.launcher_manifest_json, expected.launcher_manifest_json);
  EXPECT_EQ(read.brand_icon, expected.brand_icon);
  EXPECT_EQ(read.theme->files, expected.theme->files);
  EXPECT_EQ(package_brand(package, place.seal())->name, expected.brand->name);
  EXPECT_TRUE(package_theme(package, place.seal()));
  EXPECT_EQ(package_brand_icon(package, place.seal()), expected.brand_icon);
  EXPECT_EQ(package_featured_game(package, place.seal())->id, expected.featured_game->id);
  EXPECT_EQ(package_manifests(package, place.seal()).bootstrap.raw, expected.bootstrap.raw);
  EXPECT_EQ(package_manifests(package, place.seal()).launcher.raw, expected.launcher.raw);
}

TEST_F(AppendedPackageTest, IsReadWithItsOwnSealAlone) {
  const auto package = open();
  EXPECT_FAILURE(read_native_package(package, digest_text(), {}), "native_install_trust",
                 "This package is not the one this installer was built for");
  EXPECT_FAILURE(read_native_package(package, "", {}), "native_install_trust",
                 "This installer has no package seal; build it with RAVOK_INITIAL_PACKAGE_SHA256");
}

TEST_F(AppendedPackageTest, TellsOneThatWasCutShortWhereverItEnds) {
  const std::string whole = bytes();
  for (const std::size_t kept :
       {std::size_t{0}, std::size_t{where.program_bytes}, whole.size() / 2, whole.size() - 1}) {
    write(whole.substr(0, kept));
    expect_refused("content_mismatch", "This installer was cut short: it has " + std::to_string(kept) + " of its " +
                                           std::to_string(whole.size()) + " bytes; get it again");
  }
}

TEST_F(AppendedPackageTest, TellsWhatDoesNotBelongToIt) {
  write(bytes() + '\0');
  expect_refused("content_mismatch", "This installer has bytes behind its end that do not belong to it; get it again");
}

TEST_F(AppendedPackageTest, TellsEveryByteThatChanged) {
  const std::string whole = bytes();
  const std::size_t begin = where.program_bytes;
  // Every byte of the index, and some of each file.
  for (std::size_t at = begin; at < whole.size(); at += at < begin + where.index_bytes ? 1 : 97) {
    std::string changed = whole;
    changed[at] = static_cast<char>(changed[at] ^ 0x20);
    write(changed);
    const auto failure = testing::failure_of([&] { read_native_package(open(), place.seal(), {}); });
    ASSERT_TRUE(failure) << at;
    EXPECT_TRUE(failure->code == "content_mismatch" || failure->code == "native_install_trust") << at;
  }
  // The program is not the package's.
  write("I" + whole.substr(1));
  EXPECT_NO_THROW(read_native_package(open(), place.seal(), {}));
}

TEST_F(AppendedPackageTest, RefusesAPlaceThatCannotBe) {
  const AppendedPlace good = where;
  const auto refuse = [&](AppendedPlace other) {
    where = std::move(other);
    expect_refused("content_mismatch", "This installer was damaged; get it again");
  };
  refuse({good.program_bytes, good.index_bytes, good.program_bytes + good.index_bytes - 1, good.index_sha256});
  refuse({maximum_installer_program_bytes + 1, 0, UINT64_MAX, good.index_sha256});
  refuse({0, maximum_package_index_bytes + 1, UINT64_MAX, good.index_sha256});
  refuse({UINT64_MAX, good.index_bytes, UINT64_MAX, good.index_sha256});
  refuse({good.program_bytes, UINT64_MAX, UINT64_MAX, good.index_sha256});
}

TEST_F(AppendedPackageTest, RefusesAnIndexThatDoesNotFit) {
  replace_index(package_index_text({{"initial-package.json", 1}}));
  expect_refused("invalid_native_package", malformed_index_message);
}

TEST_F(AppendedPackageTest, RefusesAPackageThatLacksAFileOrHasOneMore) {
  std::vector<AppendedFile> files;
  const auto package = open();
  for (const std::string& name : package->names()) {
    files.push_back({name, package->find(name)->length()});
  }
  const std::string last = files.back().name;
  files.back().name = "other";
  replace_index(package_index_text(files));
  const auto failure = testing::failure_of([&] { read_native_package(open(), place.seal(), {}); });
  ASSERT_TRUE(failure) << last;
  EXPECT_EQ(failure->code == "file_read" || failure->code == "invalid_native_package", true) << failure->code;

  files.back() = {last, files.back().length - 1};
  files.push_back({"one-more", 1});
  replace_index(package_index_text(files));
  EXPECT_TRUE(testing::failure_of([&] { read_native_package(open(), place.seal(), {}); }));

  files.pop_back();
  files.back().length += 1;
  files.push_back({"empty", 0});
  replace_index(package_index_text(files));
  EXPECT_FAILURE(read_native_package(open(), place.seal(), {}), "invalid_native_package",
                 "Initial package contains an unexpected entry: empty");
}

TEST_F(AppendedPackageTest, IsInNothingButAnOrdinaryFile) {
  std::filesystem::rename(installer, place.root() / "moved");
  expect_refused("file_read", "Cannot open file: " + installer.native());
  std::filesystem::create_symlink("moved", installer);
  expect_refused("unsafe_path", "Cannot open file: " + installer.native());
  std::filesystem::remove(installer);
  std::filesystem::create_directory(installer);
  expect_refused("unsafe_path", "Expected an ordinary file: " + installer.native());
}

TEST_F(AppendedPackageTest, TellsWhenItIsCutShortWhileItIsRead) {
  const auto package = open();
  std::filesystem::resize_file(installer, where.file_bytes - 1);
  const auto failure = testing::failure_of([&] { read_native_package(package, place.seal(), {}); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "file_read");
}

TEST_F(AppendedPackageTest, IsInstalledAndRepairsWhatItHasInstalled) {
  NativeInstallRequest request;
  request.package = installer;
  request.appended = open();
  request.data_root = place.data();
  EXPECT_FALSE(NativeInstaller::install(request, place.seal(), {}).repaired);
  const std::string notes = place.read("native/bootstrap/data/notes");
  place.write("native/bootstrap/data/notes", "changed");
  std::filesystem::remove_all(place.data() / "launcher");
  request.repair = true;
  const NativeInstallResult repaired = NativeInstaller::install(request, place.seal(), {});
  EXPECT_EQ(repaired.replaced, (std::vector<std::string>{"bootstrap", "launcher"}));
  EXPECT_EQ(place.read("native/bootstrap/data/notes"), notes);
}

TEST_F(AppendedPackageTest, IsNotInstalledIntoTheFolderThatHoldsIt) {
  NativeInstallRequest request;
  request.appended = open();
  request.data_root = place.root().path();
  EXPECT_FAILURE(NativeInstaller::install(request, place.seal(), {}), "unsafe_path",
                 "The package and data folders overlap");
}

}  // namespace
}  // namespace ravok
