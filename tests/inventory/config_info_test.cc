#include "inventory/config_info.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>

#include "test_support.h"
#include "varlo/coding.h"

namespace {

const std::string kTrees = VARLO_FIXTURES "/config/";

class FakeSource : public ConfigSource {
 public:
  std::optional<std::string> release = "6.1.0-18-amd64";
  std::uint64_t memory = 0;
  int memoryError = 0;

  std::optional<std::string> kernelRelease() override { return release; }
  int totalMemory(std::uint64_t& bytes) override {
    if (memoryError != 0) return memoryError;
    bytes = memory;
    return 0;
  }
};

struct Collected {
  varlo::varlo_config record;
  varlo::varlo_config::Bytes wire;
};

Collected collect(const std::string& tree, const std::shared_ptr<FakeSource>& source) {
  CConfigInfo info(HostRoots{kTrees + tree + "/proc", kTrees + tree + "/sys"}, source);
  Collected c;
  c.record.osVersionText = "stale";  // the whole record is rebuilt
  info.getConfigData(c.record);
  c.wire = c.record.encode();
  return c;
}

void put(varlo::varlo_config::Bytes& r, std::size_t offset, std::uint32_t v) {
  varlo::putU32(r.data() + offset, v);
}

void putText(varlo::varlo_config::Bytes& r, std::size_t offset, const std::string& text) {
  r[offset] = static_cast<std::uint8_t>(text.size());
  std::copy(text.begin(), text.end(), r.begin() + static_cast<std::ptrdiff_t>(offset) + 1);
}

std::string textAt(const varlo::varlo_config::Bytes& r, std::size_t offset) {
  return std::string(reinterpret_cast<const char*>(r.data()) + offset + 1, r[offset]);
}

TEST(ConfigInfo, WholeRecordOfACoreDuoIMac) {
  auto source = std::make_shared<FakeSource>();
  source->memory = (8ull << 30) + (3ull << 20) + 5;  // 8195 MiB and change
  const Collected c = collect("core-duo", source);
  static_assert(sizeof(c.wire) == 1272);

  varlo::varlo_config::Bytes want{};
  put(want, 12, 1376);
  put(want, 24, 600);
  put(want, 28, 0xFFFFFFFE);  // no FPU code on Linux
  put(want, 32, 0);
  put(want, 36, 0xFFFFFFFF);  // no keyboard code
  put(want, 40, 8195);
  put(want, 44, 352);  // "iMac4,1"
  put(want, 48, 0xFFFFFFFE);
  put(want, 52, 0xFFFFFFFF);
  put(want, 56, 0xFFFFFFFF);
  put(want, 60, 8195);
  put(want, 64, 0xFFFFFFFF);
  put(want, 68, 0x0610);
  put(want, 72, 1);
  put(want, 76, 2000000000);
  put(want, 80, 0xFFFFFFFF);  // no bus clock
  put(want, 84, static_cast<std::uint32_t>(sysconf(_SC_NPROCESSORS_ONLN)));
  putText(want, 128, "6.1.0");
  putText(want, 160, "Apple");

  for (std::size_t i = 0; i < want.size(); ++i)
    ASSERT_EQ(c.wire[i], want[i]) << "first difference at offset " << i;
}

TEST(ConfigInfo, VersionNumberAndText) {
  const struct {
    std::optional<std::string> release;
    std::uint32_t number;
    const char* text;
  } cases[] = {
      {"6.1.0-18-amd64", 0x0610, "6.1.0"},
      {"6.18.44-fc-v657", 0x0699, "6.9.9"},  // minor and patch capped at 9
      {"5.15", 0x0590, "5.9.0"},
      {"4.19.0+", 0x0490, "4.9.0"},
      {"10.4.11", 0x1049, "10.4.9"},  // two BCD digits of major
      {"0.9.1", 0x0091, "Unknown"},   // major 0
      {"6.00001.2", 0x0612, "6.1.2"},  // leading zeros are no digits of the number
      {"generic", 0x0000, "Unknown"},
      {"", 0x0000, "Unknown"},
      // A failed query: the fallback number is read back as 165.15.15.
      {std::nullopt, 0xFFFFFFFF, "Unknown165.15.15"},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.release.value_or("(failed)"));
    auto source = std::make_shared<FakeSource>();
    source->release = k.release;
    const Collected c = collect("xeon", source);
    EXPECT_EQ(varlo::getU32(c.wire.data() + 68), k.number);
    EXPECT_EQ(textAt(c.wire, 128), k.text);
  }
}

TEST(ConfigInfo, MemoryAboveFourGiBAndItsFailure) {
  auto source = std::make_shared<FakeSource>();
  source->memory = 25276510208ull;  // what sysinfo gives on a 24 GiB guest
  Collected c = collect("xeon", source);
  EXPECT_EQ(varlo::getU32(c.wire.data() + 60), 24105u);
  EXPECT_EQ(varlo::getU32(c.wire.data() + 40), 24105u);

  test_support::LogCapture log;
  source->memoryError = ENOSYS;
  CConfigInfo info(HostRoots{kTrees + "xeon/proc", kTrees + "xeon/sys"}, source);
  CConfigInfo::meminfo mem{7, 9};
  EXPECT_EQ(info.getMemoryInfo(mem), -1);
  EXPECT_EQ(mem.physical_bytes, 7u);
  EXPECT_EQ(mem.logical_bytes, 9u);
  EXPECT_TRUE(log.contains("Error getting memory information.  Error: " + std::to_string(ENOSYS)));

  c = collect("xeon", source);
  EXPECT_EQ(varlo::getU32(c.wire.data() + 60), 0u);
  EXPECT_EQ(varlo::getU32(c.wire.data() + 40), 0u);
  EXPECT_EQ(textAt(c.wire, 160), "Apple");  // nothing else in the record depends on it
}

TEST(ConfigRecord, TextFieldsOnTheWire) {
  varlo::varlo_config rec;
  rec.cpuBrand = "Intel(R) Core(TM) Duo CPU      T2450  @ 2.00GHz!";  // 48 characters
  rec.osVersionText = std::string(40, 'v');
  rec.manufacturer = "Apple";
  const auto wire = rec.encode();

  // The brand's characters are there, but its length byte stays 0.
  EXPECT_EQ(wire[224], 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(wire.data()) + 225, 47),
            rec.cpuBrand.substr(0, 47));
  EXPECT_EQ(textAt(wire, 128), std::string(31, 'v'));
  EXPECT_EQ(wire[160], 5);

  const auto back = varlo::varlo_config::decode(wire);
  EXPECT_EQ(back.cpuBrand, rec.cpuBrand.substr(0, 47));
  EXPECT_EQ(back.osVersionText, std::string(31, 'v'));

  // Nothing written behind a zero length byte when there is no brand.
  rec.cpuBrand.clear();
  const auto bare = rec.encode();
  for (std::size_t i = 224; i < bare.size(); ++i) ASSERT_EQ(bare[i], 0) << i;
}

TEST(ConfigRecord, DecodeReadsWhatEncodeWrote) {
  auto source = std::make_shared<FakeSource>();
  source->memory = 6ull << 30;
  varlo::varlo_config rec = collect("core-i7", source).record;
  rec.prefix = {varlo::kConfigurationCommand, true, true, 0};
  const auto wire = rec.encode();
  EXPECT_EQ(wire[1], 1);  // the prefix is the record's first bytes
  EXPECT_EQ(varlo::varlo_config::decode(wire).encode(), wire);
  const auto back = varlo::varlo_config::decode(wire);
  EXPECT_EQ(back.cpuType, 601);
  EXPECT_EQ(back.fpuType, -2);
  EXPECT_EQ(back.cpuSpeedHz, 0xFFFFFFFFu);
  EXPECT_EQ(back.physicalRamMb, 6144u);
  EXPECT_EQ(back.manufacturer, "Apple");
}

}  // namespace
