// The image of the children that tests start. It ends with its parent.
//
//   child_companion describe FILE ARGUMENT...  writes down what it was started with, and ends with code 0
//   child_companion speak                      says "to output" and "to errors" there, and ends with code 0
//   child_companion end CODE                   ends with this code
//   child_companion die SIGNAL                 ends by this signal
//   child_companion stay PIPE                  says "ready" into the named pipe, and stays
//   child_companion stay-on PIPE               the same, and ignores SIGTERM
//   child_companion listen PIPE                says "ready" into the named pipe and ends with code 42 when its parent's
//                                              request arrives, with 43 when its parent is gone

#include <charconv>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "platform/process/interrupt.hpp"

extern char** environ;

namespace ravok {
namespace {

std::set<int> open_descriptors() {
  std::set<int> open;
  DIR* const listing = opendir("/proc/self/fd");
  while (const dirent* const entry = readdir(listing)) {
    const std::string name = entry->d_name;
    int descriptor = -1;
    std::from_chars(name.data(), name.data() + name.size(), descriptor);
    if (descriptor >= 0 && descriptor != dirfd(listing)) {
      open.insert(descriptor);
    }
  }
  closedir(listing);
  return open;
}

void describe(const std::string& file, const std::vector<std::string>& words) {
  const std::set<int> descriptors = open_descriptors();
  std::ofstream out(file);
  for (const std::string& word : words) {
    out << "argument: " << word << '\0';
  }
  out << "directory: " << std::filesystem::current_path().native() << '\0';
  out << "process: " << getpid() << '\0' << "group: " << getpgrp() << '\0';
  char byte = 0;
  out << "input: " << read(STDIN_FILENO, &byte, 1) << '\0';
  for (const int descriptor : descriptors) {
    out << "descriptor: " << descriptor << '\0';
  }
  for (const int signal : {SIGTTOU, SIGTTIN, SIGTSTP, SIGINT}) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
      out << "ignored: " << signal << '\0';
    }
  }
  for (char** variable = environ; *variable != nullptr; ++variable) {
    out << "variable: " << *variable << '\0';
  }
}

void say_ready(const std::string& pipe) { std::ofstream(pipe) << "ready" << std::endl; }

[[noreturn]] void stay(const std::string& pipe) {
  say_ready(pipe);
  while (true) {
    pause();
  }
}

int listen(const std::string& pipe) {
  const ConsoleInterrupt interrupt(true);
  say_ready(pipe);
  while (!interrupt.requested()) {
    if (!ConsoleInterrupt::parent_reader_attached()) {
      return 43;
    }
    usleep(1000);
  }
  return 42;
}

int run(const std::vector<std::string>& words) {
  const std::string& task = words.at(1);
  if (task == "describe") {
    describe(words.at(2), words);
  } else if (task == "speak") {
    std::cout << "to output" << std::endl;
    std::cerr << "to errors" << std::endl;
  } else if (task == "end") {
    return std::stoi(words.at(2));
  } else if (task == "die") {
    raise(std::stoi(words.at(2)));
  } else if (task == "stay") {
    stay(words.at(2));
  } else if (task == "stay-on") {
    std::signal(SIGTERM, SIG_IGN);
    stay(words.at(2));
  } else if (task == "listen") {
    return listen(words.at(2));
  } else {
    return 2;
  }
  return 0;
}

}  // namespace
}  // namespace ravok

int main(int count, char** words) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    return ravok::run({words, words + count});
  } catch (const std::exception& error) {
    std::cerr << error.what() << std::endl;
    return 3;
  }
}
