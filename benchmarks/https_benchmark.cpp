// Requests over TLS to a real server on the loopback, beside the library alone with the same options that cost time,
// and beside the curl program.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include "bare_digest.hpp"
#include "processes.hpp"
#include "scratch.hpp"
#include "served.hpp"
#include "support/certificate.hpp"
#include "support/nginx_server.hpp"
#include "transport/https.hpp"

namespace {

using ravok::benchmarks::check;
using ravok::benchmarks::Scratch;

constexpr const char* curl_program = "/usr/bin/curl";
constexpr std::uint64_t large_bytes = std::uint64_t{1} << 30;
constexpr int small_requests = 1000;
// Of which each is a process of its own.
constexpr int program_requests = 100;
const std::string small_content(1000, 'x');

// A server with one large file and one small one, and what a client needs of it.
class Service {
 public:
  Service() {
    std::ofstream(authority_file_) << authority_.root();
    std::ofstream(large_file_).close();
    std::filesystem::resize_file(large_file_, large_bytes);
    server_.serve("small", small_content);
  }

  ravok::HttpsTransport client() const { return {server_.url(), authority_file_}; }
  std::string url(const std::string& path) const { return server_.url() + path; }
  const std::filesystem::path& authority_file() const { return authority_file_; }

  // Returns the path for the file of a run: no file is there, and the disk is at rest.
  std::filesystem::path prepare() const {
    std::filesystem::path path = scratch_.path() / "files/file";
    std::filesystem::remove(path);
    sync();
    return path;
  }

 private:
  const Scratch scratch_;
  const std::filesystem::path authority_file_ = scratch_.path() / "authority.pem";
  const std::filesystem::path large_file_ = scratch_.path() / "large";
  const ravok::testing::CertificateAuthority authority_;
  const ravok::testing::NginxServer server_{authority_.issue(),
                                            "location = /large { alias " + large_file_.native() + "; }"};
};

// The options of the curl program that make it ask as a client does, and what is asked for.
std::vector<std::string> program_arguments(const Service& service, const std::string& path,
                                           const std::filesystem::path& destination) {
  return {"--disable", "--silent",  "--fail",         "--http1.1", "--cacert", service.authority_file(),
          "--output",  destination, service.url(path)};
}

struct Release {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
using Easy = std::unique_ptr<CURL, Release>;

// A handle for one request by the library alone.
Easy bare_request(const std::string& url, const std::filesystem::path& authority_file) {
  Easy easy(curl_easy_init());
  check(easy != nullptr);
  check(curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str()) == CURLE_OK);
  check(curl_easy_setopt(easy.get(), CURLOPT_CAINFO, authority_file.c_str()) == CURLE_OK);
  check(curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L) == CURLE_OK);
  return easy;
}

std::size_t write_to_file(char* bytes, std::size_t size, std::size_t count, void* context) {
  const ssize_t written = write(*static_cast<const int*>(context), bytes, size * count);
  return written < 0 ? 0 : static_cast<std::size_t>(written);
}

std::size_t append_to_text(char* bytes, std::size_t size, std::size_t count, void* context) {
  static_cast<std::string*>(context)->append(bytes, size * count);
  return size * count;
}

void https_download(benchmark::State& state) {
  if (!ravok::benchmarks::has_server(state)) {
    return;
  }
  const Service service;
  ravok::HttpsTransport client = service.client();
  for (auto _ : state) {
    state.PauseTiming();
    const std::filesystem::path path = service.prepare();
    state.ResumeTiming();
    client.download("large", path, large_bytes, {});
  }
}
BENCHMARK(https_download)->Unit(benchmark::kMillisecond)->UseRealTime();

// Into a file whose space is claimed, flushed once.
void https_download_yardstick(benchmark::State& state) {
  if (!ravok::benchmarks::has_server(state)) {
    return;
  }
  const Service service;
  for (auto _ : state) {
    state.PauseTiming();
    const std::filesystem::path path = service.prepare();
    std::filesystem::create_directories(path.parent_path());
    state.ResumeTiming();
    const Easy easy = bare_request(service.url("large"), service.authority_file());
    int file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    check(file >= 0 && fallocate(file, 0, 0, static_cast<off_t>(large_bytes)) == 0);
    check(curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &write_to_file) == CURLE_OK);
    check(curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, static_cast<void*>(&file)) == CURLE_OK);
    check(curl_easy_perform(easy.get()) == CURLE_OK && fsync(file) == 0);
    close(file);
  }
}
BENCHMARK(https_download_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK(https_download)->Name("https_download_program")->Unit(benchmark::kMillisecond)->UseRealTime();

// The program flushes nothing, so that is done when it has ended.
void https_download_program_yardstick(benchmark::State& state) {
  if (!ravok::benchmarks::has_server(state)) {
    return;
  }
  const Service service;
  for (auto _ : state) {
    state.PauseTiming();
    const std::filesystem::path path = service.prepare();
    std::filesystem::create_directories(path.parent_path());
    state.ResumeTiming();
    ravok::benchmarks::run(curl_program, program_arguments(service, "large", path));
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    check(file >= 0 && fsync(file) == 0);
    close(file);
  }
}
BENCHMARK(https_download_program_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

void get_small(benchmark::State& state, int requests) {
  if (!ravok::benchmarks::has_server(state)) {
    return;
  }
  const Service service;
  ravok::HttpsTransport client = service.client();
  for (auto _ : state) {
    for (int i = 0; i < requests; ++i) {
      check(client.get("small", small_content.size()).body == small_content);
    }
  }
}

void https_gets(benchmark::State& state) { get_small(state, small_requests); }
BENCHMARK(https_gets)->Unit(benchmark::kMillisecond)->UseRealTime();

// Each with a handle of its own.
void https_gets_yardstick(benchmark::State& state) {
  if (!ravok::benchmarks::has_server(state)) {
    return;
  }
  const Service service;
  for (auto _ : state) {
    for (int i = 0; i < small_requests; ++i) {
      const Easy easy = bare_request(service.url("small"), service.authority_file());
      std::string body;
      check(curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &append_to_text) == CURLE_OK);
      check(curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, static_cast<void*>(&body)) == CURLE_OK);
      check(curl_easy_perform(easy.get()) == CURLE_OK && body == small_content);
    }
  }
}
BENCHMARK(https_gets_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

void https_gets_program(benchmark::State& state) { get_small(state, program_requests); }
BENCHMARK(https_gets_program)->Unit(benchmark::kMillisecond)->UseRealTime();

void https_gets_program_yardstick(benchmark::State& state) {
  if (!ravok::benchmarks::has_server(state)) {
    return;
  }
  const Service service;
  for (auto _ : state) {
    for (int i = 0; i < program_requests; ++i) {
      ravok::benchmarks::run(curl_program, program_arguments(service, "small", "/dev/null"));
    }
  }
}
BENCHMARK(https_gets_program_yardstick)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
