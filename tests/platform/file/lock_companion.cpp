// A second process for the tests of locks. It says "waiting" before it waits for a lock and "held"
// once it holds it, and ends when its standard input does. It prints a refusal as "CODE: MESSAGE" and then
// ends with code 1.
//
//   lock_companion hold PATH MODE         holds a FileLock
//   lock_companion hold-native PATH MODE  holds a NativeFileLock
//   lock_companion retain PATH            hands a FileLock to the process, its object gone
//   lock_companion wait PATH NOTE         waits for a FileLock, then says what the file NOTE holds
//   lock_companion count PATH DIRECTORY ROUNDS
//                                         takes turns: adds ROUNDS to DIRECTORY/counter, one by one

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "platform/file/handle.hpp"
#include "platform/file/native_lock.hpp"
#include "platform/posix/native.hpp"

namespace ravok {
namespace {

LockMode mode_of(const std::string& word) { return word == "shared" ? LockMode::shared : LockMode::exclusive; }

void say(const std::string& line) { std::cout << line << std::endl; }

void wait_for_end_of_input() {
  char ignored = 0;
  while (posix::retry_interrupted([&] { return read(0, &ignored, 1); }) > 0) {
  }
}

void hold(const std::string& path, LockMode mode) {
  const FileLock lock(path, false, mode);
  say("held");
  wait_for_end_of_input();
}

void hold_native(const std::string& path, LockMode mode) {
  const NativeFileLock lock(path, true, NativeLockSharing::none, mode);
  say("held");
  wait_for_end_of_input();
}

void retain(const std::string& path) {
  FileLock(path, false, LockMode::exclusive).retain_until_process_exit();
  say("held");
  wait_for_end_of_input();
}

std::string text_of(const std::filesystem::path& path) {
  std::string text;
  std::getline(std::ifstream(path), text);
  return text;
}

void wait(const std::string& path, const std::string& note) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  say("waiting");
  const FileLock lock(path, true, LockMode::exclusive);
  say(text_of(note));
}

// Takes one turn as the holder of the lock. Fails when another process takes one at the same time.
void take_turn(const std::filesystem::path& directory) {
  const std::filesystem::path mark = directory / "mark";
  const Handle marked(open(mark.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  require(static_cast<bool>(marked), "lock_companion", "Two hold an exclusive lock");
  const int counted = std::stoi(text_of(directory / "counter"));
  std::ofstream(directory / "counter") << counted + 1;
  require(unlink(mark.c_str()) == 0, "lock_companion", "Another holder took the mark away");
}

void count(const std::string& path, const std::filesystem::path& directory, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    const FileLock lock(path, true, LockMode::exclusive);
    take_turn(directory);
  }
}

int run(const std::vector<std::string>& words) {
  const std::string& task = words.at(0);
  if (task == "hold") {
    hold(words.at(1), mode_of(words.at(2)));
  } else if (task == "hold-native") {
    hold_native(words.at(1), mode_of(words.at(2)));
  } else if (task == "retain") {
    retain(words.at(1));
  } else if (task == "wait") {
    wait(words.at(1), words.at(2));
  } else if (task == "count") {
    count(words.at(1), words.at(2), std::stoi(words.at(3)));
  } else {
    return 2;
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int count, char** words) {
  try {
    return ravok::run({words + 1, words + count});
  } catch (const ravok::Error& error) {
    std::cout << error.code << ": " << error.what() << std::endl;
    return 1;
  } catch (const std::exception& error) {
    std::cout << error.what() << std::endl;
    return 2;
  }
}
