#include "platform/snapshot/bounded_zstd.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

#include <archive.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/failure.hpp"
#include "support/snapshot_builder.hpp"
#include "support/tar_builder.hpp"
#include "support/temporary_root.hpp"

namespace ravok::bounded_zstd_test {
namespace {

using testing::noise;
using testing::raw_zstd_frame;
using testing::skippable_frame;
using testing::TemporaryRoot;
using testing::zstd_frame;

constexpr std::uint64_t no_limit = std::numeric_limits<std::uint64_t>::max();
constexpr std::size_t piece_bytes = 65536;
constexpr std::uint8_t window_of_64_mebibytes = 0x80;
constexpr std::uint8_t window_of_72_mebibytes = 0x81;
constexpr std::uint8_t window_of_128_mebibytes = 0x88;

constexpr const char* cannot_open = "Cannot open bounded snapshot decoder";
constexpr const char* not_one_frame = "Snapshot must contain exactly one ordinary Zstandard frame";
constexpr const char* read_failed = "Snapshot read failed";
constexpr const char* truncated = "Snapshot frame is truncated";
constexpr const char* undecodable = "Snapshot decoding failed or exceeds the 64 MiB window limit";
constexpr const char* too_large = "Decoded tar stream exceeds authenticated expansion bounds";
constexpr const char* trailing = "Trailing or concatenated Zstandard frames are forbidden";

struct ReleaseReader {
  void operator()(::archive* reader) const { archive_read_free(reader); }
};

class BoundedZstdTest : public ::testing::Test {
 protected:
  const TemporaryRoot root;

  std::unique_ptr<BoundedZstd> decoder_of(std::string_view bytes, std::uint64_t limit = no_limit) const {
    return std::make_unique<BoundedZstd>(root.write("archive", bytes), limit);
  }

  static std::string read_all(BoundedZstd& decoder) {
    std::string content;
    while (const std::size_t size = decoder.read()) {
      EXPECT_LE(size, piece_bytes);
      content.append(reinterpret_cast<const char*>(decoder.output()), size);
    }
    return content;
  }

  std::string decode(std::string_view bytes, std::uint64_t limit = no_limit) const {
    return read_all(*decoder_of(bytes, limit));
  }
};

// --- Opening -------------------------------------------------------------------------------

TEST_F(BoundedZstdTest, OpensOnlyWhatIsThereAndNoLink) {
  root.write("real", zstd_frame("content"));
  std::filesystem::create_symlink("real", root / "link");
  for (const char* name : {"missing", "link", "real/below"}) {
    EXPECT_FAILURE(std::make_unique<BoundedZstd>(root / name, no_limit), "archive", cannot_open) << name;
  }
}

TEST_F(BoundedZstdTest, CannotReadADirectory) {
  EXPECT_FAILURE(std::make_unique<BoundedZstd>(root.path(), no_limit), "archive", read_failed);
}

TEST_F(BoundedZstdTest, DoesNotWaitForTheOtherEndOfAQueue) {
  ASSERT_EQ(mkfifo((root / "queue").c_str(), 0600), 0);
  EXPECT_FAILURE(std::make_unique<BoundedZstd>(root / "queue", no_limit), "archive", not_one_frame);
}

TEST_F(BoundedZstdTest, NeedsTheFourBytesThatBeginAFrame) {
  const std::string magic("\x28\xb5\x2f\xfd", 4);
  for (std::size_t size = 0; size < magic.size(); ++size) {
    EXPECT_FAILURE(decoder_of(magic.substr(0, size)), "archive", not_one_frame) << size;
  }
  const auto decoder = decoder_of(magic);
  EXPECT_FAILURE(decoder->read(), "archive", truncated);
}

TEST_F(BoundedZstdTest, RefusesWhatDoesNotBeginWithAFrame) {
  const std::string frame = zstd_frame("content");
  for (std::size_t i = 0; i < 4; ++i) {
    std::string spoiled = frame;
    spoiled[i] = static_cast<char>(spoiled[i] ^ 1);
    EXPECT_FAILURE(decoder_of(spoiled), "archive", not_one_frame) << i;
  }
  EXPECT_FAILURE(decoder_of("x" + frame), "archive", not_one_frame);
}

TEST_F(BoundedZstdTest, RefusesASkippableFrameAhead) {
  EXPECT_FAILURE(decoder_of(skippable_frame("") + zstd_frame("content")), "archive", not_one_frame);
  EXPECT_FAILURE(decoder_of(skippable_frame("skipped") + zstd_frame("content")), "archive", not_one_frame);
}

// --- Decoding ------------------------------------------------------------------------------

TEST_F(BoundedZstdTest, HandsOutTheContentPieceByPieceAndThenNothing) {
  const std::string content = noise(5 * piece_bytes + 17) + std::string(3 * piece_bytes, 'x');
  for (const std::string& frame :
       {zstd_frame(content), zstd_frame(content, {.content_size = false, .checksum = true}), raw_zstd_frame(content)}) {
    const auto decoder = decoder_of(frame);
    EXPECT_TRUE(read_all(*decoder) == content);
    EXPECT_EQ(decoder->read(), 0u);
    EXPECT_EQ(decoder->read(), 0u);
  }
}

TEST_F(BoundedZstdTest, AcceptsAFrameWithoutContent) {
  EXPECT_EQ(decode(zstd_frame(""), 0), "");
  EXPECT_EQ(decode(raw_zstd_frame(""), 0), "");
}

TEST_F(BoundedZstdTest, TellsATruncatedFrameWhereverItEnds) {
  const std::string content = "a little content that is not repeated: " + noise(100);
  const std::string frame = zstd_frame(content, {.checksum = true});
  for (std::size_t size = 4; size < frame.size(); ++size) {
    EXPECT_FAILURE(decode(frame.substr(0, size)), "archive", truncated) << size;
  }
  EXPECT_EQ(decode(frame), content);
}

TEST_F(BoundedZstdTest, TellsATruncatedFrameThatFillsItsBuffer) {
  const std::string frame = raw_zstd_frame(noise(3 * piece_bytes));
  for (const std::size_t size : {piece_bytes - 1, piece_bytes, piece_bytes + 1, 2 * piece_bytes}) {
    EXPECT_FAILURE(decode(frame.substr(0, size)), "archive", truncated) << size;
  }
}

TEST_F(BoundedZstdTest, RefusesContentThatItsChecksumDoesNotTell) {
  const std::string content = noise(1000);
  std::string frame = zstd_frame(content, {.checksum = true});
  // Content that does not compress lies in the frame as it is.
  frame[frame.size() / 2] = static_cast<char>(frame[frame.size() / 2] ^ 1);
  EXPECT_FAILURE(decode(frame), "archive", undecodable);
}

TEST_F(BoundedZstdTest, RefusesABlockOfAKindThatThereIsNot) {
  std::string frame = raw_zstd_frame("content");
  frame[6] = static_cast<char>(frame[6] | 0x06);
  EXPECT_FAILURE(decode(frame), "archive", undecodable);
}

// --- Bounds --------------------------------------------------------------------------------

TEST_F(BoundedZstdTest, TakesAWindowOf64MebibytesAndNoLarger) {
  EXPECT_EQ(decode(raw_zstd_frame("content", window_of_64_mebibytes)), "content");
  for (const std::uint8_t window : {window_of_72_mebibytes, window_of_128_mebibytes}) {
    EXPECT_FAILURE(decode(raw_zstd_frame("content", window)), "archive", undecodable) << window;
  }
}

TEST_F(BoundedZstdTest, TakesNoLargerWindowFromACompressorEither) {
  EXPECT_EQ(decode(zstd_frame("content", {.window_log = 26, .content_size = false})), "content");
  EXPECT_FAILURE(decode(zstd_frame("content", {.window_log = 27, .content_size = false})), "archive", undecodable);
}

TEST_F(BoundedZstdTest, TakesContentThatIsItsOwnWindowOfAtMost64Mebibytes) {
  // A single segment, whose window is as large as it says that its content is; then a block of zeros.
  const auto frame_of = [](std::uint32_t size) {
    std::string frame("\x28\xb5\x2f\xfd\xa0", 5);
    for (int i = 0; i < 4; ++i) {
      frame += static_cast<char>(size >> (8 * i));
    }
    return frame + std::string("\x02\x08\x00\x00", 4);
  };
  constexpr std::uint32_t bound = 64 << 20;
  const auto decoder = decoder_of(frame_of(bound));
  EXPECT_EQ(decoder->read(), 256u);
  EXPECT_FAILURE(decode(frame_of(bound + 1)), "archive", undecodable);
}

TEST_F(BoundedZstdTest, HandsOutAsManyBytesAsItsLimitAndNotOneMore) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{100}, piece_bytes, piece_bytes + 1, 3 * piece_bytes}) {
    const std::string content = noise(size);
    const std::string frame = zstd_frame(content);
    EXPECT_TRUE(decode(frame, size) == content) << size;
    EXPECT_FAILURE(decode(frame, size - 1), "size_limit", too_large) << size;
  }
}

TEST_F(BoundedZstdTest, StopsABombAtItsLimit) {
  constexpr std::uint64_t limit = 10 * piece_bytes + 5;
  const auto decoder = decoder_of(zstd_frame(std::string(32 << 20, '\0')), limit);
  std::uint64_t decoded = 0;
  EXPECT_FAILURE(
      [&] {
        while (const std::size_t size = decoder->read()) {
          decoded += size;
        }
      }(),
      "size_limit", too_large);
  EXPECT_LE(decoded, limit);
  EXPECT_GT(decoded, limit - 2 * piece_bytes);
}

// --- The end -------------------------------------------------------------------------------

TEST_F(BoundedZstdTest, RefusesWhateverFollowsTheFrame) {
  const std::string frame = zstd_frame("content");
  for (const std::string& behind : {std::string(1, '\0'), std::string("x"), frame, zstd_frame(""), skippable_frame(""),
                                    skippable_frame("skipped"), frame.substr(0, 3)}) {
    EXPECT_FAILURE(decode(frame + behind), "archive", trailing) << behind;
  }
}

TEST_F(BoundedZstdTest, RefusesWhatFollowsBehindAFullBuffer) {
  const std::string content = noise(piece_bytes - 9);
  const std::string frame = raw_zstd_frame(content);
  ASSERT_EQ(frame.size(), piece_bytes);
  EXPECT_TRUE(decode(frame) == content);
  EXPECT_FAILURE(decode(frame + "x"), "archive", trailing);
  EXPECT_FAILURE(decode(frame + frame), "archive", trailing);
}

TEST_F(BoundedZstdTest, FindsTheLimitAheadOfWhatFollows) {
  EXPECT_FAILURE(decode(zstd_frame("content") + "x", 6), "size_limit", too_large);
}

TEST_F(BoundedZstdTest, FinishesByReadingToTheEnd) {
  const std::string content = noise(5 * piece_bytes);
  const auto decoder = decoder_of(raw_zstd_frame(content));
  EXPECT_GT(decoder->read(), 0u);
  decoder->finish();
  EXPECT_EQ(decoder->read(), 0u);
  decoder->finish();
}

TEST_F(BoundedZstdTest, FinishesOnlyWhatEndsAsItShould) {
  const std::string frame = raw_zstd_frame(noise(5 * piece_bytes));
  const struct {
    std::string bytes;
    std::uint64_t limit;
    const char* code;
    const char* message;
  } cases[] = {{frame + "x", no_limit, "archive", trailing},
               {frame.substr(0, frame.size() - 1), no_limit, "archive", truncated},
               {frame, 5 * piece_bytes - 1, "size_limit", too_large}};
  for (const auto& spoiled : cases) {
    const auto decoder = decoder_of(spoiled.bytes, spoiled.limit);
    EXPECT_GT(decoder->read(), 0u);
    EXPECT_FAILURE(decoder->finish(), spoiled.code, spoiled.message);
  }
}

// --- The tar reader's callback -------------------------------------------------------------

class BoundedZstdCallbackTest : public BoundedZstdTest {
 protected:
  const std::unique_ptr<::archive, ReleaseReader> reader{archive_read_new()};
  const void* block = nullptr;

  ssize_t call(BoundedZstd& decoder) { return BoundedZstd::callback(reader.get(), &decoder, &block); }
};

TEST_F(BoundedZstdCallbackTest, HandsOutThePiecesWhereTheyLie) {
  const auto decoder = decoder_of(zstd_frame("content"));
  EXPECT_EQ(call(*decoder), 7);
  EXPECT_EQ(block, static_cast<const void*>(decoder->output()));
  EXPECT_EQ(std::string_view(static_cast<const char*>(block), 7), "content");
  EXPECT_EQ(call(*decoder), 0);
  EXPECT_EQ(archive_error_string(reader.get()), nullptr);
  decoder->require_no_error();
  decoder->finish();
}

TEST_F(BoundedZstdCallbackTest, KeepsAFailureAndTellsTheReader) {
  const auto decoder = decoder_of(zstd_frame("content") + "x");
  EXPECT_EQ(call(*decoder), -1);
  EXPECT_STREQ(archive_error_string(reader.get()), trailing);
  EXPECT_EQ(archive_errno(reader.get()), EINVAL);
  EXPECT_FAILURE(decoder->require_no_error(), "archive", trailing);
  EXPECT_FAILURE(decoder->finish(), "archive", trailing);
}

TEST_F(BoundedZstdCallbackTest, KeepsEveryFailureUnderTheOneCode) {
  const auto decoder = decoder_of(zstd_frame("content"), 6);
  EXPECT_EQ(call(*decoder), -1);
  EXPECT_STREQ(archive_error_string(reader.get()), too_large);
  EXPECT_FAILURE(decoder->require_no_error(), "archive", too_large);
  EXPECT_FAILURE(decoder->finish(), "archive", too_large);
}

}  // namespace
}  // namespace ravok::bounded_zstd_test
