// The shortcuts of macOS: small documents of the program's own type, which a registered application opens.
// What a document says is proved again when it is opened.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "domain/json.hpp"
#include "platform/shortcut/shortcut_rules.hpp"

namespace ravok {

// Returns the text of a launch document, at most 32,768 bytes. Fails with "shortcut_text", "size_limit",
// and as validate_identifier does.
std::string macos_launch_document(const DesktopShortcut& shortcut);

// Returns what a launch document asks for. Fails with "shortcut_document", "unsupported_schema",
// "shortcut_text", "shortcut_path", and as parse_json and validate_identifier do.
DesktopShortcut parse_macos_launch_document(std::string_view text);

// Proves all that a new launch document needs, registers the application that opens it, and writes nothing. Fails with
// "shortcut_path", "already_exists", and as macos_launch_document and register_macos_shortcut_handler do.
shortcut_rules::NewFile prove_macos_launch_document(const DesktopShortcut& shortcut, const std::filesystem::path& path,
                                                    shortcut_rules::Taken taken);

// Writes a new launch document, whose name nothing may have yet, and returns the document that describes it. Fails as
// prove_macos_launch_document does, and with "insufficient_space", "file_write" or "file_sync"; then there is no new
// file.
Json create_macos_launch_document(const DesktopShortcut& shortcut, const std::filesystem::path& path);

// Registers the application beside the stable bootstrap as the one that opens launch documents. Fails with
// "shortcut_bootstrap", "shortcut_path" or "shortcut_api".
void register_macos_shortcut_handler(const std::filesystem::path& bootstrap);

}  // namespace ravok
