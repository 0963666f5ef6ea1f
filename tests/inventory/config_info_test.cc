// The Configuration record of fixture machines; release and memory from a fake.
#include "inventory/config_info.h"

#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>

#include "test_support.h"
#include "varlo/coding.h"

namespace {

using Wire = varlo::varlo_config::Bytes;

struct FakeSource : ConfigSource {
  std::optional<std::string> release = "6.1.0-18-amd64";
  std::uint64_t memory = 0;
  int memoryError = 0;
  std::optional<std::string> kernelRelease() override { return release; }
  int totalMemory(std::uint64_t& bytes) override {
    bytes = memory;  // to be ignored with an error
    return memoryError;
  }
};

Wire collect(const std::string& tree, const FakeSource& source) {
  const std::string root = VARLO_FIXTURES "/config/" + tree;
  CConfigInfo info(HostRoots{root + "/proc", root + "/sys"}, std::make_shared<FakeSource>(source));
  varlo::varlo_config record;
  info.getConfigData(record);
  return record.encode();
}

}  // namespace

TEST(ConfigInfo, WholeRecordOfACoreDuoIMac) {
  FakeSource source;
  source.memory = (8ull << 30) + (3ull << 20) + 5;  // 8195 MiB and change
  const Wire wire = collect("core-duo", source);
  Wire want{};
  // Each fact Linux has no source for (FPU 28, keyboard 36, bus clock 80) or
  // that never varies takes the value the console expects.
  for (const auto& [offset, value] : std::initializer_list<std::pair<int, std::uint32_t>>{
           {12, 1376}, {24, 600}, {28, 0xFFFFFFFE}, {36, 0xFFFFFFFF}, {40, 8195},
           {44, 352}, {48, 0xFFFFFFFE}, {52, 0xFFFFFFFF}, {56, 0xFFFFFFFF}, {60, 8195},
           {64, 0xFFFFFFFF}, {68, 0x0610}, {72, 1}, {76, 2000000000}, {80, 0xFFFFFFFF},
           {84, static_cast<std::uint32_t>(sysconf(_SC_NPROCESSORS_ONLN))}})
    varlo::putU32(want.data() + offset, value);
  std::copy_n("\x05" "6.1.0", 6, want.begin() + 128);
  std::copy_n("\x05" "Apple", 6, want.begin() + 160);
  for (std::size_t i = 0; i < want.size(); ++i)
    ASSERT_EQ(wire[i], want[i]) << "first difference at offset " << i;
}

TEST(ConfigInfo, VersionNumberAndTextAndTheirFallback) {
  const struct {
    std::optional<std::string> release;
    std::uint32_t number;
    const char* text;
  } cases[] = {
      {"6.18.44-fc-v657", 0x0699, "6.9.9"},  // minor and patch capped at 9
      {"5.15", 0x0590, "5.9.0"},
      {"10.4.11", 0x1049, "10.4.9"},  // two BCD digits of major
      {"0.9.1", 0x0091, "Unknown"},   // major 0
      {"6.00001.2", 0x0612, "6.1.2"},  // leading zeros are no digits of the number
      {"generic", 0x0000, "Unknown"},
      // A failed query: the fallback number is read back as 165.15.15.
      {std::nullopt, 0xFFFFFFFF, "Unknown165.15.15"},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.release.value_or("(failed)"));
    FakeSource source;
    source.release = k.release;
    const Wire wire = collect("xeon", source);
    EXPECT_EQ(varlo::getU32(wire.data() + 68), k.number);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&wire[129]), wire[128]), k.text);
  }
}

TEST(ConfigInfo, MemoryAboveFourGiBAndItsFailure) {
  test_support::LogCapture log;
  FakeSource source;
  source.memory = 25276510208ull;  // what sysinfo gives on a 24 GiB guest
  for (const int error : {0, ENOSYS}) {
    source.memoryError = error;
    const Wire wire = collect("xeon", source);
    EXPECT_EQ(varlo::getU32(wire.data() + 40), error == 0 ? 24105u : 0u);
    EXPECT_EQ(varlo::getU32(wire.data() + 60), error == 0 ? 24105u : 0u);
  }
  EXPECT_TRUE(log.contains("Error getting memory information.  Error: " + std::to_string(ENOSYS)));
}
