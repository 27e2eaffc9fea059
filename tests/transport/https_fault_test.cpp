// Every failure of the HTTPS library before a request, and what the operations make of a request. The linker leads the
// library's calls through the wrappers below, which fail the one that a test names, and to a script.

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/failure.hpp"
#include "support/https_calls.hpp"
#include "support/ordinary_user.hpp"
#include "support/temporary_root.hpp"
#include "transport/https.hpp"

namespace {

std::string_view failing;
std::optional<CURLUPart> failing_part;  // of a URL, for which there is no memory
int starts = 0;

bool fails(std::string_view call) { return failing == call; }

}  // namespace

extern "C" {

CURLcode __real_curl_global_init(long flags);
CURLcode __wrap_curl_global_init(long flags) {
  ++starts;
  return fails("curl_global_init") || flags != CURL_GLOBAL_ALL ? CURLE_FAILED_INIT : __real_curl_global_init(flags);
}

CURLU* __real_curl_url();
CURLU* __wrap_curl_url() { return fails("curl_url") ? nullptr : __real_curl_url(); }

CURLUcode __real_curl_url_get(const CURLU* url, CURLUPart part, char** text, unsigned flags);
CURLUcode __wrap_curl_url_get(const CURLU* url, CURLUPart part, char** text, unsigned flags) {
  if (fails("curl_url_get host") && part == CURLUPART_HOST) {
    return CURLUE_NO_HOST;
  }
  if (failing_part == part) {
    return CURLUE_OUT_OF_MEMORY;
  }
  return __real_curl_url_get(url, part, text, flags);
}

}  // extern "C"

namespace ravok {
namespace {

class HttpsFault : public ::testing::Test {
 protected:
  void TearDown() override {
    failing = {};
    failing_part.reset();
  }

  static HttpsTransport transport(const std::string& base_url) { return {base_url, {}, 0}; }
};

// The library is started once in a process, so a start that fails is tried in a child.
void expect_no_start() {
  failing = "curl_global_init";
  const auto refused = [](const char* base_url) {
    return testing::fails_with([&] { const HttpsTransport service(base_url, {}, 0); }, "transport",
                               "Cannot initialize HTTPS library");
  };
  const bool first = refused("http://example.test");
  failing = {};
  const bool second = refused("https://example.test");
  std::_Exit(first && second && starts == 1 ? 0 : 1);
}

TEST_F(HttpsFault, ALibraryThatDoesNotStartTakesNoAddressAndIsNotAskedAgain) {
  EXPECT_EXIT(expect_no_start(), ::testing::ExitedWithCode(0), "");
}

TEST_F(HttpsFault, TheLibraryStartsOnce) {
  transport("https://example.test");
  transport("https://example.test");
  EXPECT_EQ(starts, 1);
}

TEST_F(HttpsFault, AnAddressThatCannotBeParsedIsRefused) {
  failing = "curl_url";
  EXPECT_FAILURE(transport("https://example.test"), "invalid_url", "Invalid service URL");
}

TEST_F(HttpsFault, AnAddressWithoutAHostIsRefusedBeforeItsOtherParts) {
  failing = "curl_url_get host";
  EXPECT_FAILURE(transport("https://user@example.test"), "invalid_url", "URL must contain a hostname");
}

TEST_F(HttpsFault, AnAddressIsRefusedWhosePartsCannotBeLookedFor) {
  failing_part = CURLUPART_HOST;
  EXPECT_FAILURE(transport("https://example.test"), "invalid_url", "URL must contain a hostname");
  for (const CURLUPart part : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
    failing_part = part;
    for (const char* const address :
         {"https://example.test", "https://user@example.test", "https://:word@example.test"}) {
      EXPECT_FAILURE(transport(address), "invalid_url", "Service URL must not contain credentials, query, or fragment");
    }
  }
}

// --- Operations ----------------------------------------------------------------------------

constexpr const char* call_off = "Transfer cancelled at a safe boundary";
constexpr const char* invalid_snapshot = "Frozen upload snapshot is invalid";

using testing::HttpsPlan;

class HttpsOperation : public ::testing::Test {
 protected:
  using Script = std::function<CURLcode(const testing::Performance&)>;

  // Takes over for the requests that follow.
  void plan(Script happens = {}, long status = 200) {
    calls.reset();
    calls = std::make_unique<testing::HttpsCalls>(HttpsPlan{.perform = std::move(happens), .status = status});
  }

  static Script answers(std::string headers, std::string body) {
    return [=](const testing::Performance& server) {
      const bool taken = server.header(headers) && server.header("\r\n") && server.body(body);
      return taken ? CURLE_OK : CURLE_WRITE_ERROR;
    };
  }

  static Script returns(std::string body) {
    return [=](const testing::Performance& server) { return server.body(body) ? CURLE_OK : CURLE_WRITE_ERROR; };
  }

  static constexpr const char* full = "HTTP/1.1 200 OK\r\n";

  const testing::TemporaryRoot root;
  const std::filesystem::path bundle = root.write("bundle.pem", "authorities");
  HttpsTransport service{"https://example.test/root", bundle, 1000};
  std::unique_ptr<testing::HttpsCalls> calls;
};

TEST_F(HttpsOperation, GetReturnsStatusAndBodyOfAPath) {
  plan(returns("twelve bytes"), 404);
  const TransportResponse response = service.get("a b/c", 12);
  EXPECT_EQ(response.status, 404);
  EXPECT_EQ(response.body, "twelve bytes");
  EXPECT_EQ(calls->value("URL"), "'https://example.test/root/a%20b/c'");
  EXPECT_EQ(calls->value("MAX_RECV_SPEED_LARGE"), "1000");
  EXPECT_EQ(calls->value("CAINFO_BLOB"), "'authorities'");
  EXPECT_EQ(calls->open_handles(), 0);
}

TEST_F(HttpsOperation, GetTakesItsLimitAndNotAByteMore) {
  plan(returns("twelve bytes"));
  EXPECT_FAILURE(service.get("a", 11), "size_limit", "Server sent more than the authenticated size limit");
}

TEST_F(HttpsOperation, GetBoundsItsLimitBeforeItsPath) {
  plan();
  EXPECT_EQ(service.get("a", 16'777'216).status, 200);
  EXPECT_FAILURE(service.get("..", 16'777'217), "size_limit", "In-memory response limit exceeds 16 MiB");
  EXPECT_FAILURE(service.get("..", 16'777'216), "unsafe_path", "Path contains an unsafe component");
  EXPECT_EQ(calls->performed(), 1);
}

TEST_F(HttpsOperation, GetComponentAsksForOneName) {
  plan(returns("role"));
  EXPECT_EQ(service.get_component("a/b", 10).body, "role");
  EXPECT_EQ(calls->value("URL"), "'https://example.test/root/a%2Fb'");
  for (const char* name : {"...", "/", "../a", "a:b"}) {
    EXPECT_EQ(service.get_component(name, 10).status, 200) << name;
  }
}

TEST_F(HttpsOperation, GetComponentBoundsItsNameBeforeItsLimit) {
  plan();
  EXPECT_EQ(service.get_component(std::string(8192, '/'), 16'777'216).status, 200);
  for (const std::string& name : {std::string(), std::string("."), std::string(".."), std::string(8193, 'a')}) {
    EXPECT_FAILURE(service.get_component(name, 16'777'217), "size_limit",
                   "Metadata filename exceeds its component bound");
  }
  EXPECT_FAILURE(service.get_component("a", 16'777'217), "size_limit", "In-memory response limit exceeds 16 MiB");
  EXPECT_EQ(calls->performed(), 1);
}

TEST_F(HttpsOperation, DownloadMakesAPrivateFile) {
  plan(answers(full, "content"));
  service.download("a", root / "new/file", 7, {});
  EXPECT_EQ(root.read("new/file"), "content");
  EXPECT_EQ(std::filesystem::status(root / "new").permissions(), std::filesystem::perms::owner_all);
  EXPECT_EQ(calls->value("RANGE"), "");
}

TEST_F(HttpsOperation, DownloadMayBeEmpty) {
  plan([](const testing::Performance& server) {
    return server.header(full) && server.header("\r\n") ? CURLE_OK : CURLE_WRITE_ERROR;
  });
  service.download("a", root / "new/file", 0, {});
  EXPECT_EQ(root.read("new/file"), "");
}

TEST_F(HttpsOperation, DownloadLeavesNoFileBehindAFailure) {
  const std::vector<std::string> before = {"bundle.pem", "new/"};
  root.directory("new");
  const auto download = [&](const ProgressCallback& progress = {}) {
    service.download("a", root / "new/file", 7, progress);
  };
  plan(answers(full, "content and more"));
  EXPECT_FAILURE(download(), "size_limit", "Server sent more than the authenticated size limit");
  EXPECT_EQ(root.names(), before);
  plan(answers(full, "short"));
  EXPECT_FAILURE(download(), "length_mismatch", "File data is shorter than its authenticated length");
  EXPECT_EQ(root.names(), before);
  plan(answers(full, "content"), 204);
  EXPECT_FAILURE(download(), "http_status", "Download failed with status 204");
  EXPECT_EQ(root.names(), before);
  plan(answers("HTTP/1.1 404 Not Found\r\n", "nothing"), 404);
  EXPECT_FAILURE(download(), "http_status", "Download failed with status 404");
  EXPECT_EQ(root.names(), before);
  plan([](const testing::Performance& server) { return server.progress() ? CURLE_OK : CURLE_ABORTED_BY_CALLBACK; });
  EXPECT_FAILURE(download([](std::uint64_t, std::uint64_t) { return false; }), "cancelled", call_off);
  EXPECT_EQ(root.names(), before);
}

TEST_F(HttpsOperation, DownloadReplacesNothing) {
  root.write("new/file", "old");
  plan();
  EXPECT_FAILURE(service.download("a", root / "new/file", 3, {}), "unsafe_path",
                 "Cannot exclusively create or reopen a prepared allocation (" + std::to_string(EEXIST) + ")");
  EXPECT_EQ(root.read("new/file"), "old");
  EXPECT_EQ(calls->performed(), 0);
}

TEST_F(HttpsOperation, DownloadMakesItsFileThenAsksForItsAdmissionThenLooksAtThePath) {
  plan();
  int asked = 0;
  service.on_admission = [&](std::uint64_t, bool) {
    ++asked;
    fail("of_the_caller", "Not admitted");
  };
  root.write("new/taken", "old");
  EXPECT_FAILURE(service.download("..", root / "new/taken", 3, {}), "unsafe_path",
                 "Cannot exclusively create or reopen a prepared allocation (" + std::to_string(EEXIST) + ")");
  EXPECT_EQ(asked, 0);
  EXPECT_FAILURE(service.download("..", root / "new/file", 3, {}), "of_the_caller", "Not admitted");
  EXPECT_EQ(asked, 1);
  service.on_admission = {};
  EXPECT_FAILURE(service.download("..", root / "new/file", 3, {}), "unsafe_path", "Path contains an unsafe component");
  EXPECT_EQ(root.names(), (std::vector<std::string>{"bundle.pem", "new/", "new/taken"}));
  EXPECT_EQ(calls->performed(), 0);
}

TEST_F(HttpsOperation, DownloadTellsOfTheFileAndOfItsAdmission) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> told;
  std::vector<std::uint64_t> admitted;
  service.on_admission = [&](std::uint64_t size, bool allocated) {
    EXPECT_EQ(calls->performed(), 0);
    EXPECT_EQ(allocated, std::filesystem::file_size(root / "new/file") == size);
    admitted.push_back(size);
  };
  plan([](const testing::Performance& server) {
    EXPECT_TRUE(server.progress(9, 1, 9, 2));
    EXPECT_TRUE(server.header(full) && server.header("\r\n") && server.body("content"));
    EXPECT_TRUE(server.progress(9, 1, 9, 2));
    return CURLE_OK;
  });
  service.download("a", root / "new/file", 7, [&](std::uint64_t done, std::uint64_t total) {
    told.emplace_back(done, total);
    return true;
  });
  EXPECT_EQ(told, (std::vector<std::pair<std::uint64_t, std::uint64_t>>{{0, 7}, {7, 7}}));
  EXPECT_EQ(admitted, std::vector<std::uint64_t>{7});
}

class HttpsResume : public HttpsOperation {
 protected:
  void download_into(std::uint64_t offset) {
    service.download_into(
        "a", file, offset, {}, [this](std::string_view bytes) { received += bytes; }, [this] { ++restarts; });
  }

  AllocatedFile file{root / "file", 10, {}};
  std::string received;
  int restarts = 0;
};

TEST_F(HttpsResume, IsSupported) { EXPECT_TRUE(service.supports_resumption()); }

TEST_F(HttpsResume, GoesOnWhereTheFileEnds) {
  std::uint64_t admitted = 0;
  service.on_admission = [&](std::uint64_t size, bool allocated) {
    admitted = size;
    EXPECT_EQ(allocated, file.reservation().allocated);
  };
  file.write("012");
  plan(answers("HTTP/1.1 206 Partial Content\r\n", "3456789"), 206);
  EXPECT_FAILURE(download_into(3), "download_range", "A partial response requires the requested single range");
  EXPECT_EQ(file.written(), 3u);
  plan(
      [](const testing::Performance& server) {
        const bool taken = server.header("HTTP/1.1 206 Partial Content\r\n") &&
                           server.header("Content-Range: bytes 3-9/10\r\n") && server.header("\r\n") &&
                           server.body("3456789");
        return taken ? CURLE_OK : CURLE_WRITE_ERROR;
      },
      206);
  download_into(3);
  EXPECT_EQ(calls->value("RANGE"), "'3-9'");
  EXPECT_EQ(root.read("file"), "0123456789");
  EXPECT_EQ(received, "3456789");
  EXPECT_EQ(restarts, 0);
  EXPECT_EQ(admitted, 10u);
}

TEST_F(HttpsResume, BeginsAgainWithAServerThatSendsTheWholeFile) {
  file.write("xxx");
  plan(answers(full, "0123456789"));
  download_into(3);
  EXPECT_EQ(root.read("file"), "0123456789");
  EXPECT_EQ(received, "0123456789");
  EXPECT_EQ(restarts, 1);
}

TEST_F(HttpsResume, MayBeginAtTheFirstByte) {
  plan(answers(full, "0123456789"));
  download_into(0);
  EXPECT_EQ(calls->value("RANGE"), "");
  EXPECT_EQ(root.read("file"), "0123456789");
  EXPECT_EQ(restarts, 0);
}

TEST_F(HttpsResume, RefusesACursorThatIsNotTheFiles) {
  constexpr const char* message = "Download cursor differs from the recorded prefix";
  plan();
  file.write("012");
  for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{2}, std::uint64_t{4}, std::uint64_t{10},
                                     std::uint64_t{11}, ~std::uint64_t{0}}) {
    EXPECT_FAILURE(download_into(offset), "download_range", message) << offset;
  }
  file.write("3456789");
  EXPECT_FAILURE(download_into(10), "download_range", message);
  EXPECT_EQ(calls->performed(), 0);
  EXPECT_EQ(root.read("file"), "0123456789");
}

TEST_F(HttpsResume, KeepsWhatWasWrittenBeforeAFailure) {
  plan([](const testing::Performance& server) {
    EXPECT_TRUE(server.header(full) && server.header("\r\n") && server.body("0123"));
    return CURLE_RECV_ERROR;
  });
  EXPECT_FAILURE(download_into(0), "network", curl_easy_strerror(CURLE_RECV_ERROR));
  EXPECT_EQ(file.written(), 4u);
  EXPECT_EQ(received, "0123");
}

TEST_F(HttpsOperation, PostSendsACompactDocument) {
  plan(returns("ticket"), 403);
  const TransportResponse response = service.post_json("tickets/new", Json{{"b", {1, 2}}, {"a", "\xc3\xa9"}}, {});
  EXPECT_EQ(response.status, 403);
  EXPECT_EQ(response.body, "ticket");
  EXPECT_EQ(calls->value("URL"), "'https://example.test/root/tickets/new'");
  EXPECT_EQ(calls->value("POSTFIELDS"), "'{\"a\":\"\xc3\xa9\",\"b\":[1,2]}'");
  EXPECT_EQ(calls->value("HTTPHEADER"), "'Content-Type: application/json' 'Expect:'");
}

TEST_F(HttpsOperation, PostBoundsItsDocumentBeforeItsPath) {
  plan();
  EXPECT_EQ(service.post_json("a", std::string(4094, 'x'), {}).status, 200);
  EXPECT_EQ(calls->value("POSTFIELDSIZE_LARGE"), "4096");
  EXPECT_FAILURE(service.post_json("..", std::string(4095, 'x'), {}), "size_limit", "Ticket request exceeds 4 KiB");
  EXPECT_FAILURE(service.post_json("..", "\xff", {}), "invalid_json", "Ticket request must be valid UTF-8");
  EXPECT_FAILURE(service.post_json("..", "", {}), "unsafe_path", "Path contains an unsafe component");
  EXPECT_EQ(calls->performed(), 1);
}

TEST_F(HttpsOperation, PostTakesAnAnswerOf16KiB) {
  plan(returns(std::string(16'384, 'x')));
  EXPECT_EQ(service.post_json("a", "", {}).body.size(), 16'384u);
  plan(returns(std::string(16'385, 'x')));
  EXPECT_FAILURE(service.post_json("a", "", {}), "size_limit", "Server sent more than the authenticated size limit");
}

class HttpsUpload : public HttpsOperation {
 protected:
  TransportResponse upload(std::uint64_t size, const std::string& token = std::string(64, 'a'),
                           const ProgressCallback& progress = {}) {
    return service.upload_report("reports/1", path, size, token, progress);
  }

  const std::filesystem::path path = root.write("report", "report");
};

TEST_F(HttpsUpload, SendsTheFileAndReturnsTheAnswer) {
  plan(
      [](const testing::Performance& server) {
        EXPECT_EQ(server.send(100), "report");
        EXPECT_TRUE(server.progress(0, 0, 6, 6));
        return server.body("thanks") ? CURLE_OK : CURLE_WRITE_ERROR;
      },
      201);
  std::uint64_t sent = 0;
  const TransportResponse response =
      upload(6, std::string(32, '0') + std::string(32, 'f'), [&](std::uint64_t done, std::uint64_t) {
        sent = done;
        return true;
      });
  EXPECT_EQ(response.status, 201);
  EXPECT_EQ(response.body, "thanks");
  EXPECT_EQ(sent, 6u);
  EXPECT_EQ(calls->value("URL"), "'https://example.test/root/reports/1'");
  EXPECT_EQ(calls->value("INFILESIZE_LARGE"), "6");
  EXPECT_EQ(calls->value("HTTPHEADER"), "'Content-Type: application/octet-stream' 'Expect:' 'Authorization: Bearer " +
                                            std::string(32, '0') + std::string(32, 'f') + "'");
}

TEST_F(HttpsUpload, TakesAnAnswerOf16KiB) {
  plan(returns(std::string(16'384, 'x')), 400);
  EXPECT_EQ(upload(6).body.size(), 16'384u);
  plan(returns(std::string(16'385, 'x')), 400);
  EXPECT_FAILURE(upload(6), "size_limit", "Server sent more than the authenticated size limit");
}

TEST_F(HttpsUpload, ChecksSizeThenTokenThenFile) {
  plan();
  for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{104'857'601}, ~std::uint64_t{0}}) {
    EXPECT_FAILURE(upload(size, ""), "size_limit", "Report upload exceeds 100 MiB") << size;
  }
  const std::string rest(63, 'a');
  for (const std::string& token :
       {std::string(), rest, rest + "aa", rest + "A", rest + "g", rest + "/", rest + ":", rest + "`", rest + "\n"}) {
    EXPECT_FAILURE(upload(104'857'600, token), "crash_ticket", "Upload capability is invalid") << token;
  }
  EXPECT_FAILURE(upload(104'857'600), "crash_changed", invalid_snapshot);
  EXPECT_EQ(calls->performed(), 0);
}

TEST_F(HttpsUpload, TakesOnlyAnOrdinaryFileOfExactlyItsSize) {
  plan();
  const auto refused = [&](const std::filesystem::path& file, std::uint64_t size) {
    return testing::fails_with([&] { service.upload_report("a", file, size, std::string(64, 'a'), {}); },
                               "crash_changed", invalid_snapshot);
  };
  EXPECT_TRUE(refused(path, 5));
  EXPECT_TRUE(refused(path, 7));
  EXPECT_TRUE(refused(root / "missing", 6));
  EXPECT_TRUE(refused(root.path(), 4096));
  std::filesystem::create_symlink(path, root / "link");
  EXPECT_TRUE(refused(root / "link", 6));
  EXPECT_TRUE(refused(root / "link", path.native().size()));
  ASSERT_EQ(mkfifo((root / "pipe").c_str(), 0600), 0);
  EXPECT_TRUE(refused(root / "pipe", 1));
  EXPECT_TRUE(refused(std::filesystem::path(path.native() + std::string("\0.txt", 5)), 6));
  EXPECT_EQ(calls->performed(), 0);
}

TEST_F(HttpsUpload, NeedsAFileThatCanBeRead) {
  plan();
  const testing::WithMode unreadable(path, 0);
  const testing::OrdinaryUser user(root);
  EXPECT_FAILURE(upload(6), "file_read", "Cannot open reviewed upload snapshot");
  EXPECT_EQ(calls->performed(), 0);
}

TEST_F(HttpsUpload, NeedsASafePath) {
  plan();
  EXPECT_FAILURE(service.upload_report("../a", path, 6, std::string(64, 'a'), {}), "unsafe_path",
                 "Path contains an unsafe component");
  EXPECT_EQ(calls->performed(), 0);
}

// Every operation asks the budget that the transport was made with.
TEST_F(HttpsOperation, IsNotBegunWithoutABudgetThatIsLeft) {
  const auto budget = std::make_shared<HttpsBudget>();
  budget->deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  budget->used = 1;
  HttpsTransport check("https://example.test", bundle, 0, budget);
  plan();
  const auto refused = [](const std::function<void()>& operation) {
    return testing::fails_with(operation, "discovery_budget", "Optional update check exhausted its response budget");
  };
  const std::filesystem::path report = root.write("report", "report");
  AllocatedFile file(root / "file", 10, {});
  EXPECT_TRUE(refused([&] { check.get("a", 1); }));
  EXPECT_TRUE(refused([&] { check.get_component("a", 1); }));
  EXPECT_TRUE(refused([&] { check.download("a", root / "new/file", 1, {}); }));
  EXPECT_TRUE(refused([&] { check.download_into("a", file, 0, {}, {}, {}); }));
  EXPECT_TRUE(refused([&] { check.post_json("a", Json::object(), {}); }));
  EXPECT_TRUE(refused([&] { check.upload_report("a", report, 6, std::string(64, 'a'), {}); }));
  EXPECT_EQ(calls->performed(), 0);
}

TEST_F(HttpsOperation, AddToOneBudget) {
  const auto budget = std::make_shared<HttpsBudget>();
  budget->deadline = std::chrono::steady_clock::now() + std::chrono::seconds(29);
  budget->limit = 9;
  HttpsTransport check("https://example.test", bundle, 0, budget);
  plan(returns("four"));
  EXPECT_EQ(check.get("a", 4).body, "four");
  EXPECT_EQ(check.get_component("a", 4).body, "four");
  EXPECT_EQ(budget->used, 8u);
  EXPECT_FAILURE(check.get("a", 4), "discovery_budget",
                 "Optional update check exhausted its response budget; use Check for updates for a complete check");
  EXPECT_EQ(budget->used, 8u);
}

}  // namespace
}  // namespace ravok
