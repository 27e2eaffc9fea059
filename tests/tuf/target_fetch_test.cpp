#include "tuf/target_fetch.hpp"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "domain/crypto.hpp"
#include "support/failure.hpp"
#include "support/file_calls.hpp"
#include "support/tree_state.hpp"
#include "support/tuf_place.hpp"
#include "tuf/resume_state.hpp"

namespace ravok::target_fetch_test {
namespace {

using testing::RepositoryRequest;

constexpr const char* target_path = "games/a";
constexpr const char* scope = "a purpose";
constexpr std::uint64_t interval = 8'388'608;
constexpr const char* wrong_hash = "Target hash does not match signed metadata";
constexpr const char* prefix_changed = "Recorded partial bytes changed";
constexpr const char* broken = "Transferred a partial file";

// Content of this size in which no two places are alike.
std::string content_of(std::uint64_t size) {
  std::string content;
  content.reserve(size);
  for (std::uint32_t i = 0; content.size() < size; ++i) {
    content += std::to_string(i * 2'654'435'761U) + "\n";
  }
  content.resize(size);
  return content;
}

std::string nonce_of(char digit) { return std::string(32, digit); }

// What a download told of itself.
struct Told {
  std::string phase;
  std::string temporary;
};

class TufDownload : public ::testing::Test {
 protected:
  TufDownload() { publish(content_of(100'000)); }

  void publish(std::string bytes, const std::vector<std::string>& algorithms = {"sha256"}) {
    content_ = std::move(bytes);
    description_ = place_.repository.targets().add(target_path, content_, algorithms);
    if (!begun_) {
      place_.begin();
      begun_ = true;
    } else {
      place_.repository.publish();
    }
  }

  std::filesystem::path folder() const { return place_.root / "downloads"; }
  std::filesystem::path destination() const { return folder() / target_path; }
  std::filesystem::path beside(const std::string& ending) const { return destination().native() + ending; }

  // Downloads with a client of its own, and notes what it tells.
  std::filesystem::path download(const std::string& purpose = scope) {
    told_.clear();
    admitted_.clear();
    place_.transport.forget();
    TufDownloadOptions options;
    options.scope = purpose;
    options.admission = [this](const DownloadAdmission& admission) {
      admitted_.push_back(admission);
      if (on_admission_) {
        on_admission_();
      }
    };
    const TargetObserver observer = [this](std::string_view phase, const Json& target, std::string_view temporary) {
      EXPECT_EQ(target, description_);
      told_.push_back({std::string(phase), std::string(temporary)});
      if (on_phase_) {
        on_phase_(phase);
      }
    };
    return place_.client()->download(target_path, folder(), progress_, observer, options);
  }

  // What was asked for of targets, after all metadata.
  std::vector<RepositoryRequest> target_requests() const {
    std::vector<RepositoryRequest> found;
    for (const RepositoryRequest& request : place_.transport.requests()) {
      if (request.kind == RepositoryRequest::Kind::download || request.kind == RepositoryRequest::Kind::resume) {
        found.push_back(request);
      }
    }
    return found;
  }
  std::string served_name() const { return "games/" + description_.at("hashes").front().get<std::string>() + ".a"; }

  std::vector<std::string> phases() const {
    std::vector<std::string> found;
    for (const Told& one : told_) {
      found.push_back(one.phase);
    }
    return found;
  }

  // The target is in its place, and nothing else is there.
  void expect_fetched() const {
    EXPECT_EQ(read(destination()), content_);
    EXPECT_EQ(testing::tree_state(folder()).size(), 2u);
    EXPECT_EQ(link_status_of(destination())->permissions, permissions::private_file);
    EXPECT_EQ(link_status_of(folder() / "games")->permissions, permissions::private_directory);
  }

  // The download fails in these words before anything is asked for or told, and nothing changes.
  void expect_preserved(const std::string& code, const std::string& message) {
    const auto before = testing::tree_state(folder());
    EXPECT_FAILURE(download(), code, message);
    EXPECT_TRUE(testing::same_tree(testing::tree_state(folder()), before));
    EXPECT_TRUE(target_requests().empty());
    EXPECT_TRUE(told_.empty());
  }

  static std::string read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static void write(const std::filesystem::path& path, const std::string& bytes) {
    private_directory(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  }

  // Puts a partial file with these bytes there, and a checkpoint that vouches for the first `received` of them.
  void leave(char nonce, const std::string& bytes, std::uint64_t received, const std::string& purpose = scope) {
    const std::string ending = "." + nonce_of(nonce) + ".partial";
    write(beside(ending), bytes);
    leave_checkpoint(nonce, received, digest(bytes.substr(0, received), "sha256"), purpose);
  }
  void leave_checkpoint(char nonce, std::uint64_t received, const std::string& prefix_sha256,
                        const std::string& purpose = scope) {
    const std::string ending = "." + nonce_of(nonce) + ".partial";
    const auto status = link_status_of(beside(ending));
    const ResumeSubject subject = {
        .target = target_path,
        .temporary = target_path + ending,
        .authorization = {{"length", content_.size()}, {"hashes", description_.at("hashes")}},
        .scope_sha256 = digest(purpose, "sha256"),
        .device = status ? status->device : 1,
        .inode = status ? status->inode : 1};
    write(beside(ending + ".resume.json"), make_resume_state(subject, received, prefix_sha256).dump());
  }

  // Breaks a download off behind so many bytes. What it was is left for the next run.
  void break_off(std::uint64_t bytes) {
    place_.transport.on(served_name(), testing::breaks_after(bytes));
    EXPECT_FAILURE(download(), "network", broken);
    place_.transport.on(served_name(), {});
  }

  Json left_checkpoint() const {
    for (const auto& entry : std::filesystem::directory_iterator(folder() / "games")) {
      if (entry.path().native().ends_with(".resume.json")) {
        return Json::parse(read(entry.path()));
      }
    }
    return nullptr;
  }

  testing::TufPlace place_;
  std::string content_;
  Json description_;
  bool begun_ = false;
  ProgressCallback progress_;
  std::function<void()> on_admission_;
  std::function<void(std::string_view)> on_phase_;
  std::vector<Told> told_;
  std::vector<DownloadAdmission> admitted_;
};

TEST_F(TufDownload, FetchesAWholeTargetWithoutAScope) {
  EXPECT_EQ(download(""), destination());
  expect_fetched();
  ASSERT_EQ(target_requests().size(), 1u);
  EXPECT_EQ(target_requests()[0].kind, RepositoryRequest::Kind::download);
  EXPECT_EQ(target_requests()[0].name, served_name());
  EXPECT_EQ(target_requests()[0].limit, content_.size());
  ASSERT_EQ(phases(), (std::vector<std::string>{"prepared", "complete"}));
  EXPECT_FALSE(partial_nonce(told_[0].temporary, target_path).empty());
  EXPECT_EQ(told_[1].temporary, told_[0].temporary);
  ASSERT_EQ(admitted_.size(), 1u);
  EXPECT_EQ(admitted_[0].directory, folder() / "games");
  EXPECT_FALSE(admitted_[0].complete || admitted_[0].resumed);
  EXPECT_EQ(admitted_[0].bytes, 0u);
}

TEST_F(TufDownload, FetchesAWholeTargetWhereNothingCanBeResumed) {
  place_.transport.resumes = false;
  download();
  expect_fetched();
  EXPECT_EQ(target_requests().at(0).kind, RepositoryRequest::Kind::download);
}

TEST_F(TufDownload, AsksForThePathItselfWithoutConsistentSnapshots) {
  place_.repository.consistent = false;
  place_.repository.publish();
  place_.repository.republish();
  for (const char* purpose : {"", scope}) {
    std::filesystem::remove_all(folder());
    download(purpose);
    expect_fetched();
    EXPECT_EQ(target_requests().at(0).name, target_path);
  }
}

TEST_F(TufDownload, AsksForTheFirstDigestOfTheDescription) {
  EXPECT_EQ(remote_target_name("a", {{"hashes", {{"sha512", "2"}, {"sha256", "1"}}}}, true), "1.a");
  EXPECT_EQ(remote_target_name("b/c/a", {{"hashes", {{"sha512", "2"}}}}, true), "b/c/2.a");
  EXPECT_EQ(remote_target_name("b/c/a", {{"hashes", {{"sha512", "2"}}}}, false), "b/c/a");
}

TEST_F(TufDownload, FetchesNothingThatIsThereAndVerified) {
  download();
  const auto before = testing::tree_state(folder());
  for (const char* purpose : {"", scope}) {
    EXPECT_EQ(download(purpose), destination());
    EXPECT_TRUE(target_requests().empty());
    EXPECT_TRUE(testing::same_tree(testing::tree_state(folder()), before));
    ASSERT_EQ(phases(), (std::vector<std::string>{"complete"}));
    EXPECT_EQ(told_[0].temporary, "");
    ASSERT_EQ(admitted_.size(), 1u);
    EXPECT_EQ(admitted_[0].directory, folder() / "games");
    EXPECT_TRUE(admitted_[0].complete);
    EXPECT_FALSE(admitted_[0].resumed);
    EXPECT_EQ(admitted_[0].bytes, content_.size());
  }
}

TEST_F(TufDownload, ReplacesWhateverElseIsInThePlace) {
  for (const char* purpose : {"", scope}) {
    for (const std::string& other : {content_ + "x", content_.substr(1) + "x", std::string()}) {
      write(destination(), other);
      std::string at_the_time;
      on_phase_ = [&](std::string_view phase) {
        at_the_time = phase == "prepared" ? read(destination()) : at_the_time;
      };
      download(purpose);
      EXPECT_EQ(at_the_time, other);
      expect_fetched();
    }
  }
}

TEST_F(TufDownload, LeavesWhatIsInThePlaceWhenItFails) {
  for (const char* purpose : {"", scope}) {
    write(destination(), "old");
    place_.transport.on(served_name(), testing::answers_with(std::string(content_.size(), 'x')));
    EXPECT_FAILURE(download(purpose), "hash_mismatch", wrong_hash);
    EXPECT_EQ(read(destination()), "old");
    EXPECT_EQ(testing::tree_state(folder()).size(), 2u);
    EXPECT_EQ(phases(), (std::vector<std::string>{"prepared"}));
  }
}

TEST_F(TufDownload, StopsWhenProgressSaysSo) {
  download();
  progress_ = [](std::uint64_t, std::uint64_t) { return false; };
  expect_preserved("cancelled", "File verification cancelled");
  std::filesystem::remove(destination());
  for (const char* purpose : {"", scope}) {
    EXPECT_FAILURE(download(purpose), "cancelled", "Transfer cancelled at a safe boundary");
    EXPECT_FALSE(std::filesystem::exists(destination()));
  }
}

TEST_F(TufDownload, KeepsToTheBoundOfItsScope) {
  EXPECT_FAILURE(download(std::string(4097, 's')), "size_limit", "Download resume scope exceeds its bounded contract");
  EXPECT_TRUE(place_.transport.requests().empty());
  EXPECT_FALSE(std::filesystem::exists(folder()));
  download(std::string(4096, 's'));
  expect_fetched();
}

TEST_F(TufDownload, WritesThroughNoLink) {
  std::filesystem::create_directories(folder());
  std::filesystem::create_directory(place_.root / "elsewhere");
  std::filesystem::create_directory_symlink(place_.root / "elsewhere", folder() / "games");
  EXPECT_FAILURE(download(), "unsafe_path", "Managed path contains a symbolic link");
  EXPECT_TRUE(std::filesystem::is_empty(place_.root / "elsewhere"));
  EXPECT_TRUE(target_requests().empty());
}

TEST_F(TufDownload, StopsWhereItIsNotAdmitted) {
  on_admission_ = [] { fail("launcher_storage_full", "no room"); };
  for (const char* purpose : {"", scope}) {
    EXPECT_FAILURE(download(purpose), "launcher_storage_full", "no room");
    EXPECT_TRUE(target_requests().empty());
    EXPECT_EQ(testing::tree_state(folder()).size(), 1u);
  }
}

TEST_F(TufDownload, StopsWhereTheObserverDoes) {
  on_phase_ = [](std::string_view phase) { require(phase != "prepared", "refused", "not now"); };
  for (const char* purpose : {"", scope}) {
    EXPECT_FAILURE(download(purpose), "refused", "not now");
    EXPECT_TRUE(target_requests().empty());
    EXPECT_EQ(testing::tree_state(folder()).size(), 1u);
  }
  on_phase_ = [](std::string_view phase) { require(phase != "complete", "refused", "not now"); };
  for (const char* purpose : {"", scope}) {
    EXPECT_FAILURE(download(purpose), "refused", "not now");
    EXPECT_EQ(read(destination()), content_);
    std::filesystem::remove(destination());
  }
}

TEST_F(TufDownload, NeedsNoObserverAndNoOptions) {
  place_.client()->download(target_path, folder(), {});
  expect_fetched();
}

TEST_F(TufDownload, FetchesAnEmptyTarget) {
  publish("");
  for (const char* purpose : {"", scope}) {
    std::filesystem::remove_all(folder());
    download(purpose);
    expect_fetched();
  }
}

TEST_F(TufDownload, ChecksEveryDigestOfATarget) {
  publish(content_, {"sha256", "sha512"});
  download();
  expect_fetched();
  publish(content_, {"sha512"});
  std::filesystem::remove(destination());
  download();
  expect_fetched();
  std::filesystem::remove(destination());
  description_ = place_.repository.targets().add(target_path, content_, {"sha256", "sha512"});
  description_["hashes"]["sha512"] = std::string(128, 'a');
  place_.repository.targets().targets[target_path] = description_;
  place_.repository.publish();
  EXPECT_FAILURE(download(), "hash_mismatch", wrong_hash);
  EXPECT_TRUE(std::filesystem::is_empty(folder() / "games"));
}

TEST_F(TufDownload, ContinuesWhatWasBrokenOff) {
  break_off(30'000);
  const Json state = left_checkpoint();
  EXPECT_EQ(state.at("received"), 30'000);
  EXPECT_EQ(state.at("prefix_sha256"), digest(content_.substr(0, 30'000), "sha256"));
  const std::string temporary = text_at(state, "temporary");
  EXPECT_NO_THROW(validate_target_resume_state(state, temporary));
  EXPECT_EQ(read(folder() / temporary), content_.substr(0, 30'000));
  EXPECT_EQ(phases(), (std::vector<std::string>{"prepared"}));
  EXPECT_EQ(told_[0].temporary, temporary);

  download();
  expect_fetched();
  ASSERT_EQ(target_requests().size(), 1u);
  EXPECT_EQ(target_requests()[0].kind, RepositoryRequest::Kind::resume);
  EXPECT_EQ(target_requests()[0].name, served_name());
  EXPECT_EQ(target_requests()[0].offset, 30'000u);
  ASSERT_EQ(phases(), (std::vector<std::string>{"resumed", "complete"}));
  EXPECT_EQ(told_[0].temporary, temporary);
  EXPECT_EQ(told_[1].temporary, temporary);
  ASSERT_EQ(admitted_.size(), 1u);
  EXPECT_EQ(admitted_[0].directory, folder() / "games");
  EXPECT_TRUE(admitted_[0].resumed);
  EXPECT_FALSE(admitted_[0].complete);
  EXPECT_EQ(admitted_[0].bytes, 30'000u);
}

TEST_F(TufDownload, ContinuesAsOftenAsItIsBrokenOff) {
  std::uint64_t left = content_.size();
  std::uint64_t received = 0;
  for (const std::uint64_t bytes : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{16'384}, std::uint64_t{50'000}}) {
    break_off(bytes);
    received += bytes;
    left -= bytes;
    EXPECT_EQ(left_checkpoint().at("received"), received);
  }
  download();
  expect_fetched();
  EXPECT_EQ(target_requests().at(0).offset, content_.size() - left);
}

TEST_F(TufDownload, HasItsFirstCheckpointBeforeTheFirstByte) {
  Json state;
  place_.transport.before = [&](const RepositoryRequest& request) {
    if (request.kind == RepositoryRequest::Kind::resume) {
      state = left_checkpoint();
    }
  };
  download();
  ASSERT_TRUE(state.is_object());
  EXPECT_EQ(state.at("received"), 0);
  EXPECT_EQ(state.at("prefix_sha256"), digest("", "sha256"));
  EXPECT_EQ(state.at("scope_sha256"), digest(scope, "sha256"));
}

// A process that ends leaves what its last checkpoint vouches for; at most 8 MiB less a byte are fetched again.
TEST_F(TufDownload, LosesLessThanAnIntervalWhenTheProcessEnds) {
  publish(content_of(2 * interval + 100'000));
  for (const std::uint64_t end : {interval - 16'384, interval, 2 * interval - 16'384, 2 * interval, 2 * interval + 1}) {
    std::filesystem::remove_all(folder());
    const pid_t child = fork();
    if (child == 0) {
      progress_ = [&](std::uint64_t done, std::uint64_t) {
        if (done >= end) {
          _exit(0);
        }
        return true;
      };
      download();
      _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    const std::uint64_t whole = end / interval * interval;
    EXPECT_EQ(left_checkpoint().at("received"), whole);
    progress_ = {};
    download();
    expect_fetched();
    EXPECT_EQ(target_requests().at(0).offset, whole);
  }
}

TEST_F(TufDownload, BeginsAnewWhenTheServiceSendsTheWholeFile) {
  break_off(30'000);
  place_.transport.on(served_name(), testing::answers_from_the_start());
  download();
  expect_fetched();
  EXPECT_EQ(target_requests().at(0).offset, 30'000u);
}

TEST_F(TufDownload, CountsFromTheBeginningWhenItBeganAnew) {
  break_off(30'000);
  place_.transport.on(served_name(), [](const RepositoryRequest&, testing::RepositoryAnswer& answer) {
    answer.from_the_start = true;
    answer.breaks_after = 20'000;
  });
  EXPECT_FAILURE(download(), "network", broken);
  EXPECT_EQ(left_checkpoint().at("received"), 20'000);
  EXPECT_EQ(left_checkpoint().at("prefix_sha256"), digest(content_.substr(0, 20'000), "sha256"));
  place_.transport.on(served_name(), {});
  download();
  expect_fetched();
  EXPECT_EQ(target_requests().at(0).offset, 20'000u);
}

TEST_F(TufDownload, KeepsNothingOfALiar) {
  std::string other = content_;
  other[60'000] = static_cast<char>(other[60'000] ^ 1);
  break_off(30'000);
  for (const bool from_the_start : {false, true}) {
    place_.transport.on(served_name(), [&](const RepositoryRequest&, testing::RepositoryAnswer& answer) {
      answer.body = other;
      answer.from_the_start = from_the_start;
    });
    EXPECT_FAILURE(download(), "hash_mismatch", wrong_hash);
    EXPECT_TRUE(std::filesystem::is_empty(folder() / "games"));
    place_.transport.on(served_name(), {});
    break_off(30'000);
  }
  place_.transport.on(served_name(), testing::answers_with(content_ + "x"));
  EXPECT_FAILURE(download(), "size_limit", "Download exceeds its authenticated length");
  EXPECT_TRUE(std::filesystem::is_empty(folder() / "games"));
  place_.transport.on(served_name(), {});
  download();
  expect_fetched();
}

TEST_F(TufDownload, PreservesAPartialFileWhoseBytesChanged) {
  for (const std::size_t place : {std::size_t{0}, std::size_t{29'999}}) {
    std::filesystem::remove_all(folder());
    break_off(30'000);
    const std::filesystem::path partial = folder() / text_at(left_checkpoint(), "temporary");
    std::string bytes = read(partial);
    bytes[place] = static_cast<char>(bytes[place] ^ 1);
    write(partial, bytes);
    expect_preserved("download_resume_changed", prefix_changed);
    expect_preserved("download_resume_changed", prefix_changed);
  }
}

TEST_F(TufDownload, TrustsNoByteBehindTheCheckpoint) {
  leave('1', content_.substr(0, 30'000) + std::string(50'000, 'x'), 30'000);
  download();
  expect_fetched();
  EXPECT_EQ(target_requests().at(0).offset, 30'000u);
}

TEST_F(TufDownload, PreservesAPartialFileThatIsAnother) {
  constexpr const char* replaced = "Prepared file was replaced or changed; reserved content was preserved";
  leave('1', content_.substr(0, 30'000), 30'000);
  const std::filesystem::path partial = beside("." + nonce_of('1') + ".partial");
  write(beside("-other"), read(partial));
  std::filesystem::rename(beside("-other"), partial);
  expect_preserved("allocation_changed", replaced);
  leave('1', content_.substr(0, 29'999), 29'999);
  leave_checkpoint('1', 30'000, digest(content_.substr(0, 30'000), "sha256"));
  expect_preserved("allocation_changed", replaced);
  leave('1', content_ + "x", 30'000);
  expect_preserved("allocation_changed", replaced);
  Json state = left_checkpoint();
  state["identity"][0] = std::numeric_limits<std::uint64_t>::max();
  write(partial.native() + ".resume.json", state.dump());
  expect_preserved("allocation_changed", replaced);
}

TEST_F(TufDownload, PreservesAPartialFileThatIsNoOrdinaryFile) {
  const std::filesystem::path partial = beside("." + nonce_of('1') + ".partial");
  leave('1', content_.substr(0, 30'000), 30'000);
  std::filesystem::create_hard_link(partial, beside("-other"));
  expect_preserved("unsafe_path", "Allocation requires an ordinary single-link file");
  std::filesystem::remove(beside("-other"));
  std::filesystem::remove(partial);
  std::filesystem::create_symlink("elsewhere", partial);
  const auto before = testing::tree_state(folder());
  const auto failure = testing::failure_of([&] { download(); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->code, "unsafe_path");
  EXPECT_TRUE(testing::same_tree(testing::tree_state(folder()), before));
}

TEST_F(TufDownload, LeavesCheckpointsOfOtherPurposesAlone) {
  leave('1', content_.substr(0, 30'000), 30'000, "another purpose");
  leave('2', content_.substr(0, 20'000), 20'000);
  const std::filesystem::path second = beside("." + nonce_of('2') + ".partial.resume.json");
  for (const auto& [key, value] :
       std::map<std::string, Json>{{"target", "games/b"},
                                   {"authorization", {{"length", 99'999}, {"hashes", {{"sha256", "x"}}}}},
                                   {"temporary", "a." + nonce_of('2') + ".partial"}}) {
    Json state = Json::parse(read(second));
    state[key] = value;
    write(second, state.dump());
    const auto before = testing::tree_state(folder());
    download();
    EXPECT_EQ(target_requests().at(0).offset, 0u) << key;
    EXPECT_EQ(read(destination()), content_);
    EXPECT_TRUE(testing::same_tree(testing::without(testing::tree_state(folder()), {target_path}), before));
    std::filesystem::remove(destination());
    leave('2', content_.substr(0, 20'000), 20'000);
  }
}

TEST_F(TufDownload, ContinuesTheFurthestOfSeveral) {
  leave('1', content_.substr(0, 30'000), 30'000);
  leave('2', content_.substr(0, 50'000), 50'000);
  leave('3', content_.substr(0, 40'000), 40'000);
  leave('4', content_.substr(0, 60'000), 60'000);
  std::filesystem::remove(beside("." + nonce_of('4') + ".partial"));
  const auto before = testing::tree_state(folder());
  download();
  EXPECT_EQ(target_requests().at(0).offset, 50'000u);
  EXPECT_EQ(told_.at(0).temporary, target_path + ("." + nonce_of('2') + ".partial"));
  EXPECT_EQ(read(destination()), content_);
  const std::string second = target_path + ("." + nonce_of('2') + ".partial");
  EXPECT_TRUE(testing::same_tree(testing::without(testing::tree_state(folder()), {target_path}),
                                 testing::without(before, {second, second + ".resume.json"})));
}

TEST_F(TufDownload, FetchesNothingOfAFileThatOnlyLacksItsPlace) {
  leave('1', content_, content_.size());
  download();
  expect_fetched();
  EXPECT_TRUE(target_requests().empty());
  EXPECT_EQ(phases(), (std::vector<std::string>{"resumed", "complete"}));
  std::filesystem::remove(destination());
  const std::string other(content_.size(), 'x');
  leave('1', other, other.size());
  EXPECT_FAILURE(download(), "hash_mismatch", wrong_hash);
  EXPECT_TRUE(std::filesystem::is_empty(folder() / "games"));
}

TEST_F(TufDownload, KeepsAtMost32Checkpoints) {
  const std::string digits = "0123456789abcdef";
  for (std::size_t i = 0; i < 31; ++i) {
    leave('e', "", 0, "another purpose");
    const std::string nonce = std::string(1, digits[i / 16]) + digits[i % 16] + std::string(30, '0');
    Json state = Json::parse(read(beside("." + nonce_of('e') + ".partial.resume.json")));
    state["temporary"] = target_path + ("." + nonce + ".partial");
    write(beside("." + nonce + ".partial.resume.json"), state.dump());
  }
  const auto before = testing::tree_state(folder());
  download();
  EXPECT_EQ(read(destination()), content_);
  EXPECT_TRUE(testing::same_tree(testing::without(testing::tree_state(folder()), {target_path}), before));
  std::filesystem::remove(destination());
  leave('d', "", 0, "another purpose");
  expect_preserved("download_resume_capacity", "Retained partial downloads reached their capacity");
}

TEST_F(TufDownload, PreservesUnknownNames) {
  const std::string partial = "." + nonce_of('1') + ".partial";
  for (const std::string& ending :
       {std::string("."), std::string(".x"), std::string(".partial"), "." + nonce_of('A') + ".partial",
        "." + nonce_of('1'), partial + "x", partial + ".resume", partial + ".resume.jsonx",
        partial + ".resume.json.tmp", partial + ".resume.json." + nonce_of('A') + ".tmp",
        "." + std::string(31, '1') + ".partial"}) {
    write(beside(ending), "");
    expect_preserved("download_resume_state", "Unknown resume filename was preserved");
    std::filesystem::remove(beside(ending));
  }
  for (const std::string& known : {std::string("b"), partial, partial + ".resume.json." + nonce_of('a') + ".tmp"}) {
    write(beside(known), "");
  }
  download();
  EXPECT_EQ(read(destination()), content_);
}

TEST_F(TufDownload, ScansNoMoreThan4096Entries) {
  for (int i = 0; i < 4096; ++i) {
    write(folder() / "games" / std::to_string(i), "");
  }
  download();
  EXPECT_EQ(read(destination()), content_);
  std::filesystem::remove(destination());
  write(folder() / "games/4096", "");
  expect_preserved("size_limit", "Download directory exceeds its bounded resume scan");
}

TEST_F(TufDownload, PreservesACheckpointThatItDoesNotUnderstand) {
  leave('1', content_.substr(0, 30'000), 30'000);
  const std::string name = "a." + nonce_of('1') + ".partial.resume.json";
  const std::filesystem::path path = folder() / "games" / name;
  const std::string text = read(path);
  const auto refused = [&](const std::string& bytes, const std::string& code, const std::string& message) {
    write(path, bytes);
    expect_preserved(code, message);
  };
  Json later = Json::parse(text);
  later["schema_version"] = 2;
  refused(later.dump(), "download_resume_state",
          "Unknown partial-download state was preserved; clear the disposable cache to retry");
  Json beyond = Json::parse(text);
  beyond["received"] = content_.size() + 1;
  refused(beyond.dump(), "download_resume_state", "Invalid partial-download bounds");
  Json other = Json::parse(text);
  other["temporary"] = "games/a." + nonce_of('2') + ".partial";
  refused(other.dump(), "download_resume_state", "Partial-download nonce differs from its path");
  refused(text + std::string(16'385 - text.size(), ' '), "size_limit", "File exceeds read limit");
  refused(R"({"a":1,"a":1})", "duplicate_key", "JSON contains a duplicate object key");
  std::filesystem::remove(path);
  std::filesystem::create_symlink("elsewhere", path);
  expect_preserved("unsafe_path", "Cannot open file: " + name);
  std::filesystem::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  expect_preserved("unsafe_path", "Expected an ordinary file: " + name);
}

TEST_F(TufDownload, NeverReplacesACheckpointThatChangedMeanwhile) {
  std::filesystem::path path;
  place_.transport.before = [&](const RepositoryRequest& request) {
    if (request.kind == RepositoryRequest::Kind::resume) {
      path = folder() / (text_at(left_checkpoint(), "temporary") + ".resume.json");
      write(path, read(path) + " ");
    }
  };
  EXPECT_FAILURE(download(), "download_resume_changed", "Resume marker changed before checkpoint");
  EXPECT_TRUE(read(path).ends_with("} "));
  EXPECT_TRUE(std::filesystem::exists(folder() / told_.at(0).temporary));
  EXPECT_FALSE(std::filesystem::exists(destination()));
}

TEST_F(TufDownload, NeverRemovesACheckpointThatChangedMeanwhile) {
  std::filesystem::path path;
  on_phase_ = [&](std::string_view phase) {
    if (phase == "complete") {
      path = folder() / (told_.back().temporary + ".resume.json");
      write(path, read(path) + " ");
    }
  };
  EXPECT_FAILURE(download(), "download_resume_changed", "Resume marker changed before retirement");
  EXPECT_TRUE(read(path).ends_with("} "));
  EXPECT_EQ(read(destination()), content_);
}

// A transport that ends as it likes and calls that a success.
class EasyTransport : public testing::RepositoryTransport {
 public:
  using RepositoryTransport::RepositoryTransport;
  void download_into(std::string_view, AllocatedFile& file, std::uint64_t, const ProgressCallback&,
                     const std::function<void(std::string_view)>& on_bytes, const std::function<void()>&) override {
    file.write("bytes");
    if (tells) {
      on_bytes("bytes");
    }
  }
  bool tells = true;
};

TEST_F(TufDownload, RefusesAFileThatIsShorterThanSigned) {
  EasyTransport transport(place_.repository);
  const auto fetch = [&] {
    TufClient client(place_.directory, place_.transport, transport, place_.limits, [this] { return place_.now; });
    client.download(target_path, folder(), {}, {}, {.scope = scope, .admission = {}});
  };
  EXPECT_FAILURE(fetch(), "length_mismatch", "Downloaded target is shorter than its signed length");
  EXPECT_TRUE(std::filesystem::is_empty(folder() / "games"));
  transport.tells = false;
  EXPECT_FAILURE(fetch(), "download_resume_state", "Partial write did not complete a hash checkpoint");
  EXPECT_EQ(left_checkpoint().at("received"), 0);
  EXPECT_EQ(testing::tree_state(folder()).size(), 3u);
}

// A checkpoint that grew beyond its bound was written by somebody else, and the partial file is evidence.
TEST_F(TufDownload, PreservesThePartialFileOfACheckpointThatGrewBeyondItsBound) {
  std::filesystem::path path;
  place_.transport.before = [&](const RepositoryRequest& request) {
    if (request.kind == RepositoryRequest::Kind::resume) {
      path = folder() / (text_at(left_checkpoint(), "temporary") + ".resume.json");
      write(path, read(path) + std::string(maximum_resume_state_bytes, ' '));
    }
  };
  EXPECT_FAILURE(download(), "download_resume_changed", "Resume marker changed before checkpoint");
  EXPECT_GT(read(path).size(), maximum_resume_state_bytes);
  EXPECT_EQ(read(folder() / told_.at(0).temporary), content_);
  EXPECT_FALSE(std::filesystem::exists(destination()));
}

TEST_F(TufDownload, KeepsAFileThatCannotBeMovedIntoItsPlaceOnlyToContinueIt) {
  std::filesystem::create_directories(destination());
  const std::string message = "Cannot move ";
  const auto fetch = [&](const std::string& purpose) {
    const auto failure = testing::failure_of([&] { download(purpose); });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code, "file_write");
    EXPECT_EQ(failure->what(), message + (folder() / told_.at(0).temporary).native() + " into place");
    EXPECT_TRUE(std::filesystem::is_directory(destination()));
  };
  fetch("");
  EXPECT_EQ(testing::tree_state(folder()).size(), 2u);
  fetch(scope);
  EXPECT_EQ(left_checkpoint().at("received"), content_.size());
  EXPECT_EQ(read(folder() / told_.at(0).temporary), content_);
  std::filesystem::remove(destination());
  download();
  EXPECT_TRUE(target_requests().empty());
  expect_fetched();
}

TEST_F(TufDownload, IsDurableInItsPlaceBeforeItsCheckpointGoes) {
  bool happened = true;
  int moved_with_checkpoint = 0;
  for (int nth = 1; happened; ++nth) {
    std::filesystem::remove_all(folder());
    const testing::Planned flush(testing::meanwhile(
        "fsync",
        [&] {
          moved_with_checkpoint += std::filesystem::exists(destination()) && left_checkpoint().is_object() ? 1 : 0;
        },
        nth));
    download();
    happened = flush.happened();
  }
  EXPECT_EQ(moved_with_checkpoint, 1);
}

TEST_F(TufDownload, LeavesNoCheckpointWithoutItsPartialFile) {
  bool happened = true;
  int failures = 0;
  for (int nth = 1; happened; ++nth) {
    std::filesystem::remove_all(folder());
    const auto client = place_.client();
    client->refresh();
    private_directory(folder() / "games");
    {
      const testing::Planned flushes(testing::failing("fsync", EIO, nth));
      const auto failure = testing::failure_of(
          [&] { client->download(target_path, folder(), {}, {}, {.scope = scope, .admission = {}}); });
      happened = flushes.happened();
      EXPECT_EQ(failure.has_value(), happened);
      failures += failure && failure->code == "file_sync" ? 1 : 0;
    }
    const Json state = left_checkpoint();
    if (state.is_object() && !std::filesystem::exists(destination())) {
      EXPECT_TRUE(std::filesystem::exists(folder() / text_at(state, "temporary"))) << "after flush " << nth;
    }
  }
  EXPECT_GE(failures, 3);
}

// The device number of the checkpoint does not fit into what the file is compared by.
TEST_F(TufDownload, ComparesTheWholeDeviceNumber) {
  leave('1', content_.substr(0, 30'000), 30'000);
  const std::filesystem::path path = beside("." + nonce_of('1') + ".partial.resume.json");
  Json state = Json::parse(read(path));
  const auto device = state.at("identity").at(0).get<std::uint64_t>();
  state["identity"][0] = device + (std::uint64_t{1} << 32);
  write(path, state.dump());
  expect_preserved("allocation_changed", "Prepared file was replaced or changed; reserved content was preserved");
}

// A callback that downloads the same target takes the partial file away from the download that called it.
TEST_F(TufDownload, GivesWayToADownloadThatItsObserverBegins) {
  break_off(30'000);
  const auto client = place_.client();
  const TufDownloadOptions options = {.scope = scope, .admission = {}};
  const TargetObserver again = [&](std::string_view phase, const Json&, std::string_view) {
    if (phase == "resumed") {
      client->download(target_path, folder(), {}, {}, options);
    }
  };
  EXPECT_FAILURE(client->download(target_path, folder(), {}, again, options), "allocation_changed",
                 "Resume allocation changed");
  expect_fetched();
}

TEST_F(TufDownload, KeepsAPartialFileThatTheObserverOrTheAdmissionDoesNotContinue) {
  break_off(30'000);
  const auto before = testing::tree_state(folder());
  on_phase_ = [](std::string_view phase) { require(phase != "resumed", "refused", "not now"); };
  EXPECT_FAILURE(download(), "refused", "not now");
  EXPECT_TRUE(admitted_.empty());
  EXPECT_TRUE(testing::same_tree(testing::tree_state(folder()), before));
  on_phase_ = {};
  on_admission_ = [] { fail("launcher_storage_full", "no room"); };
  EXPECT_FAILURE(download(), "launcher_storage_full", "no room");
  EXPECT_EQ(phases(), (std::vector<std::string>{"resumed"}));
  EXPECT_TRUE(target_requests().empty());
  EXPECT_TRUE(testing::same_tree(testing::tree_state(folder()), before));
  on_admission_ = {};
  progress_ = [](std::uint64_t, std::uint64_t) { return false; };
  EXPECT_FAILURE(download(), "cancelled", "Partial verification cancelled");
  EXPECT_TRUE(told_.empty());
  EXPECT_TRUE(testing::same_tree(testing::tree_state(folder()), before));
}

// What the progress throws is no Error, and ends a download like any other failure.
TEST_F(TufDownload, KeepsWhatWasReceivedWhateverEndsIt) {
  progress_ = [](std::uint64_t done, std::uint64_t) -> bool {
    if (done > 40'000) {
      throw 7;
    }
    return true;
  };
  EXPECT_THROW(download(), int);
  EXPECT_EQ(left_checkpoint().at("received"), 49'152);
  progress_ = {};
  download();
  EXPECT_EQ(target_requests().at(0).offset, 49'152u);
  expect_fetched();
}

}  // namespace
}  // namespace ravok::target_fetch_test
