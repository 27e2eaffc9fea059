// Ctrl+C as a request: a long operation asks for it at safe points, so it never ends in the middle of a commit. A
// parent process can forward the request through an inherited pipe.
#pragma once

#include <memory>
#include <string>

#include "platform/file/handle.hpp"

namespace ravok {

// Turns SIGINT into a request for as long as it lives. One at a time in a process.
class ConsoleInterrupt {
 public:
  // With `attach_parent`, also listens to the pipe that a parent has announced in the environment. Fails with
  // "launcher_control" for an announcement that is wrong, and with "signal" when another object exists or the handler
  // cannot be installed.
  explicit ConsoleInterrupt(bool attach_parent);
  ~ConsoleInterrupt();
  ConsoleInterrupt(const ConsoleInterrupt&) = delete;
  ConsoleInterrupt& operator=(const ConsoleInterrupt&) = delete;

  // Returns whether the user has asked to stop; once true, it stays so. Never blocks. Fails with
  // "launcher_control" when the parent's pipe cannot be read or sends anything but a request.
  bool requested() const;

  // Returns whether a parent's pipe is being listened to.
  static bool parent_reader_attached();

 private:
  class State;
  const std::unique_ptr<State> state_;
};

// Makes SIGTERM and SIGHUP requests to the present ConsoleInterrupt, for as long as the object lives. A signal that is
// ignored stays ignored. Programs that this one starts do not inherit the handlers.
class TerminationSignals {
 public:
  // Fails with "signal".
  TerminationSignals();
  ~TerminationSignals();
  TerminationSignals(const TerminationSignals&) = delete;
  TerminationSignals& operator=(const TerminationSignals&) = delete;

 private:
  class State;
  const std::unique_ptr<State> state_;
};

// Keeps SIGINT, SIGTERM and SIGHUP from the thread that makes the object, and from the programs that it starts
// meanwhile, for as long as the object lives. One that has come by then comes at its end.
class DeferredSignals {
 public:
  DeferredSignals();
  ~DeferredSignals();
  DeferredSignals(const DeferredSignals&) = delete;
  DeferredSignals& operator=(const DeferredSignals&) = delete;

 private:
  class State;
  const std::unique_ptr<State> state_;
};

// The parent's end: a pipe that a child process inherits, and through which one request is sent.
class InterruptPipe {
 public:
  // Fails with "process_control".
  InterruptPipe();

  // Returns what the child must find in its environment.
  std::string child_environment() const;

  // Lets the read end survive the start of another program. Called in the child between fork and exec, and makes only
  // calls that are safe there. Returns whether that worked.
  bool prepare_child();

  // Returns the descriptor of the read end, or -1 when it has been given up.
  int reader() const { return reader_.get(); }

  // Gives up the read end, once the child has it.
  void close_reader() { reader_.reset(); }

  // Sends the request, and returns whether it was sent, now or earlier. A child that is gone is no failure and
  // raises no signal.
  bool request();

  // Returns whether the request has been sent.
  bool requested() const { return requested_; }

 private:
  Handle reader_;
  Handle writer_;
  bool requested_ = false;
};

}  // namespace ravok
