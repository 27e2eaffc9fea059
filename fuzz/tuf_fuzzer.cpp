// The input decides what a network answers to a client: three bytes for each request, and whatever they say, a refresh
// ends with success or with a failure of its own, and what the client then has on the disk is what the repository has
// signed at some time, never older than before, and enough to go on without a network after a success.
//
// The first byte is the kind of the answer. The others choose among the times of the repository's life, its documents,
// and the bytes of an answer. When the input has ended, the network is honest.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "domain/error.hpp"
#include "memory_volume.hpp"
#include "property.hpp"
#include "support/temporary_root.hpp"
#include "support/tuf_repository.hpp"
#include "tuf/tuf.hpp"

namespace {

using ravok::Error;
using ravok::Json;
using ravok::Transport;
using ravok::TransportResponse;
using ravok::TufClient;
using ravok::fuzz::must_hold;
using ravok::testing::TufRepository;

constexpr int refreshes = 4;
constexpr ravok::TufLimits limits{
    .root_bytes = 50'000, .timestamp_bytes = 10'000, .metadata_bytes = 50'000, .root_rotations = 8, .delegations = 4};

// What was served at each time of a repository's life, and all that was ever signed.
struct Life {
  Life() {
    TufRepository repository;
    const auto pass = [&] {
      repository.publish();
      times.push_back(repository.metadata());
      for (const auto& [name, text] : repository.metadata()) {
        documents.insert(text);
        signed_parts.insert(Json::parse(text).at("signed").dump());
      }
    };
    repository.targets().add("launcher", "first");
    repository.delegate("targets", {.name = "games", .paths = {"games/*"}});
    pass();
    first_root = repository.root_text();
    repository.targets().add("launcher", "second");
    pass();
    repository.rotate("timestamp");
    pass();
    repository.rotate("root");
    repository.role("games").add("games/one", "content");
    pass();
    repository.rotate("snapshot");
    repository.rotate("targets");
    pass();
    repository.timestamp().expires = "2029-01-01T00:00:00Z";
    pass();
    repository.timestamp().expires = "2035-01-01T00:00:00Z";
    pass();
    any.assign(documents.begin(), documents.end());
  }

  std::vector<TufRepository::Files> times;
  std::set<std::string> documents;
  std::vector<std::string> any;
  std::set<std::string> signed_parts;
  std::string first_root;
};

const Life& life() {
  static const Life lived;
  return lived;
}

class Network : public Transport {
 public:
  explicit Network(std::span<const std::uint8_t> choices) : choices_(choices) {}

  bool connected = true;

  TransportResponse get(std::string_view path, std::uint64_t limit) override {
    if (!connected) {
      throw Error("network", "There is no network");
    }
    const std::uint8_t kind = next();
    const std::uint8_t first = next();
    const std::uint8_t second = next();
    TransportResponse answer = answer_of(kind, first, second, std::string(path));
    if (answer.body.size() > limit) {
      throw Error("size_limit", "Server sent more than the authenticated size limit");
    }
    return answer;
  }

  void download(std::string_view, const std::filesystem::path&, std::uint64_t,
                const ravok::ProgressCallback&) override {
    must_hold(false, "a refresh downloads no target");
  }

 private:
  // 0 when the input has ended, which is an honest answer.
  std::uint8_t next() {
    if (choices_.empty()) {
      return 0;
    }
    const std::uint8_t choice = choices_.front();
    choices_ = choices_.subspan(1);
    return choice;
  }

  static TransportResponse honest(std::size_t time, const std::string& name) {
    const TufRepository::Files& files = life().times[time % life().times.size()];
    const auto found = files.find(name);
    return found == files.end() ? TransportResponse{404, {}} : TransportResponse{200, found->second};
  }

  static TransportResponse answer_of(std::uint8_t kind, std::uint8_t first, std::uint8_t second,
                                     const std::string& name) {
    constexpr long statuses[] = {403, 404, 500, 301, 204, 206};
    TransportResponse answer = honest(life().times.size() - 1, name);
    switch (kind % 7) {
      case 1:
        return honest(first, name);
      case 2:
        return {200, life().any[first % life().any.size()]};
      case 3:
        answer.status = statuses[first % std::size(statuses)];
        return answer;
      case 4:
        answer.body.resize(answer.body.size() * first / 256);
        return answer;
      case 5:
        if (!answer.body.empty()) {
          answer.body[answer.body.size() * first / 256] ^= static_cast<char>(second);
        }
        return answer;
      case 6:
        throw Error("network", "The connection broke");
      default:
        return answer;
    }
  }

  std::span<const std::uint8_t> choices_;
};

std::string content_of(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The versions that are stored, by the names of their files.
std::map<std::string, std::uint64_t> stored(const std::filesystem::path& directory) {
  std::map<std::string, std::uint64_t> versions;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const std::string name = entry.path().filename();
    if (name == ".lock") {
      continue;
    }
    must_hold(name.ends_with(".json") && name != "root-invalidation.json", "nothing else stays in the directory");
    const Json body = Json::parse(content_of(entry.path())).at("signed");
    must_hold(life().signed_parts.contains(body.dump()), "what is stored was signed");
    versions[name] = body.at("version").get<std::uint64_t>();
  }
  return versions;
}

bool succeeds(TufClient& client, void (TufClient::*operation)()) {
  try {
    (client.*operation)();
    return true;
  } catch (const Error&) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ravok::testing::TemporaryRoot root(ravok::fuzz::memory_volume());
  const std::filesystem::path directory = root / "trusted";
  TufClient::initialize(directory, life().first_root);
  Network network(std::span(data, size));
  const auto client = [&] {
    return TufClient(directory, network, network, limits, [] { return ravok::parse_tuf_time("2030-01-01T00:00:00Z"); });
  };
  std::map<std::string, std::uint64_t> before = stored(directory);
  for (int refresh = 0; refresh < refreshes; ++refresh) {
    bool refreshed = false;
    {
      TufClient online = client();
      refreshed = succeeds(online, &TufClient::refresh);
    }
    std::map<std::string, std::uint64_t> after = stored(directory);
    must_hold(after.at("root.json") >= before.at("root.json"), "a root never goes back");
    if (after.at("root.json") == before.at("root.json")) {
      for (const char* const name : {"timestamp.json", "snapshot.json"}) {
        must_hold(!before.contains(name) || after[name] >= before[name], "a role never goes back under its keys");
      }
    }
    network.connected = false;
    TufClient offline = client();
    must_hold(!refreshed || succeeds(offline, &TufClient::load_selected_metadata), "a success needs no network again");
    network.connected = true;
    before = after;
  }
  return 0;
}
