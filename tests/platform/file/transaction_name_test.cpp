#include "platform/file/transaction_name.hpp"

#include <string>

#include <gtest/gtest.h>

namespace ravok {
namespace {

const std::string random_part(32, 'a');

TEST(TransactionName, IsMadeAnewForEveryWrite) {
  const std::string name = transaction_name("record.json");
  EXPECT_TRUE(is_transaction_name(name, "record.json")) << name;
  EXPECT_NE(transaction_name("record.json"), name);
}

TEST(TransactionName, TellsTheNameOfItsRecord) {
  EXPECT_EQ(transaction_record(transaction_name("record.json")), "record.json");
  EXPECT_EQ(transaction_record(transaction_name(transaction_name("record.json"))).size(), 48u);
  for (const std::string& name :
       {std::string(), "." + random_part + ".tmp", random_part + ".tmp", "record.json_" + random_part + ".tmp",
        "record.json." + random_part, std::string("record.json")}) {
    EXPECT_EQ(transaction_record(name), "") << name;
  }
}

TEST(TransactionName, IsTheRecordsNameWithARandomEnding) {
  EXPECT_TRUE(is_transaction_name("record.json." + random_part + ".tmp", "record.json"));
  EXPECT_TRUE(is_transaction_name("." + random_part + ".tmp", ""));
}

TEST(TransactionName, IsNoOther) {
  for (const std::string& name :
       {std::string("record.json"), std::string(), "record.json." + random_part, "record.json" + random_part + ".tmp",
        "record.json_" + random_part + ".tmp", "record.json." + random_part + ".tmp2",
        "record.json." + random_part + "_tmp", "record.json." + random_part + "a.tmp",
        "record.json." + random_part.substr(1) + ".tmp", "record.json." + random_part.substr(1) + "A.tmp",
        "record.json." + random_part.substr(1) + "g.tmp", "other.json1." + random_part + ".tmp",
        "record.jsom." + random_part + ".tmp"}) {
    EXPECT_FALSE(is_transaction_name(name, "record.json")) << name;
  }
}

}  // namespace
}  // namespace ravok
