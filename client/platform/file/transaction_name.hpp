// The names of the transaction files that the writes of files.hpp make and that an ended process leaves.
#pragma once

#include <string_view>

namespace ravok {

// Whether `name` is that of a transaction file of a write of this record: the record's name, a dot, 32 lower-case
// hexadecimal characters and ".tmp". Touches no file.
bool is_transaction_name(std::string_view name, std::string_view record);

}  // namespace ravok
