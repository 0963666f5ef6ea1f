// Registry data rendered as text or as hex.
#include "inventory/cf_data_assemble.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string render(const std::vector<std::uint8_t>& data) {
  std::array<char, 255> out;
  out.fill('?');
  CFDataAssemble(data, out);
  return std::string(out.data());
}

std::vector<std::uint8_t> bytes(const std::string& s) { return {s.begin(), s.end()}; }

}  // namespace

TEST(CFDataAssemble, NumbersAndBinaryBecomeHex) {
  EXPECT_EQ(render({0x00, 0x00, 0x10, 0x6B}), "0000106b");  // a vendor-id
  EXPECT_EQ(render({0x00, 0x00, 0x80, 0x86}), "00008086");  // nothing printable
  EXPECT_EQ(render({0x00, 0x00, 0x00, 0x00}), "00000000");
  EXPECT_EQ(render(bytes("A")), "41");                       // a lone byte
  EXPECT_EQ(render(bytes("ab\n")), "61620a");                // a control character
  EXPECT_EQ(render({'a', 'b', 'c', 0xFF}), "616263ff");
  EXPECT_EQ(render({}), "");
}

TEST(CFDataAssemble, TextRunsAreJoinedUntilTwoZeros) {
  EXPECT_EQ(render(bytes(std::string("SLOT-1\0", 7))), "SLOT-1");
  EXPECT_EQ(render(bytes(std::string("A1\0B2\0", 6))), "A1,B2");
  EXPECT_EQ(render(bytes(std::string("A1\0B2", 5))), "A1,B2");
  EXPECT_EQ(render(bytes(std::string("A1\0\0B2", 6))), "A1");
  EXPECT_EQ(render(bytes(std::string("\0AB", 3))), "");
}

TEST(CFDataAssemble, ExtendedCharactersUpToAQuarterOfThePrintableOnes) {
  // 8 printable: 2 extended still text, 3 not; 7 printable: 2 already too many.
  EXPECT_EQ(render(bytes("abcdefgh\x80\x81")), "abcdefgh\x80\x81");
  EXPECT_EQ(render(bytes("abcdefgh\x80\x81\x82")), "6162636465666768808182");
  EXPECT_EQ(render(bytes("abcdefg\x80\x81")), "61626364656667" "8081");
}

TEST(CFDataAssemble, OutputStopsAt254Characters) {
  std::string hex;
  for (int i = 0; i < 127; ++i) hex += "01";
  EXPECT_EQ(render(std::vector<std::uint8_t>(200, 0x01)), hex);
  EXPECT_EQ(render(std::vector<std::uint8_t>(300, 'x')), std::string(254, 'x'));
}
