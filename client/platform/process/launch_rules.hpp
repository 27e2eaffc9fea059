// What every start of a program has in common: the images, directories, arguments and variables that it takes.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace ravok {

// The variable that announces the pipe for a forwarded interrupt to a child.
inline constexpr std::string_view interrupt_reader_variable = "RAVOK_LAUNCHER_INTERRUPT_READER";

// Variables laid over the inherited ones.
using ProcessEnvironment = std::map<std::string, std::string>;

// How one kind of start refuses what it is given. Each has its own words.
struct LaunchRefusals {
  struct Refusal {
    std::string_view code;
    std::string_view message;
  };
  Refusal many_arguments;
  Refusal bad_argument;
  Refusal long_arguments;
  Refusal bad_variable;
  Refusal interrupt_variable;
};

// Whether the path is absolute and names a regular file, or a directory, that is not reached through a link.
bool is_launch_image(const std::filesystem::path& path);
bool is_launch_directory(const std::filesystem::path& path);

// Returns the program's name, which is its path, and behind it the arguments: at most 64 of at most 4096 bytes and
// 32,768 bytes together.
std::vector<std::string> launch_arguments(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                                          const LaunchRefusals& refusals);

// Returns the variables of this process and behind them, in the order of their names, those that replace or join them,
// each as its name, "=" and its value. The variable that announces a pipe for interrupts is always left out, and with
// `without_loader` so are the inherited variables of the dynamic loader.
std::vector<std::string> launch_environment(const ProcessEnvironment& replacing, bool without_loader,
                                            const LaunchRefusals& refusals);

}  // namespace ravok
