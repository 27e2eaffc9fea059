#include "domain/crypto.hpp"

#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::crypto_test {
namespace {

constexpr const char* unsupported = "Only SHA-256 and SHA-512 hashes are supported";

// The published digests of the empty text and of "abc".
constexpr const char* sha256_empty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* sha256_abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* sha512_abc =
    "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
    "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f";

TEST(Hex, WritesLowerCaseHighNibbleFirst) {
  EXPECT_EQ(hex({}), "");
  EXPECT_EQ(hex(std::vector<std::uint8_t>{0x00, 0x0f, 0xab, 0xff}), "000fabff");
}

TEST(Unhex, ReadsBothCases) {
  EXPECT_EQ(unhex("AB", 2), std::vector<std::uint8_t>{171});
  EXPECT_EQ(unhex("ab", 2), std::vector<std::uint8_t>{171});
  EXPECT_EQ(unhex("00ff10", 6), (std::vector<std::uint8_t>{0, 255, 16}));
  EXPECT_TRUE(unhex("", 0).empty());
}

TEST(Unhex, GivesBackWhatHexWrote) {
  std::vector<std::uint8_t> bytes(256);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(i);
  }
  EXPECT_EQ(unhex(hex(bytes), 512), bytes);
}

TEST(Unhex, RefusesOddLengthsAndTextsBeyondTheLimit) {
  EXPECT_FAILURE(unhex("abc", 64), "invalid_hex", "Invalid hexadecimal data");
  EXPECT_FAILURE(unhex("0123456789", 8), "invalid_hex", "Invalid hexadecimal data");
  EXPECT_FAILURE(unhex("zzz", 64), "invalid_hex", "Invalid hexadecimal data");
}

TEST(Unhex, RefusesOtherCharactersInEitherPlace) {
  for (const char* text : {"0G", "g0", "0/", "0:", "0@", "0`", " 0", "0x"}) {
    EXPECT_FAILURE(unhex(text, 2), "invalid_hex", "Invalid hexadecimal character") << text;
  }
}

TEST(Digest, GivesThePublishedValues) {
  EXPECT_EQ(digest("", "sha256"), sha256_empty);
  EXPECT_EQ(digest("abc", "sha256"), sha256_abc);
  EXPECT_EQ(digest("abc", "sha512"), sha512_abc);
}

TEST(Digest, KnowsTwoNamesExactly) {
  for (const char* name : {"SHA256", "sha-256", "sha384", "", "sha25", "sha2566", "sha1", "sha512 "}) {
    EXPECT_FAILURE(digest("abc", name), "unsupported_hash", unsupported) << name;
    EXPECT_FAILURE(DigestState{name}, "unsupported_hash", unsupported) << name;
  }
}

TEST(DigestState, GivesTheDigestOfAllPieces) {
  DigestState state("sha256");
  EXPECT_EQ(state.value(), sha256_empty);
  state.update("a");
  state.update("");
  state.update("bc");
  EXPECT_EQ(state.value(), sha256_abc);
}

TEST(DigestState, GoesOnAfterItsValueWasRead) {
  DigestState state("sha512");
  state.update("ab");
  const std::string before = state.value();
  EXPECT_EQ(state.value(), before);
  EXPECT_EQ(before, digest("ab", "sha512"));
  state.update("c");
  EXPECT_EQ(state.value(), sha512_abc);
}

TEST(DigestState, KeepsItsStateWhenMoved) {
  DigestState first("sha256");
  first.update("ab");
  DigestState second(std::move(first));
  second.update("c");
  EXPECT_EQ(second.value(), sha256_abc);
}

TEST(RandomId, IsThirtyTwoLowerCaseHexadecimalCharacters) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string id = random_id();
    EXPECT_EQ(id.size(), 32u);
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(InitializeClientRuntime, MayBeCalledFromManyThreads) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([] { EXPECT_NO_THROW(initialize_client_runtime()); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(digest("abc", "sha256"), sha256_abc);
}

}  // namespace
}  // namespace ravok::crypto_test
