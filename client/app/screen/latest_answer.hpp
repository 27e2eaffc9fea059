// Questions that may take long, such as about a volume that does not answer, are answered on a thread of their own;
// only the last one counts.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace ravok {

// To be used from one thread, whose calls never wait, except for the destructor: that waits for an answer under way.
template <typename Question, typename Answer>
class LatestAnswer {
 public:
  // Answers a question on another thread. It must not fail.
  using Find = std::function<Answer(const Question& question)>;

  // `first` is the answer until there is another.
  LatestAnswer(Find find, Answer first) : find_(std::move(find)), last_(std::move(first)) {}

  ~LatestAnswer() {
    {
      const std::lock_guard lock(mutex_);
      ending_ = true;
      wakeup_.reset();
    }
    changed_.notify_one();
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  LatestAnswer(const LatestAnswer&) = delete;
  LatestAnswer& operator=(const LatestAnswer&) = delete;

  // Asks a question in place of the one before. Where the system has no room for a thread, it is answered at once.
  void ask(Question question) {
    {
      const std::lock_guard lock(mutex_);
      question_ = std::move(question);
    }
    changed_.notify_one();
    if (thread_.joinable()) {
      return;
    }
    try {
      thread_ = std::thread([this] {
        while (answer_next(true)) {
        }
      });
    } catch (const std::system_error&) {
      answer_next(false);
    }
  }

  // Returns the last answer.
  Answer last() const {
    const std::lock_guard lock(mutex_);
    return last_;
  }

  // Sets what is called after each answer, mostly on another thread, with no lock held.
  void set_wakeup(std::function<void()> wakeup) {
    auto shared = std::make_shared<const std::function<void()>>(std::move(wakeup));
    const std::lock_guard lock(mutex_);
    wakeup_ = std::move(shared);
  }

 private:
  // Answers a question, for which it may have to wait. Returns whether there may be another.
  bool answer_next(bool wait) {
    std::optional<Question> question;
    {
      std::unique_lock lock(mutex_);
      if (wait) {
        changed_.wait(lock, [this] { return ending_ || question_.has_value(); });
      }
      if (ending_ || !question_) {
        return false;
      }
      question = std::exchange(question_, std::nullopt);
    }
    Answer answer = find_(*question);
    std::shared_ptr<const std::function<void()>> wakeup;
    {
      const std::lock_guard lock(mutex_);
      last_ = std::move(answer);
      wakeup = wakeup_;
    }
    if (wakeup && *wakeup) {
      (*wakeup)();
    }
    return true;
  }

  const Find find_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<Question> question_;  // guarded by the mutex, as all below but the thread
  bool ending_ = false;
  Answer last_;
  std::shared_ptr<const std::function<void()>> wakeup_;
  std::thread thread_;  // the owner's alone
};

}  // namespace ravok
