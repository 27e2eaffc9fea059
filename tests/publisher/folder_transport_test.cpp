#include "publisher/repository/folder_transport.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/file/allocated_file.hpp"
#include "support/failure.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"
#include "support/tuf_repository.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

using testing::TemporaryRoot;

constexpr std::uint64_t sixteen_mebibytes = 16'777'216;

TEST(FolderTransport, AnswersWithAFileOrThatThereIsNone) {
  const TemporaryRoot root;
  root.write("folder/a/b.json", "content");
  FolderTransport transport(root / "folder");
  const TransportResponse there = transport.get("a/b.json", 7);
  EXPECT_EQ(there.status, 200);
  EXPECT_EQ(there.body, "content");
  for (const char* const name : {"c.json", "a", "a/c.json", "a/b.json/c", "d/e/f"}) {
    const TransportResponse missing = transport.get(name, 7);
    EXPECT_EQ(missing.status, 404) << name;
    EXPECT_EQ(missing.body, "") << name;
  }
  EXPECT_FALSE(transport.supports_resumption());
}

TEST(FolderTransport, TakesNoMoreThanItIsAllowed) {
  const TemporaryRoot root;
  root.write("a", "12345678");
  FolderTransport transport(root.path());
  EXPECT_EQ(transport.get("a", 8).body, "12345678");
  EXPECT_EQ(transport.get("a", sixteen_mebibytes).body, "12345678");
  EXPECT_FAILURE(transport.get("a", 7), "size_limit", "Server sent more than the authenticated size limit");
  EXPECT_FAILURE(transport.get_component("a", 7), "size_limit", "Server sent more than the authenticated size limit");
  EXPECT_FAILURE(transport.get("a", sixteen_mebibytes + 1), "size_limit", "In-memory response limit exceeds 16 MiB");
  EXPECT_FAILURE(transport.get_component("a", sixteen_mebibytes + 1), "size_limit",
                 "In-memory response limit exceeds 16 MiB");
}

TEST(FolderTransport, LeavesItsFolderByNoPath) {
  const TemporaryRoot root;
  root.write("secret", "secret");
  root.write("folder/a", "content");
  FolderTransport transport(root / "folder");
  for (const char* const path : {"../secret", "a/../../secret", "/etc/passwd", "", ".", "a//b"}) {
    EXPECT_EQ(testing::failure_of([&] { transport.get(path, 100); }).value_or(Error("", "")).code, "unsafe_path")
        << path;
    EXPECT_EQ(testing::failure_of([&] { transport.download(path, root / "out", 6, {}); }).value_or(Error("", "")).code,
              "unsafe_path")
        << path;
  }
  for (const char* const component : {"../secret", "1.../../secret", "/secret"}) {
    EXPECT_EQ(transport.get_component(component, 100).status, 404) << component;
  }
  for (const std::string& component : {std::string("."), std::string(".."), std::string(), std::string(8193, 'a')}) {
    EXPECT_FAILURE(transport.get_component(component, 100), "size_limit",
                   "Metadata filename exceeds its component bound");
  }
  EXPECT_EQ(root.names(), (std::vector<std::string>{"folder/", "folder/a", "secret"}));
}

TEST(FolderTransport, ReadsNothingThroughALink) {
  const TemporaryRoot root;
  root.write("secret/file", "secret");
  root.directory("folder");
  std::filesystem::create_symlink(root / "secret/file", root / "folder/file");
  std::filesystem::create_directory_symlink(root / "secret", root / "folder/below");
  std::filesystem::create_symlink(root / "nowhere", root / "folder/broken");
  FolderTransport transport(root / "folder");
  for (const char* const name : {"file", "below/file", "broken"}) {
    const std::string message = "A link is not read: " + (root / "folder" / name).native();
    EXPECT_FAILURE(transport.get(name, 100), "unsafe_path", message);
    EXPECT_FAILURE(transport.get_component(name, 100), "unsafe_path", message);
    EXPECT_FAILURE(transport.download(name, root / "out/file", 6, {}), "unsafe_path", message);
  }
  EXPECT_EQ(root.names(), (std::vector<std::string>{"folder/", "folder/below@", "folder/broken@", "folder/file@",
                                                    "out/", "secret/", "secret/file"}));
}

TEST(FolderTransport, MayItselfBeReachedThroughALink) {
  const TemporaryRoot root;
  root.write("real/a", "content");
  std::filesystem::create_directory_symlink(root / "real", root / "folder");
  FolderTransport transport(root / "folder");
  EXPECT_EQ(transport.get("a", 100).body, "content");
  EXPECT_FAILURE(FolderTransport(root / "missing"), "unsafe_path",
                 "Cannot open the folder " + (root / "missing").native() + ": No such file or directory");
}

TEST(FolderTransport, RefusesWhatIsNoFile) {
  const TemporaryRoot root;
  ASSERT_EQ(mkfifo((root / "pipe").c_str(), 0600), 0);
  FolderTransport transport(root.path());
  EXPECT_FAILURE(transport.get("pipe", 100), "unsafe_path", "Expected an ordinary file: " + (root / "pipe").native());
}

TEST(FolderTransport, TakesAFileThatItMayNotReadForNoMissingOne) {
  const TemporaryRoot root;
  root.write("locked", "content");
  std::filesystem::permissions(root / "locked", std::filesystem::perms::none);
  const testing::OrdinaryUser user(root);
  FolderTransport transport(root.path());
  EXPECT_FAILURE(transport.get("locked", 100), "file_read", "Cannot open file: " + (root / "locked").native());
}

TEST(FolderTransport, DownloadsAFileOfItsSizeAndLeavesNothingOtherwise) {
  const TemporaryRoot root;
  const std::string content(200'000, 'c');
  root.write("folder/a/file", content);
  FolderTransport transport(root / "folder");
  std::vector<std::uint64_t> told;
  transport.download("a/file", root / "out/file", content.size(), [&](std::uint64_t done, std::uint64_t total) {
    EXPECT_EQ(total, content.size());
    told.push_back(done);
    return true;
  });
  EXPECT_EQ(root.read("out/file"), content);
  EXPECT_EQ(told, (std::vector<std::uint64_t>{0, 65'536, 131'072, 196'608, 200'000}));

  std::filesystem::remove(root / "out/file");
  EXPECT_FAILURE(transport.download("a/other", root / "out/file", 7, {}), "http_status",
                 "Download failed with status 404");
  EXPECT_FAILURE(transport.download("a/file", root / "out/file", content.size() - 1, {}), "length_mismatch",
                 "Server length differs from the authenticated download bound");
  EXPECT_FAILURE(transport.download("a/file", root / "out/file", content.size() + 1, {}), "length_mismatch",
                 "File data is shorter than its authenticated length");
  EXPECT_FAILURE(transport.download("a/file", root / "out/file", content.size(),
                                    [](std::uint64_t done, std::uint64_t) { return done < 100'000; }),
                 "cancelled", "Transfer cancelled at a safe boundary");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"folder/", "folder/a/", "folder/a/file", "out/"}));
}

TEST(FolderTransport, ResumesNoDownload) {
  const TemporaryRoot root;
  root.write("file", "content");
  FolderTransport transport(root.path());
  AllocatedFile file(root / "out", 7, {});
  EXPECT_FAILURE(transport.download_into("file", file, 0, {}, {}, {}), "download_resume_unsupported",
                 "This transport cannot resume target downloads");
  EXPECT_EQ(file.written(), 0u);
}

TEST(FolderTransport, ServesAClientAWholeRepository) {
  testing::TufRepository repository;
  repository.delegate("targets", {.name = "a/b", .paths = {"games/*"}}).add("games/one", "content of a game");
  repository.publish();
  repository.rotate("root");
  repository.publish();
  const TemporaryRoot root;
  for (const auto& [name, text] : repository.metadata()) {
    root.write("folder/metadata/" + name, text);
  }
  for (const auto& [name, bytes] : repository.target_files()) {
    root.write("folder/targets/" + name, bytes);
  }
  FolderTransport metadata(root / "folder/metadata");
  FolderTransport targets(root / "folder/targets");
  const std::filesystem::path trust = root / "trust";
  TufClient::initialize(trust, repository.root_text());
  TufClient client(trust, metadata, targets, {524'288, 16'384, 4'194'304, 16, 100},
                   [] { return parse_tuf_time("2030-01-01T00:00:00Z"); });
  client.download("games/one", root / "files", {});
  EXPECT_EQ(root.read("files/games/one"), "content of a game");
  EXPECT_EQ(client.trusted().root().at("signed").at("version"), 2);
}

}  // namespace
}  // namespace ravok
