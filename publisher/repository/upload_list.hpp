// The list of what is to be uploaded of a repository, in the order in which it must be: no file comes before one that
// it refers to, and the timestamp is last.
#pragma once

#include <string>
#include <vector>

#include "publisher/repository/repository_folder.hpp"

namespace ravok {

// Adds files to the list, one path below the public folder each. Lines that are there stay: whoever has uploaded the
// files removes the list. Those of files that the repository needs no more go. Fails as read_file and replace_file do.
void add_to_upload_list(const RepositoryFolder& folder, const std::vector<std::string>& files);

// The same for a state that is about to be published.
void add_to_upload_list(const RepositoryFolder& folder, const std::vector<std::string>& files,
                        const RepositoryState& state);

// Returns the paths of a document and of a target's file below the public folder.
std::string uploaded_document(const std::string& file);
std::string uploaded_target(const std::string& path, const std::string& sha256);

}  // namespace ravok
