#include "support/tuf_repository.hpp"

#include <algorithm>
#include <array>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "domain/crypto.hpp"
#include "domain/error.hpp"
#include "platform/file/posix_files.hpp"

namespace ravok::testing {
namespace {

constexpr std::uint64_t maximum_answer_in_memory = 16'777'216;
constexpr std::size_t maximum_component = 8'192;
constexpr std::array<const char*, 4> top_level = {"root", "timestamp", "snapshot", "targets"};

bool is_targets_role(const std::string& name) {
  return name == "targets" || std::find(top_level.begin(), top_level.end(), name) == top_level.end();
}

TestKeys pointers(const std::vector<TestKey>& keys) {
  TestKeys result;
  for (const TestKey& key : keys) {
    result.push_back(&key);
  }
  return result;
}

std::vector<std::string> ids(const std::vector<TestKey>& keys) {
  std::vector<std::string> result;
  for (const TestKey& key : keys) {
    result.push_back(key.id());
  }
  return result;
}

// Both, and a key that is in both once.
std::vector<TestKey> together(std::vector<TestKey> keys, const std::vector<TestKey>& others) {
  for (const TestKey& other : others) {
    const auto same = [&](const TestKey& key) { return key.id() == other.id(); };
    if (std::find_if(keys.begin(), keys.end(), same) == keys.end()) {
      keys.push_back(other);
    }
  }
  return keys;
}

Json digests(std::string_view bytes, const std::vector<std::string>& algorithms) {
  Json result = Json::object();
  for (const std::string& algorithm : algorithms) {
    result[algorithm] = digest(bytes, algorithm);
  }
  return result;
}

std::string hexadecimal(std::size_t number, std::size_t characters) {
  std::string text(characters, '0');
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit, number /= 16) {
    *digit = "0123456789abcdef"[number % 16];
  }
  return text;
}

// How many hexadecimal digits tell so many bins apart.
std::size_t bin_digits(std::size_t count) {
  std::size_t characters = 1;
  for (std::size_t bins = 16; bins < count; bins *= 16) {
    ++characters;
  }
  return characters;
}

std::size_t prefixes_of_each(std::size_t count) {
  std::size_t prefixes = 1;
  for (std::size_t i = 0; i < bin_digits(count); ++i) {
    prefixes *= 16;
  }
  return prefixes / count;
}

// A target's path with this text before the last name.
std::string with_name_prefix(const std::string& path, const std::string& prefix) {
  const std::size_t slash = path.rfind('/');
  const std::size_t name = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, name) + prefix + path.substr(name);
}

void write_file(const std::filesystem::path& path, std::string_view bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) {
    throw std::runtime_error("Cannot write a file of a repository: " + path.string());
  }
}

}  // namespace

Json& TestRole::add(const std::string& path, const std::string& content, const std::vector<std::string>& algorithms) {
  contents[path] = content;
  targets[path] = {{"length", content.size()}, {"hashes", digests(content, algorithms)}};
  return targets[path];
}

TufRepository::TufRepository() {
  for (const char* name : top_level) {
    roles_[name].keys = {TestKey::ed25519()};
  }
}

TestRole& TufRepository::delegate(const std::string& delegator, TestDelegation delegation) {
  TestRole& delegated = roles_[delegation.name];
  if (delegated.keys.empty()) {
    delegated.keys = {TestKey::ed25519()};
  }
  role(delegator).delegations.push_back(std::move(delegation));
  return delegated;
}

void TufRepository::delegate_bins(const std::string& delegator, const std::string& prefix, std::size_t count) {
  const std::vector<TestKey> keys = {TestKey::ed25519()};
  const std::size_t characters = bin_digits(count);
  const std::size_t prefixes = prefixes_of_each(count);
  for (std::size_t bin = 0; bin < count; ++bin) {
    TestDelegation delegation{.name = prefix + hexadecimal(bin, characters)};
    for (std::size_t i = 0; i < prefixes; ++i) {
      delegation.path_hash_prefixes.push_back(hexadecimal(bin * prefixes + i, characters));
    }
    roles_[delegation.name].keys = keys;
    role(delegator).delegations.push_back(std::move(delegation));
  }
}

std::string TufRepository::bin(const std::string& prefix, std::size_t count, const std::string& path) {
  const std::size_t characters = bin_digits(count);
  const std::size_t number = std::stoul(digest(path, "sha256").substr(0, characters), nullptr, 16);
  return prefix + hexadecimal(number / prefixes_of_each(count), characters);
}

void TufRepository::drop(const std::string& name) {
  roles_.erase(name);
  published_.erase(name);
}

void TufRepository::rotate(const std::string& name) {
  for (TestKey& key : role(name).keys) {
    key = TestKey::ed25519();
  }
}

void TufRepository::rotate(const std::string& name, std::vector<TestKey> keys, std::uint64_t threshold) {
  role(name).keys = std::move(keys);
  role(name).threshold = threshold;
}

void TufRepository::publish() { publish_all(true); }

void TufRepository::republish() { publish_all(false); }

std::string TufRepository::root_text(std::uint64_t version) const {
  return metadata_.at(std::to_string(version) + ".root.json");
}

std::string TufRepository::file_of(const std::string& name) const { return published_.at(name).file; }

std::string TufRepository::text_of(const std::string& name) const { return published_.at(name).text; }

void TufRepository::replace(const std::string& file, std::string bytes) {
  Files& files = target_files_.contains(file) ? target_files_ : metadata_;
  files[file] = std::move(bytes);
}

void TufRepository::remove(const std::string& file) {
  if (metadata_.erase(file) + target_files_.erase(file) == 0) {
    throw std::invalid_argument("The repository has no file " + file);
  }
}

void TufRepository::write(const std::filesystem::path& directory) const {
  for (const auto& [name, bytes] : metadata_) {
    write_file(directory / "metadata" / name, bytes);
  }
  for (const auto& [name, bytes] : target_files_) {
    write_file(directory / "targets" / name, bytes);
  }
}

Json TufRepository::body_of(const std::string& name, const TestRole& role) {
  return role_body(is_targets_role(name) ? "targets" : name, role.version, role.expires);
}

Json TufRepository::root_body() const {
  Json body = body_of("root", roles_.at("root"));
  body["consistent_snapshot"] = consistent;
  body["keys"] = Json::object();
  for (const char* name : top_level) {
    const TestRole& role = roles_.at(name);
    body["keys"].update(key_objects(pointers(role.keys)));
    body["roles"][name] = signing_authority(pointers(role.keys), role.threshold);
  }
  return body;
}

Json TufRepository::delegations(const TestRole& delegator) const {
  static const TestRole nobody;
  Json keys = Json::object();
  Json elements = Json::array();
  for (const TestDelegation& delegation : delegator.delegations) {
    const auto found = roles_.find(delegation.name);
    const TestRole& delegated = found == roles_.end() ? nobody : found->second;
    const std::vector<TestKey>& trusted = delegation.keys.empty() ? delegated.keys : delegation.keys;
    keys.update(key_objects(pointers(trusted)));
    Json element =
        signing_authority(pointers(trusted), delegation.threshold == 0 ? delegated.threshold : delegation.threshold);
    element["name"] = delegation.name;
    element["terminating"] = delegation.terminating;
    if (delegation.path_hash_prefixes.empty()) {
      element["paths"] = delegation.paths;
    } else {
      element["path_hash_prefixes"] = delegation.path_hash_prefixes;
    }
    elements.push_back(std::move(element));
  }
  return {{"keys", std::move(keys)}, {"roles", std::move(elements)}};
}

Json TufRepository::reference(const std::string& name) const {
  const Published& document = published_.at(name);
  Json result = {{"version", document.version}};
  if (lengths) {
    result["length"] = document.text.size();
  }
  if (!hashes.empty()) {
    result["hashes"] = digests(document.text, hashes);
  }
  return result;
}

Json TufRepository::new_body(const std::string& name) {
  const TestRole& role = roles_.at(name);
  Json body = name == "root" ? root_body() : body_of(name, role);
  if (name == "timestamp") {
    body["meta"]["snapshot.json"] = reference("snapshot");
  } else if (name == "snapshot") {
    for (const auto& [other, ignored] : roles_) {
      if (is_targets_role(other)) {
        body["meta"][other + ".json"] = reference(other);
      }
    }
  } else if (name != "root") {
    body["targets"] = role.targets;
    if (!role.delegations.empty()) {
      body["delegations"] = delegations(role);
    }
  }
  if (role.edit) {
    role.edit(body);
  }
  return body;
}

std::vector<TestKey> TufRepository::signers_of(const std::string& name, const std::vector<TestKey>& root_before) const {
  const TestRole& role = roles_.at(name);
  if (role.signers) {
    return *role.signers;
  }
  return name == "root" ? together(role.keys, root_before) : role.keys;
}

bool TufRepository::has_changed(const std::string& name) {
  const Published& last = published_[name];
  return name == "timestamp" || last.text.empty() || roles_.at(name).deface ||
         canonical_json(new_body(name)) != last.body || ids(signers_of(name, older_root_keys_)) != last.signers;
}

void TufRepository::publish_role(const std::string& name, bool raise) {
  if (raise && !has_changed(name)) {
    return;
  }
  TestRole& role = roles_.at(name);
  Published& last = published_[name];
  if (raise && role.version == last.version) {
    ++role.version;
  }
  if (name == "root" && role.version != last.version) {
    older_root_keys_ = std::exchange(root_keys_, role.keys);
  }
  const Json body = new_body(name);
  const std::vector<TestKey> signers = signers_of(name, older_root_keys_);
  last.version = role.version;
  last.body = canonical_json(body);
  last.signers = ids(signers);
  last.text = signed_document(body, pointers(signers));
  if (role.deface) {
    role.deface(last.text);
  }
  const bool versioned = name == "root" || (consistent && name != "timestamp");
  last.file = (versioned ? std::to_string(role.version) + "." : "") + name + ".json";
  metadata_[last.file] = last.text;
}

void TufRepository::publish_all(bool raise) {
  put_targets();
  publish_role("root", raise);
  for (const auto& [name, ignored] : roles_) {
    if (is_targets_role(name)) {
      publish_role(name, raise);
    }
  }
  publish_role("snapshot", raise);
  publish_role("timestamp", raise);
}

void TufRepository::put_targets() {
  for (const auto& [name, role] : roles_) {
    for (const auto& [path, content] : role.contents) {
      const auto described = role.targets.find(path);
      if (!consistent || described == role.targets.end() || !described->second.contains("hashes")) {
        target_files_[path] = content;
        continue;
      }
      for (const auto& [algorithm, value] : described->second.at("hashes").items()) {
        target_files_[with_name_prefix(path, value.get<std::string>() + ".")] = content;
      }
    }
  }
}

AnswerChange answers_with_status(long status) {
  return [status](const RepositoryRequest&, RepositoryAnswer& answer) { answer.status = status; };
}

AnswerChange answers_with(std::string body) {
  return [body = std::move(body)](const RepositoryRequest&, RepositoryAnswer& answer) {
    answer.status = 200;
    answer.body = body;
  };
}

AnswerChange answers_cut_to(std::size_t bytes) {
  return [bytes](const RepositoryRequest&, RepositoryAnswer& answer) { answer.body.resize(bytes); };
}

AnswerChange breaks_after(std::uint64_t bytes) {
  return [bytes](const RepositoryRequest&, RepositoryAnswer& answer) { answer.breaks_after = bytes; };
}

AnswerChange answers_from_the_start() {
  return [](const RepositoryRequest&, RepositoryAnswer& answer) { answer.from_the_start = true; };
}

AnswerChange fails_with_error(std::string code, std::string message) {
  return [code = std::move(code), message = std::move(message)](const RepositoryRequest&, RepositoryAnswer&) {
    fail(code, message);
  };
}

std::vector<std::string> RepositoryTransport::names() const {
  std::vector<std::string> names;
  for (const RepositoryRequest& request : requests_) {
    names.push_back(request.name);
  }
  return names;
}

RepositoryAnswer RepositoryTransport::ask(RepositoryRequest request, const TufRepository::Files& files) {
  requests_.push_back(request);
  if (before) {
    before(request);
  }
  require(connected, "network", "Could not connect to server");
  RepositoryAnswer answer;
  const auto file = files.find(request.name);
  if (file == files.end()) {
    answer.status = 404;
  } else {
    answer.body = file->second;
  }
  for (const AnswerChange& change : {by_name_[request.name], by_number_[requests_.size()]}) {
    if (change) {
      change(request, answer);
    }
  }
  require(answer.status < 300 || answer.status > 399, "redirect_rejected", "Server redirects are not permitted");
  return answer;
}

TransportResponse RepositoryTransport::in_memory(Kind kind, std::string_view name, std::uint64_t limit) {
  require(limit <= maximum_answer_in_memory, "size_limit", "In-memory response limit exceeds 16 MiB");
  RepositoryAnswer answer = ask({kind, std::string(name), limit}, repository_->metadata());
  require(answer.body.size() <= limit, "size_limit", "Server sent more than the authenticated size limit");
  return {answer.status, std::move(answer.body)};
}

TransportResponse RepositoryTransport::get(std::string_view path, std::uint64_t limit) {
  return in_memory(Kind::get, path, limit);
}

TransportResponse RepositoryTransport::get_component(std::string_view component, std::uint64_t limit) {
  require(!component.empty() && component.size() <= maximum_component && component != "." && component != "..",
          "size_limit", "Metadata filename exceeds its component bound");
  return in_memory(Kind::component, component, limit);
}

void RepositoryTransport::download(std::string_view path, const std::filesystem::path& destination, std::uint64_t size,
                                   const ProgressCallback& progress) {
  posix_files::private_directory(destination.parent_path());
  AllocatedFile file(destination, size, {});
  const RepositoryAnswer answer = ask({Kind::download, std::string(path), size}, repository_->target_files());
  require(answer.status == 200, "http_status", "Download failed with status " + std::to_string(answer.status));
  receive(answer, file, 0, progress, {});
  file.finish(true);
}

void RepositoryTransport::download_into(std::string_view path, AllocatedFile& file, std::uint64_t offset,
                                        const ProgressCallback& progress,
                                        const std::function<void(std::string_view)>& on_bytes,
                                        const std::function<void()>& on_restart) {
  if (!resumes) {
    Transport::download_into(path, file, offset, progress, on_bytes, on_restart);
  }
  require(offset == file.written() && offset <= file.size() && (offset == 0 || offset < file.size()), "download_range",
          "Download cursor differs from the recorded prefix");
  const RepositoryAnswer answer =
      ask({Kind::resume, std::string(path), file.size(), offset}, repository_->target_files());
  require(answer.status == 200, "http_status", "Download failed with status " + std::to_string(answer.status));
  if (answer.from_the_start && offset > 0) {
    file.restart();
    offset = 0;
    if (on_restart) {
      on_restart();
    }
  }
  receive(answer, file, offset, progress, on_bytes);
  require(file.written() == file.size(), "length_mismatch",
          "Download body is shorter than its authenticated response length");
}

void RepositoryTransport::receive(const RepositoryAnswer& answer, AllocatedFile& file, std::uint64_t offset,
                                  const ProgressCallback& progress,
                                  const std::function<void(std::string_view)>& on_bytes) {
  const std::uint64_t start = std::min<std::uint64_t>(offset, answer.body.size());
  std::string_view rest = std::string_view(answer.body).substr(start);
  const bool breaks = answer.breaks_after && *answer.breaks_after < rest.size();
  rest = breaks ? rest.substr(0, *answer.breaks_after) : rest;
  while (!rest.empty()) {
    const std::string_view bytes = rest.substr(0, piece);
    require(bytes.size() <= file.size() - file.written(), "size_limit", "Download exceeds its authenticated length");
    file.write(bytes);
    if (on_bytes) {
      on_bytes(bytes);
    }
    rest.remove_prefix(bytes.size());
    require(!progress || progress(file.written(), file.size()), "cancelled", "Transfer cancelled at a safe boundary");
  }
  require(!breaks, "network", "Transferred a partial file");
}

}  // namespace ravok::testing
