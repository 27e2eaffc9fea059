// The only road to the network, as everything above sees it: what a service is asked for, and how much of an answer is
// taken. Nothing but a status shows how the answer travels.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "platform/file/allocated_file.hpp"
#include "platform/snapshot/progress.hpp"

namespace ravok {

// What a service answered: a status such as 200, and the body as it was sent.
struct TransportResponse {
  long status = 0;
  std::string body;
};

// Fetches from one service. A `path` is a relative path below the service's root.
//
// Every operation is told how many bytes it may accept, and takes no more. Progress and the other functions are called
// on the caller's thread; what they throw ends the operation and goes on. Progress may be empty; an answer of false
// ends the operation with "cancelled".
class Transport {
 public:
  virtual ~Transport();

  // Returns the answer for a path, of at most `limit` bytes. Whether its status is a good one is for the caller to say.
  virtual TransportResponse get(std::string_view path, std::uint64_t limit) = 0;

  // The same for one file name of a repository, which need not be a safe relative path. By default it is get.
  virtual TransportResponse get_component(std::string_view component, std::uint64_t limit);

  // Fetches a whole file of exactly `size` bytes to a place where nothing may exist yet. A failure leaves no file.
  virtual void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                        const ProgressCallback& progress) = 0;

  // Whether download_into can be called. By default not.
  virtual bool supports_resumption() const;

  // Fetches into `file` what it lacks from byte `offset` on, which is how many bytes are written. `on_bytes` is given
  // each piece after it is written; the text lasts for the call only. `on_restart` is called when the service sends the
  // whole file in spite of the offset, and the file begins again at its first byte. Both may be empty. The file is not
  // finished, and after a failure it keeps what was written. By default this fails with "download_resume_unsupported".
  virtual void download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset,
                             const ProgressCallback& progress, const std::function<void(std::string_view)>& on_bytes,
                             const std::function<void()>& on_restart);

 protected:
  Transport() = default;
  Transport(const Transport&) = default;
  Transport& operator=(const Transport&) = default;
};

}  // namespace ravok
