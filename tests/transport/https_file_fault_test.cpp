// Downloads whose file cannot be made, written or finished. The library's calls and those of the file system are led
// through wrappers.

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/https_calls.hpp"
#include "support/temporary_root.hpp"
#include "transport/https.hpp"

namespace ravok {
namespace {

using testing::failing;
using testing::Planned;

constexpr const char* no_room = "Cannot allocate game storage; free space or choose another location";

// A call that fails, and what a download ends with.
struct FileFault {
  const char* call;
  int problem;
  std::string code;
  std::string message;
};

std::string numbered(const std::string& message, int problem) { return message + " (" + std::to_string(problem) + ")"; }

class HttpsFileFault : public ::testing::Test {
 protected:
  // Answers with the content from this byte on, in pieces of 1,000 bytes.
  static testing::HttpsPlan sending(std::size_t from) {
    return {.perform =
                [from](const testing::Performance& server) {
                  const std::string range = "Content-Range: bytes " + std::to_string(from) + "-" +
                                            std::to_string(content().size() - 1) + "/" +
                                            std::to_string(content().size()) + "\r\n";
                  bool taken = from == 0 ? server.header("HTTP/1.1 200 OK\r\n")
                                         : server.header("HTTP/1.1 206 Partial Content\r\n") && server.header(range);
                  taken = taken && server.header("\r\n");
                  for (std::size_t at = from; at < content().size() && taken; at += 1'000) {
                    taken = server.body(content().substr(at, 1'000));
                  }
                  return taken ? CURLE_OK : CURLE_WRITE_ERROR;
                },
            .status = from == 0 ? 200 : 206};
  }

  static const std::string& content() {
    static const std::string bytes = [] {
      std::string text;
      for (int at = 0; at < 10'000; ++at) {
        text += static_cast<char>('a' + at % 26 + at / 1'000 % 2);
      }
      return text;
    }();
    return bytes;
  }

  const testing::TemporaryRoot root;
  const std::filesystem::path bundle = root.write("bundle.pem", "authorities");
  HttpsTransport service{"https://example.test", bundle};
};

TEST_F(HttpsFileFault, OfADownloadLeavesNoFile) {
  root.directory("new");
  std::filesystem::permissions(root / "new", std::filesystem::perms::owner_all);
  const std::vector<std::string> before = {"bundle.pem", "new/"};
  for (const FileFault& fault :
       {FileFault{"fallocate", ENOSPC, "insufficient_space",
                  "Cannot reserve file data; free space or choose other game storage"},
        FileFault{"fallocate", EDQUOT, "insufficient_space",
                  "Cannot reserve file data; free space or choose other game storage"},
        FileFault{"fallocate", EIO, "space_reservation", numbered("Native file allocation failed", EIO)},
        FileFault{"write", ENOSPC, "insufficient_space", no_room},
        FileFault{"write", EDQUOT, "insufficient_space", no_room},
        FileFault{"write", EIO, "file_write", numbered("Cannot write staged file data", EIO)},
        FileFault{"write", EFBIG, "file_write", numbered("Cannot write staged file data", EFBIG)},
        FileFault{"write", 0, "file_write", "Cannot advance staged file data"},
        FileFault{"fsync", EIO, "file_sync", "Cannot synchronize reserved file data"}}) {
    int failures = 0;
    for (bool happened = true; happened; ++failures) {
      ASSERT_LT(failures, 100);
      const testing::HttpsCalls calls(sending(0));
      const Planned plan(failing(fault.call, fault.problem, failures + 1));
      const auto failure = testing::failure_of([&] { service.download("a", root / "new/file", content().size(), {}); });
      happened = plan.happened();
      ASSERT_EQ(failure.has_value(), happened) << fault.call << ' ' << failures;
      if (failure) {
        EXPECT_EQ(failure->code, fault.code);
        EXPECT_EQ(failure->what(), fault.message);
        EXPECT_EQ(root.names(), before) << fault.call << ' ' << failures;
      } else {
        EXPECT_TRUE(root.read("new/file") == content());
        std::filesystem::remove(root / "new/file");
      }
    }
    EXPECT_GT(failures, 1) << fault.call;
  }
}

TEST_F(HttpsFileFault, OfAPartKeepsWhatIsWrittenAndTellsOfNoMore) {
  for (const FileFault& fault : {FileFault{"write", ENOSPC, "insufficient_space", no_room},
                                 FileFault{"write", EIO, "file_write", numbered("Cannot write staged file data", EIO)},
                                 FileFault{"write", 0, "file_write", "Cannot advance staged file data"}}) {
    int failures = 0;
    for (bool happened = true; happened; ++failures) {
      ASSERT_LT(failures, 100);
      AllocatedFile file(root / "file", content().size(), {});
      file.write(content().substr(0, 2'500));
      std::string told;
      const auto fetch = [&] {
        service.download_into("a", file, file.written(), {}, [&](std::string_view bytes) { told += bytes; }, {});
      };
      {
        const testing::HttpsCalls calls(sending(2'500));
        // Every write takes a part, and each piece needs several.
        testing::Plan plan = failing(fault.call, fault.problem, failures + 1);
        plan.longest_piece = 300;
        const Planned planned(plan);
        const auto failure = testing::failure_of(fetch);
        happened = planned.happened();
        ASSERT_EQ(failure.has_value(), happened) << failures;
        if (failure) {
          EXPECT_EQ(failure->code, fault.code);
          EXPECT_EQ(failure->what(), fault.message);
        }
      }
      // A piece of which only a part is written is not told of, but it is there.
      EXPECT_GE(file.written(), 2'500 + told.size());
      EXPECT_TRUE(root.read("file").starts_with(content().substr(0, file.written())));
      EXPECT_TRUE(content().substr(2'500).starts_with(told));
      if (file.written() < content().size()) {
        const testing::HttpsCalls calls(sending(file.written()));
        fetch();
      }
      EXPECT_TRUE(root.read("file") == content());
    }
    EXPECT_GT(failures, 20);
  }
}

TEST_F(HttpsFileFault, OfAVolumeThatClaimsNoBlocksIsNone) {
  const testing::HttpsCalls calls(sending(0));
  const Planned plan(failing("fallocate", EOPNOTSUPP));
  bool claimed = true;
  service.on_admission = [&](std::uint64_t, bool allocated) { claimed = allocated; };
  service.download("a", root / "new/file", content().size(), {});
  EXPECT_TRUE(plan.happened());
  EXPECT_FALSE(claimed);
  EXPECT_TRUE(root.read("new/file") == content());
}

}  // namespace
}  // namespace ravok
