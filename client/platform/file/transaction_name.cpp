#include "platform/file/transaction_name.hpp"

#include <algorithm>
#include <cstddef>

#include "domain/crypto.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::string_view transaction_ending = ".tmp";
constexpr std::size_t random_characters = 32;
constexpr std::size_t added_characters = 1 + random_characters + transaction_ending.size();

}  // namespace

std::string transaction_name(std::string_view record) {
  return std::string(record) + "." + random_id() + std::string(transaction_ending);
}

bool is_transaction_name(std::string_view name, std::string_view record) {
  return name.size() == record.size() + added_characters && name.starts_with(record) && name[record.size()] == '.' &&
         is_lower_hex(name.substr(record.size() + 1, random_characters)) && name.ends_with(transaction_ending);
}

std::string_view transaction_record(std::string_view name) {
  const std::string_view record = name.substr(0, name.size() - std::min(name.size(), added_characters));
  return is_transaction_name(name, record) ? record : std::string_view();
}

}  // namespace ravok
