#include "support/client_process.hpp"

#include <array>
#include <csignal>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "domain/error.hpp"
#include "platform/posix/native.hpp"

namespace ravok::testing {
namespace {

// High enough that the work may close and limit the descriptors below.
constexpr int lowest_descriptor = 200;

std::array<int, 2> make_pipe() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) {
    throw std::runtime_error("Cannot make a pipe for a test");
  }
  return ends;
}

void write_all(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = posix::retry_interrupted([&] { return write(file, text.data(), text.size()); });
    if (count <= 0) {
      return;
    }
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

std::string read_all(int file) {
  std::string text;
  std::array<char, 4096> buffer;
  for (ssize_t count = 0;
       (count = posix::retry_interrupted([&] { return read(file, buffer.data(), buffer.size()); })) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

std::string told_by(const std::function<std::string(const std::string&)>& work, const std::string& address) {
  try {
    return work(address);
  } catch (const Error& failure) {
    return failure.code + ": " + failure.what();
  }
}

}  // namespace

ClientProcess::ClientProcess(const std::function<std::string(const std::string& address)>& work) {
  const std::array<int, 2> requests = make_pipe();
  const std::array<int, 2> answers = make_pipe();
  process_ = fork();
  if (process_ == 0) {
    const int incoming = fcntl(requests[0], F_DUPFD_CLOEXEC, lowest_descriptor);
    const int outgoing = fcntl(answers[1], F_DUPFD_CLOEXEC, lowest_descriptor);
    for (const int end : {requests[0], requests[1], answers[0], answers[1]}) {
      close(end);
    }
    const std::string address = read_all(incoming);
    if (!address.empty()) {
      write_all(outgoing, told_by(work, address));
    }
    _exit(0);
  }
  close(requests[0]);
  close(answers[1]);
  to_process_ = requests[1];
  from_process_ = answers[0];
}

ClientProcess::~ClientProcess() {
  if (process_ > 0) {
    run({});
  }
}

std::string ClientProcess::run(const std::string& address) {
  write_all(to_process_, address);
  close(to_process_);
  std::string told = read_all(from_process_);
  close(from_process_);
  int status = 0;
  const pid_t process = std::exchange(process_, -1);
  posix::retry_interrupted([&] { return waitpid(process, &status, 0); });
  return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status)) : told;
}

}  // namespace ravok::testing
