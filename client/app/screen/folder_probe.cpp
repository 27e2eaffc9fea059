#include "app/screen/folder_probe.hpp"

#include <exception>
#include <system_error>
#include <utility>

#include "app/install/data_folder.hpp"
#include "app/install/installation_record.hpp"
#include "app/install/native_install.hpp"
#include "domain/error.hpp"
#include "domain/paths.hpp"
#include "platform/file/status.hpp"

namespace ravok {
namespace {

void judge(FolderFacts& facts, const std::filesystem::path& package, const PackageManifests* manifests) {
  const DataPaths paths(data_folder(path_from_utf8(facts.asked)));
  facts.root = paths.root;
  const bool missing = is_missing(paths.root);
  const InstallationState found = missing ? InstallationState::none : installation_state(paths);
  if (found != InstallationState::none) {
    facts.status = NativeInstaller::status(paths.root).to_json();
    facts.state =
        found == InstallationState::complete ? FolderFacts::State::installed : FolderFacts::State::interrupted;
    return;
  }
  if (manifests != nullptr) {
    require_install_place(paths, package, manifests->bootstrap, manifests->launcher);
    facts.room = install_room(paths.root, manifests->bootstrap, manifests->launcher);
  }
  require_install_state(paths, missing, false);
  facts.state = FolderFacts::State::free;
}

}  // namespace

FolderFacts inspect_folder(std::string_view text, const std::filesystem::path& package,
                           const PackageManifests* manifests) {
  FolderFacts facts;
  facts.asked = text;
  try {
    judge(facts, package, manifests);
  } catch (const std::exception& problem) {
    facts.state = FolderFacts::State::refused;
    facts.problem = problem.what();
  }
  return facts;
}

FolderProbe::FolderProbe(Inspect inspect, FolderFacts first) : inspect_(std::move(inspect)), facts_(std::move(first)) {}

FolderProbe::~FolderProbe() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    question_.reset();
    wakeup_.reset();
  }
  changed_.notify_one();
  if (thread_.joinable()) {
    thread_.join();
  }
}

void FolderProbe::ask(std::string text) {
  {
    const std::lock_guard lock(mutex_);
    question_ = std::move(text);
  }
  changed_.notify_one();
  if (thread_.joinable()) {
    return;
  }
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error&) {
    std::string here;
    {
      const std::lock_guard lock(mutex_);
      here = std::move(*question_);
      question_.reset();
    }
    answer(inspect_(here));
  }
}

FolderFacts FolderProbe::facts() const {
  const std::lock_guard lock(mutex_);
  return facts_;
}

void FolderProbe::set_wakeup(std::function<void()> wakeup) {
  auto shared = std::make_shared<const std::function<void()>>(std::move(wakeup));
  const std::lock_guard lock(mutex_);
  wakeup_ = std::move(shared);
}

void FolderProbe::run() {
  while (true) {
    std::string text;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return ending_ || question_.has_value(); });
      if (ending_) {
        return;
      }
      text = std::move(*question_);
      question_.reset();
    }
    answer(inspect_(text));
  }
}

void FolderProbe::answer(FolderFacts facts) {
  std::shared_ptr<const std::function<void()>> wakeup;
  {
    const std::lock_guard lock(mutex_);
    facts_ = std::move(facts);
    wakeup = wakeup_;
  }
  if (wakeup && *wakeup) {
    (*wakeup)();
  }
}

}  // namespace ravok
