// A folder that answers as the web server would that serves it, so that a client's own code reads a repository before
// it is uploaded.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>

#include "platform/file/handle.hpp"
#include "transport/transport.hpp"

namespace ravok {

// Paths lie below the folder, which stays open as long as the object. Nothing is read through a link: where one lies on
// the way to a file or in its place, a request fails with "unsafe_path". What is missing, and a directory, is answered
// with status 404 and no body, and a file with 200. A request fails with "file_read" for a file that this user may not
// read or that the device does not give, with "too_many_files", and with "unsafe_path" for a special file. Files are
// sent whole: resumption is not supported.
class FolderTransport : public Transport {
 public:
  // The folder itself may be reached through links. Fails with "unsafe_path" where there is none, and with
  // "too_many_files".
  explicit FolderTransport(std::filesystem::path folder);

  // `limit` is at most 16 MiB. Fails with "size_limit" beyond that and for a longer file, and with "unsafe_path" also
  // as validate_relative_path does.
  TransportResponse get(std::string_view path, std::uint64_t limit) override;

  // `component` has 1 to 8,192 bytes and is neither "." nor "..". A "/" in it leads into a folder, as it does on a
  // server. One that no file below the folder can have is answered with 404. Fails with "size_limit" also for any
  // other, and for a limit of more than 16 MiB.
  TransportResponse get_component(std::string_view component, std::uint64_t limit) override;

  // Makes the destination's parent private, as private_directory does. Fails also as that and as an AllocatedFile do,
  // with "http_status" for what is missing, with "length_mismatch" for a file of another size, with "size_limit" for
  // one that grows meanwhile, with "cancelled" when progress says so, and with "unsafe_path" also as
  // validate_relative_path does.
  void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                const ProgressCallback& progress) override;

  // Opens the file that a request for the path would read; nothing where there is none. Fails as get does for a file of
  // any length.
  std::optional<Handle> open(std::string_view path) const;

 private:
  TransportResponse answer(std::string_view path, std::uint64_t limit) const;

  std::filesystem::path folder_;
  Handle root_;
};

}  // namespace ravok
