#include "platform/file/transaction_name.hpp"

#include <cstddef>

#include "domain/text_rules.hpp"

namespace ravok {

bool is_transaction_name(std::string_view name, std::string_view record) {
  constexpr std::string_view ending = ".tmp";
  constexpr std::size_t characters = 32;
  return name.size() == record.size() + 1 + characters + ending.size() && name.starts_with(record) &&
         name[record.size()] == '.' && is_lower_hex(name.substr(record.size() + 1, characters)) &&
         name.ends_with(ending);
}

}  // namespace ravok
