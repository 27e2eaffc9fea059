// The list of what is to be uploaded of a repository, in the order in which it must be: no file comes before one that
// it refers to, and the timestamp is last.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "publisher/repository/repository_folder.hpp"

namespace ravok {

// Adds files to the list, one path below the public folder each, before the next state of the repository appears: so
// wherever its publication is broken off, the list names all that is to be uploaded. Lines that are there stay while
// the present state or the next one needs their files: whoever has uploaded the files removes the list. A list that
// cannot be read or ends in the middle is lost, and one of all files of both states takes its place. Fails as
// replace_file does.
void add_to_upload_list(const RepositoryFolder& folder, const std::vector<std::string>& files,
                        const RepositoryState& present, const RepositoryState& next);

// Returns the lines of a list; none of one that is not there or is lost.
std::vector<std::string> upload_lines(const std::filesystem::path& list);

// Removes the lines of files that the state needs no more. Fails as replace_file and remove_file do, and then the list
// names too much.
void tidy_upload_list(const RepositoryFolder& folder, const RepositoryState& state);

// Returns the paths of a document and of a target's file below the public folder.
std::string uploaded_document(const std::string& file);
std::string uploaded_target(const std::string& path, const std::string& sha256);

}  // namespace ravok
