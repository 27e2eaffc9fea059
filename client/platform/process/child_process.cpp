#include "platform/process/child_process.hpp"

#include <chrono>
#include <string_view>
#include <thread>
#include <utility>

#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/handle.hpp"
#include "platform/process/launch_rules.hpp"
#include "platform/process/process_operations.hpp"

namespace ravok {
namespace {

constexpr std::string_view not_prepared = "process_start";
constexpr std::size_t maximum_handles = 8;
constexpr std::uint64_t maximum_grace = 2000;
constexpr std::chrono::milliseconds pause_between_polls{5};
constexpr std::chrono::milliseconds patience_after_kill{500};

constexpr LaunchRefusals child_refusals = {
    .many_arguments = {"argument_limit", "Too many launch arguments"},
    .bad_argument = {"argument_limit", "Launch argument is invalid or too long"},
    .long_arguments = {"argument_limit", "Launch arguments exceed the total bound"},
    .bad_variable = {"argument_encoding", "Process environment entry is invalid"},
    .interrupt_variable = {"process_control",
                           "Launcher interrupt authority cannot be supplied as an environment override"},
};

// A child that waits to be told to run. Unless it is told to and runs, it ends with this object.
class PreparedChild {
 public:
  PreparedChild(std::int32_t pid, Handle start, Handle activation)
      : pid_(pid), start_(std::move(start)), activation_(std::move(activation)) {}
  ~PreparedChild() {
    if (running_) {
      return;
    }
    // A child that waits for its activation ends once nobody can send it any more.
    activation_.reset();
    start_.reset();
    os::reap_child(pid_);
  }
  PreparedChild(const PreparedChild&) = delete;
  PreparedChild& operator=(const PreparedChild&) = delete;

  void run() {
    const bool activated = os::activate_child(activation_);
    activation_.reset();
    const std::optional<Problem> problem = os::start_problem(start_);
    start_.reset();
    if (!problem) {
      // It may have become its program, and would then not end.
      static_cast<void>(os::kill_child(pid_));
    }
    // A child that fails before it waits has ended, and cannot be activated; its own report says more.
    require(activated || !problem || *problem, not_prepared, "Cannot activate the prepared game");
    if (!problem || *problem) {
      fail(not_prepared, "Cannot execute the installed game", {"verify GAME", "repair GAME"});
    }
    running_ = true;
  }

 private:
  const std::int32_t pid_;
  Handle start_;
  Handle activation_;
  bool running_ = false;
};

// Starts the program and returns its process id.
std::int32_t start_child(os::ChildProgram program, const std::function<void(std::uint64_t)>& on_started) {
  InterruptPipe* const interrupt = program.interrupt;
  os::Channel start = os::open_start_channel();
  require(static_cast<bool>(start), not_prepared, "Cannot allocate process-start channel");
  require(os::protect_channel(start), not_prepared, "Cannot protect process-start channel");
  Handle input = os::open_empty_input();
  require(static_cast<bool>(input), not_prepared, "Cannot create game input stream");
  os::Channel activation = os::open_activation_channel();
  require(static_cast<bool>(activation), not_prepared, "Cannot allocate process activation channel");
  require(os::protect_channel(activation), not_prepared, "Cannot protect process activation channel");

  const std::optional<std::int32_t> pid = os::prepare_child(std::move(program), start, activation, input);
  input.reset();
  start.child.reset();
  activation.child.reset();
  if (interrupt != nullptr) {
    interrupt->close_reader();
  }
  require(pid.has_value(), not_prepared, "Cannot create game process");
  PreparedChild child(*pid, std::move(start.parent), std::move(activation.parent));
  if (on_started) {
    on_started(static_cast<std::uint64_t>(*pid));
  }
  child.run();
  return *pid;
}

void pause() { std::this_thread::sleep_for(pause_between_polls); }

}  // namespace

ChildProcess::ChildProcess(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                           const std::filesystem::path& directory, const ProcessEnvironment& environment,
                           ChildStreams streams, ChildEnvironment mode,
                           const std::function<void(std::uint64_t)>& on_started, ChildGroup group, ChildControl control,
                           const std::vector<std::int64_t>& handles) {
  require(handles.size() <= maximum_handles, "launch_handles", "Too many private native child handles");
  require(handles.empty(), "launch_handles", "Native handle inheritance is Windows-only");
  require(is_launch_image(image), "launch_executable", "The installed game executable is missing or linked");
  require(is_launch_directory(directory), "launch_directory", "Game working directory is missing or linked");
  os::ChildProgram program;
  program.image = path_utf8(image);
  program.arguments = launch_arguments(image, arguments, child_refusals);
  program.directory = path_utf8(directory);
  program.environment = launch_environment(environment, mode == ChildEnvironment::without_loader, child_refusals);
  program.joined_output = streams == ChildStreams::joined;
  program.own_group = group == ChildGroup::own;
  if (control == ChildControl::interrupt) {
    require(!program.joined_output && program.own_group, "process_control",
            "Only an isolated console launcher child receives interrupt control");
    interrupt_ = std::make_unique<InterruptPipe>();
    program.interrupt = interrupt_.get();
    program.environment.push_back(std::string(interrupt_reader_variable) + "=" + interrupt_->child_environment());
  }
  pid_ = start_child(std::move(program), on_started);
}

ChildProcess::~ChildProcess() {
  if (!finished_) {
    // The system forgets a child that has ended.
    static_cast<void>(os::child_end(pid_));
  }
}

std::optional<std::uint64_t> ChildProcess::poll() {
  if (!finished_) {
    const Result<std::optional<os::ChildEnd>> end = os::child_end(pid_);
    require(end.has_value(), "process_wait", "Cannot inspect game process");
    if (!*end) {
      return std::nullopt;
    }
    exit_code_ = (*end)->code;
    signalled_ = (*end)->signalled;
    finished_ = true;
  }
  return exit_code_;
}

std::uint64_t ChildProcess::wait(const std::function<bool()>& cancel) {
  require(interrupt_ != nullptr, "process_control", "Interruptible waiting needs this owned child's private channel");
  std::optional<std::uint64_t> code = poll();
  while (!code) {
    if (cancel && !interrupt_->requested() && cancel()) {
      static_cast<void>(request_interrupt());
    }
    pause();
    code = poll();
  }
  return *code;
}

bool ChildProcess::request_interrupt() { return interrupt_ != nullptr && !poll() && interrupt_->request(); }

bool ChildProcess::terminate(std::uint64_t grace) {
  require(grace <= maximum_grace, "process_wait", "Child termination grace must be bounded to two seconds");
  if (poll()) {
    return true;
  }
  if (!os::terminate_child(pid_)) {
    return false;
  }
  if (ends_within(grace)) {
    return true;
  }
  return os::kill_child(pid_) && ends_within(static_cast<std::uint64_t>(patience_after_kill.count()));
}

bool ChildProcess::ends_within(std::uint64_t milliseconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (poll()) {
      return true;
    }
    pause();
  }
  return poll().has_value();
}

std::optional<std::int64_t> ChildProcess::notification_handle() const { return std::nullopt; }

}  // namespace ravok
