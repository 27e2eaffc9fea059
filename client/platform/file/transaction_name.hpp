// The names of the transaction files that the writes of files.hpp make and that an ended process leaves.
#pragma once

#include <string>
#include <string_view>

namespace ravok {

// Returns a name for a transaction file of a write of this record that no other has: the record's name, a dot, 32
// lower-case hexadecimal characters and ".tmp". Fails as random_id does.
std::string transaction_name(std::string_view record);

// Whether `name` is that of a transaction file of a write of this record. Touches no file.
bool is_transaction_name(std::string_view name, std::string_view record);

// Returns the name of the record that a transaction file of this name was to become, or an empty text for any other
// name. Touches no file.
std::string_view transaction_record(std::string_view name);

}  // namespace ravok
