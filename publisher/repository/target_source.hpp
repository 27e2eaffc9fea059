// Where the files of a repository's targets are looked at: in a folder, or on a server.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "domain/json.hpp"
#include "platform/snapshot/progress.hpp"
#include "publisher/repository/folder_transport.hpp"
#include "transport/transport.hpp"

namespace ravok {

// The functions take the name under which a target's file is served, and its signed description. They fail with
// "http_status" for a file that is missing, with "length_mismatch" and "hash_mismatch" for another one than is
// described, and as the transport does.
struct TargetSource {
  // Accepts only a file of the signed length. Of what a server sends, little is read.
  std::function<void(const std::string& remote, const Json& target)> look;
  // Accepts only a file of the signed length and with every digest. `progress`, which may be empty, is told of the
  // bytes read and answers false to cancel.
  std::function<void(const std::string& remote, const Json& target, const ProgressCallback& progress)> prove;
  // Returns a whole file of at most `limit` bytes after the same proof. Fails with "size_limit" for one that is
  // described as longer.
  std::function<std::string(const std::string& remote, const Json& target, std::uint64_t limit)> read;
  // Whether the file's last byte can be had alone, as a client asks for it whose download was broken. The file must be
  // there, and have two bytes at least. Empty for a folder.
  std::function<bool(const std::string& remote, const Json& target)> resumes;
};

// Looks at the files of a folder. The object that it is given must outlive the result.
TargetSource targets_in_folder(FolderTransport& folder);

// Looks at the files of a server. Each is fetched into the private folder `workshop`, and removed from it again. The
// transport must outlive the result.
TargetSource targets_of_server(Transport& server, const std::filesystem::path& workshop);

}  // namespace ravok
