#include "app/screen/latest_answer.hpp"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "app/screen/folder_probe.hpp"
#include "support/no_threads.hpp"

namespace ravok::latest_answer_test {
namespace {

using Questions = std::vector<std::string>;

// Answers each question with itself, one by one, and waits before each answer for the test's leave.
class Oracle {
 public:
  std::string answer(const std::string& question) {
    std::unique_lock lock(mutex_);
    questions_.push_back(question);
    changed_.notify_all();
    changed_.wait(lock, [&] { return leave_ != 0; });
    --leave_;
    return "answer to " + question;
  }
  void let_answer(int answers = 1) {
    const std::lock_guard lock(mutex_);
    leave_ += answers;
    changed_.notify_all();
  }
  // Called after each answer.
  void wake() {
    const std::lock_guard lock(mutex_);
    ++wakes_;
    changed_.notify_all();
  }

  Questions wait_for_questions(std::size_t number) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return questions_.size() >= number; });
    return questions_;
  }
  void wait_for_wakes(int number) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return wakes_ >= number; });
  }
  int wakes() {
    const std::lock_guard lock(mutex_);
    return wakes_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Questions questions_;
  int leave_ = 0;
  int wakes_ = 0;
};

class LatestAnswerTest : public ::testing::Test {
 protected:
  using Answers = LatestAnswer<std::string, std::string>;

  LatestAnswerTest() {
    answers.emplace([this](const std::string& question) { return oracle.answer(question); }, "nothing yet");
    answers->set_wakeup([this] { oracle.wake(); });
  }
  ~LatestAnswerTest() override {
    oracle.let_answer(100);
    answers.reset();
  }

  Oracle oracle;
  std::optional<Answers> answers;
};

TEST_F(LatestAnswerTest, HasTheFirstAnswerUntilThereIsAnother) {
  EXPECT_EQ(answers->last(), "nothing yet");
  answers->ask("a");
  oracle.wait_for_questions(1);
  EXPECT_EQ(answers->last(), "nothing yet");
  EXPECT_EQ(oracle.wakes(), 0);
  oracle.let_answer();
  oracle.wait_for_wakes(1);
  EXPECT_EQ(answers->last(), "answer to a");
}

TEST_F(LatestAnswerTest, AnswersOnlyTheLastOfTheQuestionsThatWait) {
  answers->ask("a");
  oracle.wait_for_questions(1);
  answers->ask("b");
  answers->ask("c");
  oracle.let_answer();
  EXPECT_EQ(oracle.wait_for_questions(2), (Questions{"a", "c"}));
  EXPECT_EQ(answers->last(), "answer to a");
  oracle.let_answer();
  oracle.wait_for_wakes(2);
  EXPECT_EQ(answers->last(), "answer to c");
}

TEST_F(LatestAnswerTest, AnswersTheSameQuestionAgain) {
  oracle.let_answer(2);
  answers->ask("a");
  oracle.wait_for_wakes(1);
  answers->ask("a");
  oracle.wait_for_wakes(2);
  EXPECT_EQ(oracle.wait_for_questions(2), (Questions{"a", "a"}));
}

TEST_F(LatestAnswerTest, WakesWithTheAnswerAtHandAndNoLockHeld) {
  std::string seen;
  answers->set_wakeup([&] {
    seen = answers->last();
    oracle.wake();
  });
  oracle.let_answer();
  answers->ask("a");
  oracle.wait_for_wakes(1);
  EXPECT_EQ(seen, "answer to a");
}

TEST_F(LatestAnswerTest, WakesNobodyWhoDoesNotWantThat) {
  answers->set_wakeup({});
  oracle.let_answer(2);
  answers->ask("a");
  answers->ask("b");
  while (answers->last() != "answer to b") {
    std::this_thread::yield();
  }
  EXPECT_EQ(oracle.wakes(), 0);
}

TEST_F(LatestAnswerTest, EndsWithoutAQuestion) {
  answers.reset();
  EXPECT_EQ(oracle.wakes(), 0);
}

TEST_F(LatestAnswerTest, WaitsAtItsEndForTheAnswerUnderWay) {
  answers->ask("a");
  oracle.wait_for_questions(1);
  std::thread leave([&] { oracle.let_answer(); });
  // Ends only because the other thread gives leave. Its wake-up is gone, since it may refer to what ends as well.
  answers.reset();
  leave.join();
  EXPECT_LE(oracle.wakes(), 1);
}

#ifdef __linux__

TEST_F(LatestAnswerTest, AnswersAtOnceWithoutAThread) {
  oracle.let_answer(1);
  {
    const testing::NoThreads none;
    answers->ask("a");
    EXPECT_EQ(answers->last(), "answer to a");
    EXPECT_EQ(oracle.wakes(), 1);
  }
  // A thread is asked for again when the next question comes.
  answers->ask("b");
  oracle.wait_for_questions(2);
  EXPECT_EQ(answers->last(), "answer to a");
  oracle.let_answer();
  oracle.wait_for_wakes(2);
  EXPECT_EQ(answers->last(), "answer to b");
}

#endif

TEST(FolderProbe, AnswersTheLastQuestion) {
  std::mutex mutex;
  std::condition_variable changed;
  bool woken = false;
  FolderFacts first;
  first.asked = "first";
  FolderProbe probe(
      [](const std::string& text) {
        FolderFacts facts;
        facts.asked = text;
        facts.state = FolderFacts::State::free;
        return facts;
      },
      first);
  probe.set_wakeup([&] {
    const std::lock_guard lock(mutex);
    woken = true;
    changed.notify_all();
  });
  EXPECT_EQ(probe.facts().asked, "first");
  EXPECT_EQ(probe.facts().state, FolderFacts::State::unknown);
  probe.ask("second");
  std::unique_lock lock(mutex);
  changed.wait(lock, [&] { return woken; });
  EXPECT_EQ(probe.facts().asked, "second");
  EXPECT_EQ(probe.facts().state, FolderFacts::State::free);
}

}  // namespace
}  // namespace ravok::latest_answer_test
