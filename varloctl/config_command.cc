#include "varloctl/config_command.h"

#include <cstdio>

namespace varloctl {
namespace {

// The version as its BCD nibbles read: 0x0610 for 6.1.0.
std::string hex4(std::uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%04x", v);
  return buf;
}

}  // namespace

std::unique_ptr<Command> ConfigCommand::make(const std::vector<std::string>&) {
  return std::make_unique<ConfigCommand>();
}

Value ConfigCommand::run(Session& session) {
  const auto r = receiveFirstReply<varlo::varlo_config::kSize>(session);
  requireSuccess(r, "the agent could not read its configuration");
  return describe(varlo::varlo_config::decode(r), withFixedFields_);
}

Value ConfigCommand::describe(const varlo::varlo_config& c, bool withFixedFields) {
  Value v = Value::object();
  v["cpu_type"] = c.cpuType;
  v["cpu_count"] = c.cpuCount;
  v["cpu_speed_mhz"] = (std::int64_t{c.cpuSpeedHz} + 500000) / 1000000;
  v["machine_type"] = c.machineType;
  v["physical_ram_mib"] = c.physicalRamMb;
  v["logical_ram_mib"] = c.logicalRamMb;
  v["os_version"] = hex4(c.systemVersion);
  v["os_version_text"] = c.osVersionText;
  v["manufacturer"] = c.manufacturer;
  if (!withFixedFields) return v;
  v["cpu_speed_hz"] = c.cpuSpeedHz;
  v["bus_speed_hz"] = c.busSpeedHz;
  v["fpu_type"] = c.fpuType;
  v["keyboard_type"] = c.keyboardType;
  v["cpu_brand"] = c.cpuBrand;
  v["record_tag"] = c.recordTag;
  v["fixed_32"] = c.fixed32;
  v["fixed_48"] = c.fixed48;
  v["fixed_52"] = c.fixed52;
  v["fixed_56"] = c.fixed56;
  v["fixed_64"] = c.fixed64;
  v["fixed_72"] = c.fixed72;
  return v;
}

}  // namespace varloctl
