// Requests of a process in strange surroundings: without descriptors or room in files, and among signals.

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include "platform/process/program_start.hpp"
#include "support/client_process.hpp"
#include "support/few_descriptors.hpp"
#include "support/scripted_server.hpp"
#include "transport/scripted_place.hpp"

namespace ravok {
namespace {

using testing::ClientProcess;
using testing::Conversation;
using testing::rest_of;
using testing::ScriptedServer;
using testing::sized;
using testing::whole;

class HttpsProcess : public testing::ScriptedPlace {
 protected:
  ScriptedServer::Script serving(const std::string& content) const {
    return [&content](Conversation& peer) {
      const std::string request = peer.read_request();
      peer.send(request.starts_with("POST ") ? sized(whole) : rest_of(content, request));
    };
  }

  const std::string content_ = testing::large_content(1'000'003);
  const std::filesystem::path report_ = root_.write("report", content_);
};

TEST_F(HttpsProcess, NeedsNoStandardStreams) {
  ClientProcess process([&](const std::string& url) {
    for (const int stream : {0, 1, 2}) {
      close(stream);
    }
    HttpsTransport transport = client(url);
    transport.download("file", destination(), content_.size(), {});
    return std::string(transport.get("file", content_.size()).body == content_ ? "done" : "other content");
  });
  const ScriptedServer server(authority_.issue(), serving(content_));
  EXPECT_EQ(process.run(server.url()), "done");
  EXPECT_TRUE(root_.read("files/file") == content_);
  EXPECT_EQ(server.requests().size(), 2u);
}

// Every number of descriptors that is too small ends a request with a failure of its own and leaves no file.
TEST_F(HttpsProcess, SaysSoWhenItMayNotOpenWhatItNeeds) {
  if (!testing::can_do_without_descriptors) {
    GTEST_SKIP() << "the sanitizers need descriptors themselves";
  }
  bool done = false;
  std::set<std::string> codes;
  for (rlim_t more = 0; !done; ++more) {
    ASSERT_LT(more, 40u);
    ClientProcess process([&](const std::string& url) {
      HttpsTransport transport = client(url);
      const testing::FewDescriptors few(more);
      transport.download("file", destination(), content_.size(), {});
      return std::string("done");
    });
    const ScriptedServer server(authority_.issue(), serving(content_));
    const std::string ending = process.run(server.url());
    done = ending == "done";
    codes.insert(ending.substr(0, ending.find(':')));
    EXPECT_EQ(files(), done ? std::vector<std::string>{"files/file"} : std::vector<std::string>()) << ending;
    EXPECT_LE(server.requests().size(), 1u);
  }
  EXPECT_TRUE(root_.read("files/file") == content_);
  EXPECT_EQ(codes, (std::set<std::string>{"done", "file_read", "network", "unsafe_path"}));
}

std::ptrdiff_t open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::distance(begin(all), end(all));
}

// Whatever a request ends with, nothing of it stays open.
TEST_F(HttpsProcess, HoldsNoConnectionBetweenRequests) {
  ClientProcess process([&](const std::string& url) -> std::string {
    HttpsTransport transport = client(url);
    transport.get("file", content_.size());
    const std::ptrdiff_t before = open_descriptors();
    const auto stop = [](std::uint64_t, std::uint64_t) { return false; };
    int failures = 0;
    const auto fails = [&](const std::function<void()>& work) { failures += testing::failure_of(work) ? 1 : 0; };
    for (int round = 0; round < 3; ++round) {
      transport.get("file", content_.size());
      transport.download("file", root_ / ("files/" + std::to_string(round)), content_.size(), {});
      transport.upload_report("file", report_, content_.size(), std::string(64, 'a'), {});
      fails([&] { transport.get("file", 10); });
      fails([&] { transport.download("file", destination(), content_.size() - 1, {}); });
      fails([&] { transport.download("file", destination(), content_.size(), stop); });
      fails([&] { transport.upload_report("file", report_, content_.size(), std::string(64, 'a'), stop); });
      fails([&] { client("https://localhost:1").get("file", 10); });
    }
    return std::to_string(failures) + " failures, " + std::to_string(open_descriptors() - before) + " more open";
  });
  const ScriptedServer server(authority_.issue(), serving(content_));
  EXPECT_EQ(process.run(server.url()), "15 failures, 0 more open");
}

TEST_F(HttpsProcess, OutlivesAServerThatGoesAwayDuringAnUpload) {
  ClientProcess process([&](const std::string& url) {
    std::signal(SIGPIPE, SIG_DFL);
    return std::to_string(client(url).upload_report("file", report_, content_.size(), std::string(64, 'a'), {}).status);
  });
  const ScriptedServer server(authority_.issue(), [](Conversation& peer) { peer.reset(); });
  const std::string ending = process.run(server.url());
  EXPECT_TRUE(ending == "network: Failed sending data to the peer" ||
              ending == "network: Failure when receiving data from the peer")
      << ending;
}

std::sig_atomic_t volatile interruptions = 0;

void count_interruption(int) { interruptions = interruptions + 1; }

// Interrupts this process every millisecond, and repeats no call of the system that it interrupts.
bool interrupt_often() {
  struct sigaction action {};
  action.sa_handler = count_interruption;
  sigemptyset(&action.sa_mask);
  const itimerval often{.it_interval = {.tv_sec = 0, .tv_usec = 1'000}, .it_value = {.tv_sec = 0, .tv_usec = 1'000}};
  return sigaction(SIGALRM, &action, nullptr) == 0 && setitimer(ITIMER_REAL, &often, nullptr) == 0;
}

TEST_F(HttpsProcess, GoesOnAfterSignals) {
  ClientProcess process([&](const std::string& url) -> std::string {
    HttpsTransport transport(url, root_ / "authority.pem", 5'000'000);
    if (!interrupt_often()) {
      return "no signals";
    }
    transport.download("file", destination(), content_.size(), {});
    testing::PartialFile part(root_ / "part", content_.size(), content_.substr(0, 500'000));
    part.fetch_rest(transport, "file");
    if (part.content() != content_ || transport.get("file", content_.size()).body != content_) {
      return "other content";
    }
    const long status = transport.upload_report("report", report_, content_.size(), std::string(64, 'a'), {}).status;
    return interruptions > 10 ? "done with status " + std::to_string(status) : "hardly any signals";
  });
  const ScriptedServer server(authority_.issue(), serving(content_));
  EXPECT_EQ(process.run(server.url()), "done with status 200");
  EXPECT_TRUE(root_.read("files/file") == content_);
  ASSERT_EQ(server.requests().size(), 4u);
  EXPECT_TRUE(testing::body_of(server.requests()[3]) == content_);
}

// A program of the client takes the signal of a file that may not grow, and goes on.
TEST_F(HttpsProcess, EndsADownloadAtTheLimitOfItsFiles) {
  const auto download_within = [&](rlim_t limit) {
    ClientProcess process([&, limit](const std::string& url) -> std::string {
      HttpsTransport transport = client(url);
      const rlimit files_limit{limit, limit};
      if (!start_program() || setrlimit(RLIMIT_FSIZE, &files_limit) != 0) {
        return "no limit";
      }
      transport.download("file", destination(), content_.size(), {});
      return "done";
    });
    const ScriptedServer server(authority_.issue(), serving(content_));
    return process.run(server.url());
  };
  const std::string number = std::to_string(EFBIG);
  for (const rlim_t limit : {rlim_t{0}, rlim_t{100'000}, rlim_t{content_.size() - 1}}) {
    EXPECT_EQ(download_within(limit), "space_reservation: Native file allocation failed (" + number + ")") << limit;
    EXPECT_EQ(files(), std::vector<std::string>());
  }
  EXPECT_EQ(download_within(content_.size()), "done");
  EXPECT_TRUE(root_.read("files/file") == content_);
}

// The blocks were claimed before the limit was there.
TEST_F(HttpsProcess, KeepsThePrefixOfAFileThatReachesTheLimit) {
  ClientProcess process([&](const std::string& url) -> std::string {
    HttpsTransport transport = client(url);
    testing::PartialFile part(root_ / "part", content_.size(), content_.substr(0, 100));
    const rlimit files_limit{600'000, RLIM_INFINITY};
    if (!start_program() || setrlimit(RLIMIT_FSIZE, &files_limit) != 0) {
      return "no limit";
    }
    const auto failure = testing::failure_of([&] { part.fetch_rest(transport, "file"); });
    if (!failure || part.content() != content_.substr(0, 600'000)) {
      return "another prefix";
    }
    const rlimit no_limit{RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &no_limit) != 0) {
      return "still a limit";
    }
    part.fetch_rest(transport, "file");
    return part.content() == content_ ? failure->code + ": " + failure->what() : "other content";
  });
  const ScriptedServer server(authority_.issue(), serving(content_));
  EXPECT_EQ(process.run(server.url()), "file_write: Cannot write staged file data (" + std::to_string(EFBIG) + ")");
  EXPECT_EQ(server.requests().size(), 2u);
}

}  // namespace
}  // namespace ravok
