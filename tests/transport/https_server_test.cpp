// Requests to a real server.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/nginx_server.hpp"
#include "transport/network_place.hpp"

namespace ravok {
namespace {

class HttpsServer : public testing::NetworkPlace {
 protected:
  void SetUp() override {
    if (!testing::NginxServer::is_installed()) {
      GTEST_SKIP() << "nginx is not installed";
    }
  }
};

TEST_F(HttpsServer, ServesBothVersionsOfTls) {
  for (const char* const version : {"TLSv1.2", "TLSv1.3"}) {
    const testing::NginxServer server(authority_.issue(), std::string("ssl_protocols ") + version +
                                                              "; location = /version { return 200 $ssl_protocol; }");
    const TransportResponse response = client(server.url()).get("version", 100);
    EXPECT_EQ(response.status, 200) << server.complaints();
    EXPECT_EQ(response.body, version);
  }
}

TEST_F(HttpsServer, IsReachedByItsAddressToo) {
  const testing::NginxServer server(authority_.issue());
  server.serve("folder/a name", "content");
  EXPECT_EQ(client(server.url_at("127.0.0.1") + "folder").get("a name", 100).body, "content") << server.complaints();
}

TEST_F(HttpsServer, AnswersWithAStatusThatIsTheCallersToJudge) {
  const testing::NginxServer server(authority_.issue(), "location = /gone { return 410 \"It was here.\"; }");
  EXPECT_EQ(client(server.url()).get("missing", 10'000).status, 404) << server.complaints();
  const TransportResponse gone = client(server.url()).get("gone", 12);
  EXPECT_EQ(gone.status, 410);
  EXPECT_EQ(gone.body, "It was here.");
}

TEST_F(HttpsServer, AnswersWithAsMuchAsTheLimitAndNotOneByteMore) {
  const testing::NginxServer server(authority_.issue());
  const std::string content = testing::large_content();
  server.serve("file", content);
  HttpsTransport transport = client(server.url());
  EXPECT_EQ(transport.get("file", content.size()).body, content) << server.complaints();
  EXPECT_FAILURE(transport.get("file", content.size() - 1), "size_limit",
                 "Server sent more than the authenticated size limit");
}

TEST_F(HttpsServer, ItsRedirectsAreRefused) {
  const testing::NginxServer server(authority_.issue(), "location = /moved { return 301 /file; }");
  server.serve("file", "content");
  HttpsTransport transport = client(server.url());
  EXPECT_FAILURE(transport.get("moved", 10'000), "redirect_rejected", "Server redirects are not permitted");
  EXPECT_FAILURE(transport.download("moved", destination(), 7, {}), "redirect_rejected",
                 "Server redirects are not permitted");
  EXPECT_EQ(files(), std::vector<std::string>());
}

TEST_F(HttpsServer, GivesAWholeFileAndProgressGrowsToItsSize) {
  const testing::NginxServer server(authority_.issue());
  const std::string content = testing::large_content();
  server.serve("file", content);
  std::vector<std::uint64_t> done;
  client(server.url()).download("file", destination(), content.size(), [&](std::uint64_t now, std::uint64_t total) {
    EXPECT_EQ(total, content.size());
    EXPECT_GE(now, done.empty() ? 0 : done.back());
    done.push_back(now);
    return true;
  });
  EXPECT_EQ(root_.read("files/file"), content) << server.complaints();
  EXPECT_EQ(files(), std::vector<std::string>{"files/file"});
  ASSERT_FALSE(done.empty());
  EXPECT_EQ(done.back(), content.size());
}

TEST_F(HttpsServer, GivesAnEmptyFile) {
  const testing::NginxServer server(authority_.issue());
  server.serve("empty", "");
  client(server.url()).download("empty", destination(), 0, {});
  EXPECT_EQ(root_.read("files/file"), "") << server.complaints();
}

TEST_F(HttpsServer, ADownloadThatIsRefusedLeavesNoFile) {
  const testing::NginxServer server(authority_.issue());
  server.serve("file", "content");
  HttpsTransport transport = client(server.url());
  EXPECT_FAILURE(transport.download("missing", destination(), 7, {}), "http_status", "Download failed with status 404");
  EXPECT_FAILURE(transport.download("file", destination(), 6, {}), "length_mismatch",
                 "Server length differs from the authenticated download bound");
  EXPECT_EQ(files(), std::vector<std::string>());
}

TEST_F(HttpsServer, ContinuesAFile) {
  const testing::NginxServer server(authority_.issue());
  const std::string content = testing::large_content();
  server.serve("file", content);
  for (const std::size_t there : {std::size_t{1}, content.size() / 2, content.size() - 1}) {
    testing::PartialFile file(root_ / "part", content.size(), content.substr(0, there));
    HttpsTransport transport = client(server.url());
    std::uint64_t done = 0;
    file.fetch_rest(transport, "file", [&](std::uint64_t now, std::uint64_t total) {
      EXPECT_GE(now, there);
      EXPECT_EQ(total, content.size());
      done = now;
      return true;
    });
    EXPECT_EQ(file.content(), content) << server.complaints();
    EXPECT_EQ(file.told(), content.substr(there));
    EXPECT_EQ(done, content.size());
  }
}

TEST_F(HttpsServer, ThatKnowsNoRangesMakesAFileBeginAgain) {
  const testing::NginxServer server(authority_.issue(), "max_ranges 0;");
  const std::string content = testing::large_content();
  server.serve("file", content);
  testing::PartialFile file(root_ / "part", content.size(), std::string(1'000'000, 'x'));
  HttpsTransport transport = client(server.url());
  file.fetch_rest(transport, "file");
  EXPECT_EQ(file.content(), content) << server.complaints();
  EXPECT_EQ(file.told(), "[restart]" + content);
}

TEST_F(HttpsServer, ThatCompressesForThoseWhoAskSendsTheFileAsItIs) {
  const testing::NginxServer server(authority_.issue(),
                                    "gzip on; gzip_types application/octet-stream; gzip_min_length 1;");
  const std::string content(100'000, 'x');
  server.serve("file", content);
  HttpsTransport transport = client(server.url());
  transport.download("file", destination(), content.size(), {});
  EXPECT_EQ(root_.read("files/file"), content) << server.complaints();
  EXPECT_EQ(transport.get("file", content.size()).body, content);
}

// The server does not know how long an answer will be that it may still change.
TEST_F(HttpsServer, ThatDoesNotKnowTheLengthSendsTheFileAllTheSame) {
  for (const std::string framing : {"on", "off"}) {
    const testing::NginxServer server(authority_.issue(),
                                      "sub_filter absent present; sub_filter_types *; "
                                      "chunked_transfer_encoding " +
                                          framing + ";");
    const std::string content = testing::large_content();
    server.serve("file", content);
    HttpsTransport transport = client(server.url());
    transport.download("file", root_ / "files" / framing, content.size(), {});
    EXPECT_EQ(root_.read("files/" + framing), content) << server.complaints();
    EXPECT_EQ(transport.get("file", content.size()).body, content);
    EXPECT_FAILURE(transport.download("file", root_ / "files/longer", content.size() + 1, {}), "length_mismatch",
                   "File data is shorter than its authenticated length");
    EXPECT_FAILURE(transport.download("file", root_ / "files/shorter", content.size() - 1, {}), "size_limit",
                   "Server sent more than the authenticated size limit");
  }
  EXPECT_EQ(files(), (std::vector<std::string>{"files/off", "files/on"}));
}

TEST_F(HttpsServer, ThatIsSlowIsWaitedFor) {
  const testing::NginxServer server(authority_.issue(), "limit_rate 300k;");
  const std::string content = testing::large_content(400'000);
  server.serve("file", content);
  client(server.url()).download("file", destination(), content.size(), {});
  EXPECT_EQ(root_.read("files/file"), content) << server.complaints();
}

TEST_F(HttpsServer, IsReadNoFasterThanIsAllowed) {
  const testing::NginxServer server(authority_.issue());
  const std::string content = testing::large_content(800'000);
  server.serve("file", content);
  HttpsTransport transport(server.url(), root_ / "authority.pem", 400'000);
  const auto start = std::chrono::steady_clock::now();
  transport.download("file", destination(), content.size(), {});
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(800));
  EXPECT_EQ(root_.read("files/file"), content) << server.complaints();
}

TEST_F(HttpsServer, TakesAReport) {
  // The server that stores takes the method PUT alone.
  const testing::NginxServer server(authority_.issue(),
                                    "client_max_body_size 4m;\n"
                                    "location = /reports {\n"
                                    "  proxy_method PUT; proxy_pass https://127.0.0.1:$server_port/stored/one;\n"
                                    "}\n"
                                    "location /stored/ { dav_methods PUT; create_full_put_path on; }\n");
  const std::string content = testing::large_content();
  const std::filesystem::path report = root_.write("report", content);
  HttpsTransport transport = client(server.url());
  std::uint64_t sent = 0;
  const TransportResponse response = transport.upload_report("reports", report, content.size(), std::string(64, 'a'),
                                                             [&](std::uint64_t now, std::uint64_t total) {
                                                               EXPECT_LE(now, content.size());
                                                               EXPECT_TRUE(total == 0 || total == content.size());
                                                               sent = now;
                                                               return true;
                                                             });
  EXPECT_EQ(response.status, 201) << server.complaints();
  EXPECT_EQ(sent, content.size());
  EXPECT_EQ(transport.get("stored/one", content.size()).body, content);
}

TEST_F(HttpsServer, ServesSeveralThreadsOfOneClient) {
  const testing::NginxServer server(authority_.issue());
  const std::string content = testing::large_content();
  server.serve("file", content);
  HttpsTransport transport = client(server.url());
  std::vector<std::string> bodies(4);
  std::vector<std::thread> threads;
  for (std::string& body : bodies) {
    threads.emplace_back([&] { body = transport.get("file", content.size()).body; });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const std::string& body : bodies) {
    EXPECT_EQ(body, content) << server.complaints();
  }
}

}  // namespace
}  // namespace ravok
