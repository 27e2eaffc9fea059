// What the tests of a refresh share: a place with a repository and a client, and the failures that a refresh tells.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/status.hpp"
#include "support/failure.hpp"
#include "support/tuf_place.hpp"
#include "tuf/tuf.hpp"

namespace ravok::refresh_tests {

using testing::answers_with;
using testing::answers_with_status;
using testing::fails_with_error;
using testing::RepositoryRequest;
using testing::RepositoryTransport;
using testing::StoredFiles;
using testing::TestKey;
using testing::TestRole;
using testing::TufPlace;

using Names = std::vector<std::string>;

inline constexpr std::uint64_t greatest = std::numeric_limits<std::uint64_t>::max();

inline constexpr const char* too_few = "Metadata does not meet its authorized signature threshold";
inline constexpr const char* not_next = "Root version is not exactly the next version";
inline constexpr const char* no_next_root = "Could not download next trusted root";
inline constexpr const char* no_timestamp = "Could not download timestamp metadata";
inline constexpr const char* has_expired =
    "Repository metadata has expired; previously installed games remain playable";
inline constexpr const char* too_large = "JSON exceeds its size limit";
inline constexpr const char* went_back = "Timestamp version went backwards";
inline constexpr const char* role_lost = "Snapshot removed or rolled back a known targets role";
inline constexpr const char* other_length = "Metadata length does not match its parent";
inline constexpr const char* other_hash = "Metadata hash does not match its parent";
inline constexpr const char* other_version = "Metadata version does not match its parent";
inline constexpr const char* unbounded_name = "Metadata role name exceeds its bound";
inline constexpr const char* link_in_path = "Managed path contains a symbolic link";
inline constexpr const char* no_connection = "Could not connect to server";

inline std::string damaged(const std::string& role) {
  return "Stored " + role + " metadata is malformed; preserve and restore trusted state";
}

class Refreshes : public ::testing::Test, protected TufPlace {
 protected:
  void begin_and_refresh() {
    begin();
    refresh();
    transport.forget();
  }

  // Begins with another repository and an empty directory.
  void begin_again(const std::function<void()>& shape = {}) {
    repository = {};
    std::filesystem::remove_all(directory);
    if (shape) {
      shape();
    }
    begin();
  }

  // A refresh fails and changes nothing.
  void expect_refused(const std::string& code, const std::string& message) {
    const StoredFiles before = stored();
    EXPECT_FAILURE(refresh(), code, message);
    EXPECT_EQ(stored(), before);
  }

  // A refresh fails and leaves these files.
  void expect_left(const std::string& code, const std::string& message, const StoredFiles& left) {
    EXPECT_FAILURE(refresh(), code, message);
    EXPECT_EQ(stored(), left);
  }

  // What a client has that has taken all of the repository but for delegated roles.
  StoredFiles all_of_repository() const {
    return {{"root.json", repository.root_text(root_version())},
            {"timestamp.json", repository.text_of("timestamp")},
            {"snapshot.json", repository.text_of("snapshot")},
            {"targets.json", repository.text_of("targets")}};
  }
  std::uint64_t root_version() const { return std::stoull(repository.file_of("root")); }

  std::string file_text(const char* name) const { return root.read(std::string("data/trust/") + name); }
  void put(const std::string& name, std::string_view bytes) const { root.write("data/trust/" + name, bytes); }

  std::uint64_t inode(const char* name) const { return link_status_of(directory / name)->inode; }
};

}  // namespace ravok::refresh_tests
