# Writes the source that tells a program's commit, and leaves alone one that tells it already.
#
#   cmake -DROOT=DIR -DCOMMIT=COMMIT -DOUTPUT=FILE -P WriteCommit.cmake
#
# ROOT is the tree of sources. Git is asked where it is a repository of its own, not where it merely lies in another, whose
# commits say nothing of it. COMMIT is told instead, unless it is empty.
cmake_minimum_required(VERSION 3.25)

set(commit "${COMMIT}")
find_program(RAVOK_GIT git)
if(NOT commit AND RAVOK_GIT AND EXISTS "${ROOT}/.git")
  execute_process(
    # A hook of another repository may be what builds this tree.
    COMMAND "${CMAKE_COMMAND}" -E env --unset=GIT_DIR --unset=GIT_WORK_TREE --unset=GIT_INDEX_FILE
            --unset=GIT_COMMON_DIR --unset=GIT_OBJECT_DIRECTORY
            --unset=GIT_ALTERNATE_OBJECT_DIRECTORIES --unset=GIT_CEILING_DIRECTORIES GIT_OPTIONAL_LOCKS=0
            "${RAVOK_GIT}" -C "${ROOT}" describe --always --abbrev=40 --exclude=* --dirty=-modified
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT commit MATCHES "^[0-9a-f]+(-modified)?$")
  set(commit "")
endif()

set(source "#include \"app/command/program_commit.hpp\"\n
namespace ravok {\n
std::string_view program_commit() { return \"${commit}\"; }\n
}  // namespace ravok\n")
set(former "")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" former)
endif()
if(NOT source STREQUAL former)
  file(WRITE "${OUTPUT}" "${source}")
endif()
