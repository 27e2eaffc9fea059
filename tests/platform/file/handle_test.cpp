#include "platform/file/handle.hpp"

#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>

#include "support/temporary_root.hpp"

namespace ravok::handle_test {
namespace {

class HandleTest : public ::testing::Test {
 protected:
  int opened() const { return open(root_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }
  static bool is_open(int number) { return fcntl(number, F_GETFD) >= 0; }

 private:
  const testing::TemporaryRoot root_;
};

TEST_F(HandleTest, ClosesWhatItOwnsAtItsEnd) {
  const int number = opened();
  {
    const Handle handle(number);
    EXPECT_TRUE(handle);
    EXPECT_EQ(handle.get(), number);
  }
  EXPECT_FALSE(is_open(number));
}

TEST_F(HandleTest, ClosesWhatItOwnedWhenItGetsAnother) {
  const int first = opened();
  const int second = opened();
  Handle handle(first);
  Handle other(second);
  handle = std::move(other);
  EXPECT_FALSE(is_open(first));
  EXPECT_EQ(handle.get(), second);
  EXPECT_TRUE(is_open(second));
}

TEST_F(HandleTest, KeepsWhatItOwnsWhenItIsMovedToItself) {
  const int number = opened();
  Handle handle(number);
  Handle& same = handle;
  handle = std::move(same);
  EXPECT_EQ(handle.get(), number);
  EXPECT_TRUE(is_open(number));
}

TEST_F(HandleTest, ClosesNothingThatItHasGivenUp) {
  const int number = opened();
  Handle handle(number);
  EXPECT_EQ(handle.release(), number);
  EXPECT_FALSE(handle);
  handle.reset();
  EXPECT_TRUE(is_open(number));
  const Handle closing(number);
}

}  // namespace
}  // namespace ravok::handle_test
