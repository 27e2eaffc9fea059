// A small program that keeps what is trusted of a repository as the client does. A refusal is printed as
// "CODE: MESSAGE" and ends it with code 1.
//
//   sample_repository initialize DIRECTORY METADATA   takes the first root
//   sample_repository open DIRECTORY METADATA         opens the directory, which finishes a change of keys
//   sample_repository refresh DIRECTORY METADATA      refreshes
//   sample_repository load DIRECTORY METADATA         works from what is stored, without a network
//
// METADATA is a folder with the files of the repository. It is read before anything else happens.

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "domain/error.hpp"
#include "platform/file/files.hpp"
#include "sample_main.hpp"
#include "tuf/tuf.hpp"

namespace ravok {
namespace {

constexpr std::uint64_t file_limit = 1 << 20;

class FolderTransport : public Transport {
 public:
  explicit FolderTransport(const std::filesystem::path& folder) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      files_[entry.path().filename()] = read_file(entry.path(), file_limit);
    }
  }

  const std::string& file(const std::string& name) const { return files_.at(name); }

  TransportResponse get(std::string_view path, std::uint64_t limit) override {
    require(!silent, "network", "Could not connect to server");
    const auto found = files_.find(std::string(path));
    if (found == files_.end()) {
      return {404, ""};
    }
    require(found->second.size() <= limit, "size_limit", "Server sent more than the authenticated size limit");
    return {200, found->second};
  }
  void download(std::string_view, const std::filesystem::path&, std::uint64_t, const ProgressCallback&) override {
    fail("network", "There are no targets");
  }

  bool silent = false;

 private:
  std::map<std::string, std::string> files_;
};

int run(const std::vector<std::string>& arguments) {
  if (arguments.size() != 3) {
    return 64;
  }
  const std::string& action = arguments[0];
  const std::filesystem::path directory = arguments[1];
  FolderTransport transport(arguments[2]);
  if (action == "initialize") {
    TufClient::initialize(directory, transport.file("1.root.json"));
    return 0;
  }
  const TufLimits limits = {file_limit, file_limit, file_limit, 8, 8};
  TufClient client(directory, transport, transport, limits, [] { return parse_tuf_time("2030-01-01T00:00:00Z"); });
  if (action == "refresh") {
    client.refresh();
  } else if (action == "load") {
    transport.silent = true;
    client.load_selected_metadata();
  } else if (action != "open") {
    return 64;
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int argc, char** argv) { return ravok::testing::sample_main(argc, argv, ravok::run); }
