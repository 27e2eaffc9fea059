#include "platform/snapshot/bounded_zstd.hpp"

#include <algorithm>
#include <cerrno>

#include <archive.h>
#include <zstd.h>

#include "domain/error.hpp"

namespace ravok {
namespace {

constexpr int maximum_window_log = 26;
constexpr std::array<std::uint8_t, 4> frame_magic = {0x28, 0xB5, 0x2F, 0xFD};
constexpr const char* cannot_open = "Cannot open bounded snapshot decoder";

}  // namespace

void BoundedZstd::Release::operator()(ZSTD_DCtx_s* context) const { ZSTD_freeDCtx(context); }

BoundedZstd::BoundedZstd(std::uint64_t limit) : context_(ZSTD_createDCtx()), limit_(limit) {}

BoundedZstd::BoundedZstd(const std::filesystem::path& path, std::uint64_t limit) : BoundedZstd(limit) {
  Result<Handle> file = os::open(path, os::OpenAs::file);
  require(file.has_value(), "archive", cannot_open);
  file_ = *std::move(file);
  begin();
}

BoundedZstd::BoundedZstd(const FileRange& range, std::uint64_t limit) : BoundedZstd(limit) {
  range_ = range;
  begin();
}

void BoundedZstd::begin() {
  require(context_ != nullptr, "archive", cannot_open);
  require(ZSTD_isError(ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, maximum_window_log)) == 0, "archive",
          "Cannot set the 64 MiB decoder window limit");
  fill();
  require(input_size_ >= frame_magic.size() && std::equal(frame_magic.begin(), frame_magic.end(), input_.begin()),
          "archive", "Snapshot must contain exactly one ordinary Zstandard frame");
}

BoundedZstd::~BoundedZstd() = default;

Result<std::size_t> BoundedZstd::read_input(void* bytes, std::size_t size) {
  if (!range_) {
    return os::read(file_.get(), bytes, size);
  }
  const Result<std::size_t> count = range_->read_at(bytes, size, range_position_);
  range_position_ += count ? *count : 0;
  return count;
}

// Fills the buffer. One that is not full holds the end of the file.
void BoundedZstd::fill() {
  input_position_ = 0;
  input_size_ = 0;
  while (input_size_ < input_.size()) {
    const Result<std::size_t> count = read_input(input_.data() + input_size_, input_.size() - input_size_);
    require(count.has_value(), "archive", "Snapshot read failed");
    if (*count == 0) {
      break;
    }
    input_size_ += *count;
  }
}

bool BoundedZstd::at_end_of_file() {
  if (input_position_ < input_size_) {
    return false;
  }
  fill();
  return input_size_ == 0;
}

std::size_t BoundedZstd::read() {
  while (!ended_) {
    if (input_position_ == input_size_) {
      fill();
      require(input_size_ > 0, "archive", "Snapshot frame is truncated");
    }
    ZSTD_inBuffer input = {input_.data(), input_size_, input_position_};
    ZSTD_outBuffer output = {output_.data(), output_.size(), 0};
    const std::size_t answer = ZSTD_decompressStream(context_.get(), &output, &input);
    require(ZSTD_isError(answer) == 0, "archive", "Snapshot decoding failed or exceeds the 64 MiB window limit");
    input_position_ = input.pos;
    require(output.pos <= limit_ - decoded_, "size_limit", "Decoded tar stream exceeds authenticated expansion bounds");
    if (answer == 0) {
      require(at_end_of_file(), "archive", "Trailing or concatenated Zstandard frames are forbidden");
      ended_ = true;
    }
    decoded_ += output.pos;
    if (output.pos > 0) {
      return output.pos;
    }
  }
  return 0;
}

void BoundedZstd::finish() {
  require_no_error();
  while (read() > 0) {
  }
}

void BoundedZstd::require_no_error() const {
  if (!failure_) {
    return;
  }
  try {
    std::rethrow_exception(failure_);
  } catch (const Error& error) {
    fail("archive", error.what());
  }
}

std::ptrdiff_t BoundedZstd::callback(::archive* reader, void* self, const void** block) noexcept {
  auto& decoder = *static_cast<BoundedZstd*>(self);
  try {
    *block = decoder.output();
    return static_cast<std::ptrdiff_t>(decoder.read());
  } catch (const Error& error) {
    decoder.failure_ = std::current_exception();
    archive_set_error(reader, EINVAL, "%s", error.what());
    return -1;
  } catch (...) {
    decoder.failure_ = std::current_exception();
    return -1;
  }
}

}  // namespace ravok
