// The commands of ravok-publish. Each adds itself to the program's command line, and runs once that has been read. The
// program reports what a command throws.
#pragma once

#include <functional>

#include <CLI/CLI.hpp>

namespace ravok {

// Answers whether the user asked to stop.
using Cancelled = std::function<bool()>;

struct PublishCommand {
  const CLI::App* options;
  std::function<void(const Cancelled&)> run;
};

PublishCommand add_snapshot_command(CLI::App& program);
PublishCommand add_key_command(CLI::App& program);
PublishCommand add_root_command(CLI::App& program);
PublishCommand add_package_command(CLI::App& program);
PublishCommand add_installer_command(CLI::App& program);

}  // namespace ravok
