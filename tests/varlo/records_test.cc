#include "varlo/records.h"

#include "test_support.h"

using namespace varlo;

TEST(Records, PascalStringNeverLeavesItsField) {
  WireRecord<8> r{};
  using Small = Field<2, 4>;
  putPString<Small>(r, "abcdef");  // cut to the field: a count byte and three characters
  EXPECT_EQ(r[2], 3);
  EXPECT_EQ(getPString<Small>(r), "abc");
  EXPECT_EQ(r[6], 0);
  r[2] = 200;  // a lying count byte from the network
  EXPECT_EQ(getPString<Small>(r), "abc");
}
