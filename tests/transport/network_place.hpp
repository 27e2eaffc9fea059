// Where tests of the network work: an authority that vouches for their servers, and files of a client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/file/allocated_file.hpp"
#include "support/certificate.hpp"
#include "support/failure.hpp"
#include "support/temporary_root.hpp"
#include "transport/https.hpp"

namespace ravok::testing {

// Bytes that repeat only after many, and do not fit a power of two.
inline std::string large_content(std::size_t size = 3'000'017) {
  std::string content;
  content.reserve(size);
  for (std::uint32_t next = 1; content.size() < size; next = next * 1'664'525 + 1'013'904'223) {
    content += static_cast<char>(next >> 24);
  }
  return content;
}

class NetworkPlace : public ::testing::Test {
 protected:
  NetworkPlace() { root_.write("authority.pem", authority_.root()); }

  // A client that trusts the authority alone.
  HttpsTransport client(const std::string& url) const { return {url, root_ / "authority.pem"}; }

  // Where a download goes, and what is left in its directory.
  std::filesystem::path destination() const { return root_ / "files/file"; }
  std::vector<std::string> files() const {
    std::vector<std::string> found;
    for (const std::string& name : root_.names()) {
      if (name.starts_with("files/") && name != "files/") {
        found.push_back(name);
      }
    }
    return found;
  }

  const TemporaryRoot root_;
  const CertificateAuthority authority_;
};

// A file of which the first bytes are there, and what its download tells.
class PartialFile {
 public:
  PartialFile(std::filesystem::path path, std::uint64_t size, std::string_view prefix)
      : path_(std::move(path)), file_(path_, size, {}) {
    file_.write(prefix);
  }

  void fetch_rest(HttpsTransport& client, std::string_view path, const ProgressCallback& progress = {}) {
    client.download_into(
        path, file_, file_.written(), progress, [this](std::string_view bytes) { told_ += bytes; },
        [this] { told_ += "[restart]"; });
  }

  // What is written so far.
  std::string content() const {
    std::string content;
    file_.read_prefix(file_.written(), [&](std::string_view bytes) { content += bytes; }, {});
    return content;
  }
  // The bytes that were handed on, with "[restart]" where the file began again.
  const std::string& told() const { return told_; }

 private:
  const std::filesystem::path path_;
  mutable AllocatedFile file_;
  std::string told_;
};

}  // namespace ravok::testing
