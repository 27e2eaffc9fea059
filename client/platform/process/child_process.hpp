// One started child: a launcher, a game, or a program on trial. It either runs the image that was asked for or is
// reported as failed, its parent knows its process id before it can do anything, and it gets none of its parent's
// files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/process/interrupt.hpp"
#include "platform/process/process.hpp"

namespace ravok {

// Where the child's standard output goes: into its standard error, or where its parent's goes. Its standard error is
// its parent's, and its standard input is always empty.
enum class ChildStreams { joined = 0, inherited = 1 };

// Whether the child inherits the variables of the dynamic loader, which begin with "LD_" or "DYLD_".
enum class ChildEnvironment { kept = 0, without_loader = 1 };

// Whether the child stays in its parent's process group, so that Ctrl+C reaches it too, or gets a group of its own.
// Such a child is in the background of its terminal: it is started with the signals ignored that would stop it for
// writing there, and cannot read from there.
enum class ChildGroup { shared = 0, own = 1 };

// Whether the child gets a pipe through which its parent can ask it to stop.
enum class ChildControl { none = 0, interrupt = 1 };

// The grace, in milliseconds, for a child that has not shown in time that it does what it was started for.
inline constexpr std::uint64_t failed_start_grace = 250;

// To be used from one thread.
class ChildProcess {
 public:
  // Starts `image` in `directory`, both absolute and no links. `arguments`, at most 64 of at most 4096 bytes and 32,768
  // bytes together, do not hold the program's name. `environment` lies over the inherited variables; the variable that
  // announces a pipe for interrupts is never inherited. `on_started`, if given, gets the process id before the child
  // runs anything; if it throws, the image is never run, and the exception comes out of here. `ChildControl::interrupt`
  // is for a child with inherited streams and a group of its own. `handles` must be empty, except on a system that can
  // hand on at most 8.
  //
  // Returns once the child runs the image. Fails, and then there is no child, with "launch_handles",
  // "launch_executable" or "launch_directory" for what cannot be used, "argument_limit" or "argument_encoding" for
  // texts, "process_control" for the combination above or a pipe that cannot be made, and "process_start".
  ChildProcess(const std::filesystem::path& image, const std::vector<std::string>& arguments,
               const std::filesystem::path& directory, const ProcessEnvironment& environment,
               ChildStreams streams = ChildStreams::joined, ChildEnvironment mode = ChildEnvironment::kept,
               const std::function<void(std::uint64_t)>& on_started = {}, ChildGroup group = ChildGroup::shared,
               ChildControl control = ChildControl::none, const std::vector<std::int64_t>& handles = {});
  // Neither ends the child nor waits for it: a child that still runs goes on.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Returns the exit code, or nothing while the child runs; never blocks. The code is 128 plus the number of the signal
  // for a child that a signal has ended, and 1 for one that is reported as stopped. Fails with "process_wait" when the
  // system does not know the child.
  std::optional<std::uint64_t> poll();

  // Waits for the child's end and returns its exit code. Asks `cancel`, if given, about every 5 milliseconds until it
  // answers true, and then sends the child one request to stop. Only for a child with ChildControl::interrupt; fails
  // with "process_control" otherwise, and like poll().
  std::uint64_t wait(const std::function<bool()>& cancel);

  // Asks the child to stop, and returns whether the request was sent, now or earlier. False for a child that has ended
  // or has no pipe for requests. Fails like poll().
  bool request_interrupt();

  // Ends the child: asks the system to terminate it, gives it `grace` milliseconds, at most 2000, and then kills it.
  // Returns whether the child is known to have ended; a child for which that is false may still run. Fails with
  // "process_wait" for a longer grace, and like poll().
  bool terminate(std::uint64_t grace);

  // Returns a value to wait for the child's end with, on a system that has such a thing.
  std::optional<std::int64_t> notification_handle() const;

  // The process id. It may belong to another process once the child is known to have ended.
  std::uint64_t pid() const { return static_cast<std::uint64_t>(pid_); }

  // Whether the child is known to have been ended by a signal.
  bool signalled() const { return signalled_; }

 private:
  bool ends_within(std::uint64_t milliseconds);

  std::int32_t pid_ = -1;
  std::uint64_t exit_code_ = 0;
  bool finished_ = false;
  bool signalled_ = false;
  std::unique_ptr<InterruptPipe> interrupt_;
};

}  // namespace ravok
