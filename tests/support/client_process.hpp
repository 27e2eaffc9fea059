// A client of a test's server in a process of its own, for what may not happen to the test's.
#pragma once

#include <functional>
#include <string>

#include <sys/types.h>

namespace ravok::testing {

class ClientProcess {
 public:
  // Begins the process, which waits for run(). Made before any thread of the test, so that none of them is cut off in
  // the middle of something.
  explicit ClientProcess(const std::function<std::string(const std::string& address)>& work);
  // Ends the process, if it was never run.
  ~ClientProcess();
  ClientProcess(const ClientProcess&) = delete;
  ClientProcess& operator=(const ClientProcess&) = delete;

  // Has the process do its work with the address of a server. Returns what it returns; for an Error, its code and
  // message as "code: message"; and "signal N" for a process that a signal has ended.
  std::string run(const std::string& address);

 private:
  pid_t process_ = -1;
  int to_process_ = -1;
  int from_process_ = -1;
};

}  // namespace ravok::testing
