// The seam to the operating system for programs that this one starts or becomes. The folders of the system that is
// built for define all of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/file/handle.hpp"
#include "platform/file/problem.hpp"
#include "platform/process/interrupt.hpp"

namespace ravok::os {

// The variables of this process's environment, each as its name, "=" and its value.
std::vector<std::string> environment();

// Removes a variable from this process's environment, if it is there, and returns whether it is gone. No other thread
// may use the environment meanwhile.
bool remove_variable(const std::string& name);

// The number by which the system knows this process.
std::uint64_t process_id();

// Makes this process another program, in another directory. `arguments` begins with the program's own name, and
// `environment` has the form of the function of that name. Returns only the problem, and then nothing has changed; but
// a process that may no longer enter the directory that it was in stays in the other.
struct ReplacementProblem {
  bool in_directory = false;  // whether it was the directory that could not be entered
  Problem problem;
};
ReplacementProblem replace_program(const std::string& image, std::vector<std::string> arguments,
                                   std::vector<std::string> environment, const std::string& directory);

// How a program ended that was started and waited for.
enum class ProgramEnd {
  not_prepared,  // its streams could not be set up
  not_started,   // there is no such program, or it cannot be started
  failed,        // it ended otherwise than with the exit code 0
  succeeded,
};

// Runs a program, named by the first of the words and found on the search path, with the others as its arguments, and
// waits for its end. What it says on its standard output goes to this process's standard error.
ProgramEnd run_program(std::vector<std::string> words);

// --- Children ------------------------------------------------------------------------------

// Two ends between which bytes pass.
struct Channel {
  Handle parent;
  Handle child;

  explicit operator bool() const { return parent && child; }
};

// The channel on which a child says why it could not become its program, and whose end says that it has. Without ends
// when it cannot be made.
Channel open_start_channel();

// The channel on which a parent tells its child to go on. Without ends when it cannot be made.
Channel open_activation_channel();

// Keeps both ends of a channel from programs that this process starts and off the standard streams, which a child
// replaces, and lets no signal tell the parent that the child is gone. Returns whether that worked.
bool protect_channel(Channel& channel);

// An input that is always empty, kept in the same ways. None when it cannot be opened.
Handle open_empty_input();

// What a child is to become.
struct ChildProgram {
  std::string image;
  std::vector<std::string> arguments;    // beginning with the program's own name
  std::vector<std::string> environment;  // in the form of the function of that name
  std::string directory;
  bool joined_output = false;          // its standard output goes to its standard error
  bool own_group = false;              // it leaves its parent's process group
  InterruptPipe* interrupt = nullptr;  // what it inherits besides its standard streams
};

// Makes a child that waits to be activated, and then becomes the program. It ends with the exit code 127 when its
// activation never comes, or when it cannot become the program. Returns its process id, or nothing when there is no
// child.
std::optional<std::int32_t> prepare_child(ChildProgram program, const Channel& start, const Channel& activation,
                                          const Handle& input);

// Tells a child to go on, and returns whether that was sent.
bool activate_child(const Handle& activation);

// Waits until an activated child has become its program or has failed to, for the problem that the child reports.
// Returns nothing when that cannot be told. The parent's copies of the child's ends must be closed.
std::optional<Problem> start_problem(const Handle& start);

// How a child ended: with its exit code, with 128 and the number of the signal that ended it, or with 1 when the system
// reports it as stopped.
struct ChildEnd {
  std::uint64_t code = 0;
  bool signalled = false;
};

// The end of a child, once it has ended; the system forgets the child then. Never blocks.
Result<std::optional<ChildEnd>> child_end(std::int32_t child);

// Ask a child to end, and kill it. Return whether that was sent, or there is no such process.
bool terminate_child(std::int32_t child);
bool kill_child(std::int32_t child);

// Waits for a child's end.
void reap_child(std::int32_t child);

}  // namespace ravok::os
