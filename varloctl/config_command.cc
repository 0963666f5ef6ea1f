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
  v.add("cpu_type", Value::integer(c.cpuType));
  v.add("cpu_count", Value::integer(c.cpuCount));
  v.add("cpu_speed_mhz", Value::integer((std::int64_t{c.cpuSpeedHz} + 500000) / 1000000));
  v.add("machine_type", Value::integer(c.machineType));
  v.add("physical_ram_mib", Value::integer(c.physicalRamMb));
  v.add("logical_ram_mib", Value::integer(c.logicalRamMb));
  v.add("os_version", Value::string(hex4(c.systemVersion)));
  v.add("os_version_text", Value::string(c.osVersionText));
  v.add("manufacturer", Value::string(c.manufacturer));
  if (!withFixedFields) return v;
  v.add("cpu_speed_hz", Value::integer(c.cpuSpeedHz));
  v.add("bus_speed_hz", Value::integer(c.busSpeedHz));
  v.add("fpu_type", Value::integer(c.fpuType));
  v.add("keyboard_type", Value::integer(c.keyboardType));
  v.add("cpu_brand", Value::string(c.cpuBrand));
  v.add("record_tag", Value::integer(c.recordTag));
  v.add("fixed_32", Value::integer(c.fixed32));
  v.add("fixed_48", Value::integer(c.fixed48));
  v.add("fixed_52", Value::integer(c.fixed52));
  v.add("fixed_56", Value::integer(c.fixed56));
  v.add("fixed_64", Value::integer(c.fixed64));
  v.add("fixed_72", Value::integer(c.fixed72));
  return v;
}

}  // namespace varloctl
