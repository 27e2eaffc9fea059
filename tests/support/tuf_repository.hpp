// A signed repository in memory, and the transport that serves it to a client without a network.
//
//   TufRepository repository;                                    // one key for each role, nothing published
//   repository.delegate("targets", {.name = "games", .paths = {"games/*"}});
//   repository.role("games").add("games/a", "content");
//   repository.publish();                                        // the first version of every document
//   repository.rotate("timestamp");                              // another key from the next root on
//   repository.publish();                                        // what has changed gets its next version
//
//   RepositoryTransport transport(repository);
//   transport.on("2.root.json", answers_with_status(503));
//   ... the client is given `transport` ...
//   EXPECT_EQ(transport.names(), (Names{"2.root.json"}));
//
// A document can be made wrong at each stage of its making: `edit` changes what is signed, `signers` who signs it,
// `deface` the signed text before others refer to it by length and digest, and `replace` only the file that is served.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.hpp"
#include "support/signing.hpp"
#include "transport/transport.hpp"

namespace ravok::testing {

// One element of a role's delegations. Its selector is "path_hash_prefixes" where there are any, and "paths" otherwise.
struct TestDelegation {
  std::string name;
  std::vector<std::string> paths = {};
  std::vector<std::string> path_hash_prefixes = {};
  bool terminating = false;
  // Whom the delegation trusts; by default whom the role says.
  std::vector<TestKey> keys = {};
  std::uint64_t threshold = 0;
};

// A role of the repository, as its next document will tell it. What only targets roles have is ignored in others.
struct TestRole {
  // Who signs, and how many of them must. All of them do.
  std::vector<TestKey> keys = {};
  std::uint64_t threshold = 1;
  // The version of the last document. A test that sets another gets that one next.
  std::uint64_t version = 0;
  std::string expires = "2035-01-01T00:00:00Z";

  // What a targets role describes, by path, and the content of those targets that have any.
  std::map<std::string, Json> targets = {};
  std::map<std::string, std::string> contents = {};
  std::vector<TestDelegation> delegations = {};

  // Signs in the place of those who should. A root is otherwise signed by its own keys and those of the root before.
  std::optional<std::vector<TestKey>> signers = {};
  // Changes the "signed" part before it is signed.
  std::function<void(Json& body)> edit = {};
  // Changes the text after it was signed; those who refer to the document tell the length and the digest of the result.
  std::function<void(std::string& text)> deface = {};

  // Adds a target with this content and its digests by these algorithms. Returns its description, to be changed at
  // will.
  Json& add(const std::string& path, const std::string& content,
            const std::vector<std::string>& algorithms = {"sha256"});
  // Adds a target without a content.
  void describe(const std::string& path, Json description) { targets[path] = std::move(description); }
};

class TufRepository {
 public:
  using Files = std::map<std::string, std::string>;

  // The four top-level roles, each with a fresh key.
  TufRepository();

  // Whether the files of the next publications carry their versions and digests in their names.
  bool consistent = true;
  // What timestamp and snapshot tell of a document beside its version: its length, and its digests by these algorithms.
  bool lengths = true;
  std::vector<std::string> hashes = {"sha256"};

  // A role by its name: "root", "timestamp", "snapshot", "targets", or one that is delegated to.
  TestRole& role(const std::string& name) { return roles_.at(name); }
  TestRole& root() { return role("root"); }
  TestRole& timestamp() { return role("timestamp"); }
  TestRole& snapshot() { return role("snapshot"); }
  TestRole& targets() { return role("targets"); }

  // Adds a delegation to the delegator's. Returns the role that is delegated to, which is made when there is none.
  TestRole& delegate(const std::string& delegator, TestDelegation delegation);
  // Delegates to `count` hashed bins, a power of two up to 65,536, that share one key. They are named by the bin's
  // number in hexadecimal behind `prefix`, as bin() says.
  void delegate_bins(const std::string& delegator, const std::string& prefix, std::size_t count);
  // The name of the bin among `count` into which a target path falls.
  static std::string bin(const std::string& prefix, std::size_t count, const std::string& path);
  // Drops a role from the snapshot. Delegations to it stay, and so do the files of its documents.
  void drop(const std::string& name);

  // Gives a role as many fresh keys as it has, or these.
  void rotate(const std::string& name);
  void rotate(const std::string& name, std::vector<TestKey> keys, std::uint64_t threshold = 1);

  // Publishes each document that would differ from the last one, under its next version. The timestamp always does.
  void publish();
  // Publishes every document again, under the versions that they have.
  void republish();

  // The text of a root, which is published and stays.
  std::string root_text(std::uint64_t version = 1) const;
  // The file of a role's last document, such as "3.targets.json", and its text.
  std::string file_of(const std::string& name) const;
  std::string text_of(const std::string& name) const;

  // The files that are served: those with metadata, and those with targets. Whatever was published stays.
  const Files& metadata() const { return metadata_; }
  const Files& target_files() const { return target_files_; }
  // Puts other bytes in the place of a file, or takes it away.
  void replace(const std::string& file, std::string bytes);
  void remove(const std::string& file);

  // Writes the files into the directory's folders "metadata" and "targets". Their names must be paths.
  void write(const std::filesystem::path& directory) const;

 private:
  // What was published of a role last.
  struct Published {
    std::uint64_t version = 0;
    std::string body;
    std::vector<std::string> signers;
    std::string file;
    std::string text;
  };

  static Json body_of(const std::string& name, const TestRole& role);
  Json root_body() const;
  Json delegations(const TestRole& role) const;
  Json reference(const std::string& name) const;
  Json new_body(const std::string& name);
  std::vector<TestKey> signers_of(const std::string& name, const std::vector<TestKey>& root_before) const;
  bool has_changed(const std::string& name);
  void publish_role(const std::string& name, bool raise);
  void publish_all(bool raise);
  void put_targets();

  std::map<std::string, TestRole> roles_;
  std::map<std::string, Published> published_;
  // The keys of the last root's role, and of the one's before.
  std::vector<TestKey> root_keys_;
  std::vector<TestKey> older_root_keys_;
  Files metadata_;
  Files target_files_;
};

// What a client asked for.
struct RepositoryRequest {
  enum class Kind { get, component, download, resume };

  Kind kind = Kind::get;
  std::string name;
  std::uint64_t limit = 0;   // the most bytes that the client takes, or the size of the file that it wants
  std::uint64_t offset = 0;  // of a resumed download
};

struct RepositoryAnswer {
  long status = 200;
  std::string body;
  // The connection breaks when so many bytes of a download have been taken.
  std::optional<std::uint64_t> breaks_after = {};
  // The service sends the whole file to those who resume.
  bool from_the_start = false;
};

// Changes an answer. What it throws is the failure of the request.
using AnswerChange = std::function<void(const RepositoryRequest& request, RepositoryAnswer& answer)>;

AnswerChange answers_with_status(long status);
AnswerChange answers_with(std::string body);
// Cuts the body behind so many bytes, and the service calls that the whole.
AnswerChange answers_cut_to(std::size_t bytes);
AnswerChange breaks_after(std::uint64_t bytes);
AnswerChange answers_from_the_start();
AnswerChange fails_with_error(std::string code, std::string message);

// Serves a repository as it stands at each request, under the bounds and with the failures of a real service.
class RepositoryTransport : public Transport {
 public:
  using Kind = RepositoryRequest::Kind;

  // The repository must outlive the transport.
  explicit RepositoryTransport(const TufRepository& repository) : repository_(&repository) {}

  TransportResponse get(std::string_view path, std::uint64_t limit) override;
  TransportResponse get_component(std::string_view component, std::uint64_t limit) override;
  void download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                const ProgressCallback& progress) override;
  bool supports_resumption() const override { return resumes; }
  void download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset, const ProgressCallback& progress,
                     const std::function<void(std::string_view)>& on_bytes,
                     const std::function<void()>& on_restart) override;

  // Whether downloads can be resumed, and in what pieces they arrive.
  bool resumes = true;
  std::size_t piece = 16'384;
  // Whether there is a network at all.
  bool connected = true;

  // Changes every answer for a name from now on, or the answer to the n-th request of all, from 1. An empty function
  // ends the change for a name.
  void on(const std::string& name, AnswerChange change) { by_name_[name] = std::move(change); }
  void at(std::size_t request, AnswerChange change) { by_number_[request] = std::move(change); }
  // Called before each request is answered.
  std::function<void(const RepositoryRequest&)> before = {};

  // The requests in their order, and the names in them.
  const std::vector<RepositoryRequest>& requests() const { return requests_; }
  std::vector<std::string> names() const;
  // Forgets them. at() counts from here.
  void forget() { requests_.clear(); }

 private:
  RepositoryAnswer ask(RepositoryRequest request, const TufRepository::Files& files);
  TransportResponse in_memory(Kind kind, std::string_view name, std::uint64_t limit);
  void receive(const RepositoryAnswer& answer, AllocatedFile& file, std::uint64_t offset,
               const ProgressCallback& progress, const std::function<void(std::string_view)>& on_bytes);

  const TufRepository* repository_;
  std::vector<RepositoryRequest> requests_;
  std::map<std::string, AnswerChange> by_name_;
  std::map<std::size_t, AnswerChange> by_number_;
};

}  // namespace ravok::testing
