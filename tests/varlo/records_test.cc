#include "varlo/records.h"

#include <vector>

#include "test_support.h"

using namespace varlo;

namespace {

template <std::size_t N>
std::vector<std::uint8_t> head(const WireRecord<N>& r, std::size_t n) {
  return {r.begin(), r.begin() + n};
}

}  // namespace

TEST(Coding, IntegersAreBigEndianAtTheirOffsets) {
  std::uint8_t b[8] = {};
  putU16(b, 0x0102);
  EXPECT_EQ(b[0], 0x01);
  EXPECT_EQ(b[1], 0x02);
  putU32(b, 0xA1B2C3D4);
  EXPECT_EQ(std::vector<std::uint8_t>(b, b + 4), (std::vector<std::uint8_t>{0xA1, 0xB2, 0xC3, 0xD4}));
  EXPECT_EQ(getU32(b), 0xA1B2C3D4u);
  putU64(b, 0x0102030405060708ull);
  EXPECT_EQ(b[7], 0x08);
  EXPECT_EQ(getU64(b), 0x0102030405060708ull);
}

TEST(Records, AcknowledgementsAsTheConsoleReadsThem) {
  const auto good = varlo_manage::acknowledgement(true);
  static_assert(std::tuple_size_v<decltype(good)> == 324);
  EXPECT_EQ(head(good, 5), (std::vector<std::uint8_t>{0x00, 0x00, 0x01, 0x01, 0x00}));
  EXPECT_EQ(std::count(good.begin() + 5, good.end(), 0), 324 - 5);

  const auto bad = varlo_manage::acknowledgement(false, "Invalid file name");
  EXPECT_EQ(head(bad, 5), (std::vector<std::uint8_t>{0x00, 0x00, 0x00, 0x01, 0x00}));
  EXPECT_EQ(bad[68], 17);
  EXPECT_EQ(std::string(bad.begin() + 69, bad.begin() + 86), "Invalid file name");
  EXPECT_EQ(bad[86], 0);

  // A message longer than the field is cut to its 255 characters.
  const auto cut = varlo_manage::acknowledgement(false, std::string(400, 'x'));
  EXPECT_EQ(cut[68], 255);
  EXPECT_EQ(getPString<varlo_manage::Message>(cut), std::string(255, 'x'));
}

TEST(Records, HeaderAndListHeaderLayouts) {
  const varlo_cmd_header::Bytes wire = {0x00, 0x0C, 0xAA, 0xBB, 1, 2, 3, 4, 5, 6, 7, 8};
  const auto h = varlo_cmd_header::decode(wire);
  EXPECT_EQ(h.command, 12);
  EXPECT_EQ(h.passwordBlock, (std::array<std::uint8_t, 8>{1, 2, 3, 4, 5, 6, 7, 8}));
  auto again = h.encode();
  EXPECT_EQ(again[2], 0);  // reserved bytes are not kept

  varlo_list_header list{ReplyPrefix{3, true, false, 0}, 0x01020304, 10};
  const auto bytes = list.encode();
  EXPECT_EQ(std::vector<std::uint8_t>(bytes.begin(), bytes.end()),
            (std::vector<std::uint8_t>{0x00, 0x03, 0x01, 0x00, 0x00, 0, 0, 0, 0x01, 0x02, 0x03, 0x04,
                                       0x00, 0x0A}));
  const auto back = varlo_list_header::decode(bytes);
  EXPECT_EQ(back.prefix.command, 3);
  EXPECT_TRUE(back.prefix.success);
  EXPECT_FALSE(back.prefix.last);
  EXPECT_EQ(back.word, 0x01020304u);
  EXPECT_EQ(back.count, 10);
}

TEST(Records, PascalStringReadNeverLeavesItsField) {
  WireRecord<8> r{};
  using Small = Field<2, 4>;
  putPString<Small>(r, "abcdef");
  EXPECT_EQ(r[2], 3);
  EXPECT_EQ(getPString<Small>(r), "abc");
  EXPECT_EQ(r[6], 0);
  r[2] = 200;  // a lying length byte from the network
  EXPECT_EQ(getPString<Small>(r), "abc");
}
