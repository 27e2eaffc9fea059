// The window of this launcher's windowed entry.
#pragma once

#include <functional>

#include "app/launcher/launcher_runtime.hpp"

namespace launcher {

// Shows the window until the user closes it, or `interrupted` answers true. `shown` is called once it was drawn. With
// `smoke`, it is then closed at once. `runtime` is null for a build that is run outside any installation. Fails with
// "display" where no window can be opened, and with what `shown` throws.
void show_window(const ravok::LauncherRuntime* runtime, bool smoke, const std::function<void()>& shown,
                 const std::function<bool()>& interrupted);

}  // namespace launcher
