#include "publisher/program_image.hpp"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/failure.hpp"

namespace ravok::program_image_test {
namespace {

constexpr const char* damaged = "The headers of this program for macOS are damaged";
constexpr std::uint32_t segment = 0x19;
constexpr std::uint32_t signature = 0x1d;

std::string number(std::uint64_t value, std::size_t width, bool big) {
  std::string bytes;
  for (std::size_t i = 0; i < width; ++i) {
    bytes += static_cast<char>(value >> 8 * (big ? width - 1 - i : i) & 0xff);
  }
  return bytes;
}

struct Shape {
  bool wide = true;
  bool big = false;
};

std::string command(std::uint32_t kind, std::uint32_t length, Shape shape) {
  return number(kind, 4, shape.big) + number(length, 4, shape.big) + std::string(length < 8 ? 0 : length - 8, 'x');
}

// A program with these headers; `count` and `bytes` are what it says of its commands.
std::string program(const std::string& commands, std::uint32_t count, std::uint32_t bytes, Shape shape) {
  std::string image = number(shape.wide ? 0xfeedfacf : 0xfeedface, 4, shape.big) + std::string(12, '\1') +
                      number(count, 4, shape.big) + number(bytes, 4, shape.big) + std::string(shape.wide ? 8 : 4, '\2');
  return image + commands;
}

std::string program(const std::vector<std::uint32_t>& kinds, Shape shape = {}) {
  std::string commands;
  for (const std::uint32_t kind : kinds) {
    commands += command(kind, 24, shape);
  }
  return program(commands, static_cast<std::uint32_t>(kinds.size()), static_cast<std::uint32_t>(commands.size()),
                 shape);
}

// A program for several processors. The slices lie after the table, where the table says.
std::string several(const std::vector<std::string>& slices, bool wide) {
  const std::size_t width = wide ? 8 : 4;
  std::uint64_t at = 8 + slices.size() * (wide ? 32 : 20);
  std::string table = number(wide ? 0xcafebabf : 0xcafebabe, 4, true) + number(slices.size(), 4, true);
  std::string rest;
  for (const std::string& slice : slices) {
    table += std::string(8, '\3') + number(at, width, true) + number(slice.size(), width, true) +
             std::string(wide ? 8 : 4, '\4');
    at += slice.size();
    rest += slice;
  }
  return table + rest;
}

void expect_damaged(const std::string& image) {
  EXPECT_FAILURE(inspect_program_image(image), "invalid_program", damaged) << ::testing::PrintToString(image);
}

TEST(InspectProgramImage, PassesOverOtherFormats) {
  for (const std::string& image :
       {std::string(), std::string("\xcf\xfa\xed"),
        std::string("\x7f"
                    "ELF and more"),
        std::string("#!/bin/sh\n"), std::string("MZ") + std::string(100, '\0'), "x" + program({signature})}) {
    EXPECT_EQ(inspect_program_image(image), ProgramImage::other);
  }
}

TEST(InspectProgramImage, FindsTheSignatureOfAProgramForOneProcessor) {
  for (const bool wide : {false, true}) {
    for (const bool big : {false, true}) {
      const Shape shape{wide, big};
      EXPECT_EQ(inspect_program_image(program({segment, signature, segment}, shape)), ProgramImage::signed_macos);
      EXPECT_EQ(inspect_program_image(program({signature}, shape)), ProgramImage::signed_macos);
      EXPECT_EQ(inspect_program_image(program({segment, segment}, shape)), ProgramImage::unsigned_macos);
      EXPECT_EQ(inspect_program_image(program({}, shape)), ProgramImage::unsigned_macos);
    }
  }
}

TEST(InspectProgramImage, TakesNothingBehindTheCommandsForOne) {
  EXPECT_EQ(inspect_program_image(program({segment}) + command(signature, 24, {})), ProgramImage::unsigned_macos);
}

TEST(InspectProgramImage, FindsTheSignatureOfAnyProcessor) {
  const std::string with = program({segment, signature});
  const std::string without = program({segment});
  for (const bool wide : {false, true}) {
    EXPECT_EQ(inspect_program_image(several({with, without}, wide)), ProgramImage::signed_macos);
    EXPECT_EQ(inspect_program_image(several({without, with}, wide)), ProgramImage::signed_macos);
    EXPECT_EQ(inspect_program_image(several({without, without}, wide)), ProgramImage::unsigned_macos);
    EXPECT_EQ(inspect_program_image(several({"another format"}, wide)), ProgramImage::unsigned_macos);
    EXPECT_EQ(inspect_program_image(several({}, wide)), ProgramImage::unsigned_macos);
  }
}

TEST(InspectProgramImage, RefusesAProgramCutOffAnywhereInItsHeaders) {
  for (const std::string& image :
       {program({segment, signature}), program({segment}, {false, true}),
        several({program({segment}), program({signature})}, false), several({program({segment})}, true)}) {
    for (std::size_t length = 4; length < image.size(); ++length) {
      expect_damaged(image.substr(0, length));
    }
    EXPECT_NE(inspect_program_image(image), ProgramImage::other);
  }
}

TEST(InspectProgramImage, RefusesCommandsThatDoNotLieWhereTheyShould) {
  const std::string one = command(segment, 24, {});
  const std::string rest(100, 'r');
  expect_damaged(program(one, 2, 24, {}) + rest);   // more commands than bytes of them
  expect_damaged(program(one, 1, 23, {}) + rest);   // a command across the end
  expect_damaged(program(one, 1, 125, {}) + rest);  // more bytes than the program has
  expect_damaged(program(one, 1, 0xffffffff, {}) + rest);
  expect_damaged(program(one, 0xffffffff, 24, {}) + rest);
  for (const std::uint32_t length : {0u, 7u, 0xffffffffu}) {
    const std::string bad = number(segment, 4, false) + number(length, 4, false) + std::string(16, 'x');
    expect_damaged(program(bad, 1, 24, {}) + rest);
  }
  EXPECT_EQ(inspect_program_image(program(command(signature, 8, {}), 1, 8, {})), ProgramImage::signed_macos);
}

TEST(InspectProgramImage, RefusesSlicesThatDoNotLieInTheProgram) {
  for (const bool wide : {false, true}) {
    const std::size_t width = wide ? 8 : 4;
    const std::uint64_t most = wide ? ~std::uint64_t{0} : 0xffffffff;
    const auto with_slice = [&](std::uint64_t at, std::uint64_t length) {
      return number(wide ? 0xcafebabf : 0xcafebabe, 4, true) + number(1, 4, true) + std::string(8, '\0') +
             number(at, width, true) + number(length, width, true) + std::string(wide ? 8 : 4, '\0');
    };
    const std::uint64_t size = with_slice(0, 0).size();
    for (const auto& [at, length] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{
             {size, 1}, {size + 1, 0}, {0, size + 1}, {most, 0}, {0, most}, {most, most}, {1, most}, {most, 1}}) {
      expect_damaged(with_slice(at, length));
    }
    EXPECT_EQ(inspect_program_image(with_slice(size, 0)), ProgramImage::unsigned_macos);
  }
}

TEST(InspectProgramImage, RefusesMoreSlicesThanThereAreProcessors) {
  const std::vector<std::string> slices(64, "slice");
  EXPECT_EQ(inspect_program_image(several(slices, false)), ProgramImage::unsigned_macos);
  expect_damaged(several(std::vector<std::string>(65, "slice"), false));
}

}  // namespace
}  // namespace ravok::program_image_test
