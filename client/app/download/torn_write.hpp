// Recognises what an atomic write leaves when it dies half-way: the first bytes of a record that this system writes,
// compact and with its keys in order, so that every one begins with `{"authorization":`.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "domain/json.hpp"

namespace ravok {

// Whether the text can be the start of a receipt. One that shows another kind or a later schema is not.
bool initial_write_prefix(std::string_view text);

// Whether the text can be the start of any record of this system.
bool is_record_start(std::string_view text);

// Whether the text is the start of a checkpoint, or all of one, of the download that the receipt describes. The
// identity of its partial file may be any, unless one is given.
bool is_resume_write_start(std::string_view text, const Json& receipt, const std::optional<Json>& identity);

}  // namespace ravok
