// varloctl's config command against a scripted peer on 127.0.0.1.
#include <gtest/gtest.h>

#include "varlo/config_record.h"
#include "varloctl/config_command.h"
#include "varloctl/json_writer.h"
#include "varloctl/password_block.h"
#include "varloctl/resolver.h"
#include "varloctl/session.h"
#include "varloctl/table_writer.h"
#include "varloctl_fake_agent.h"

using namespace varloctl_test;

namespace {

Bytes wire(const varlo::varlo_config& c) {
  const auto r = c.encode();
  return Bytes(r.begin(), r.end());
}

varloctl::Value ask(const Bytes& reply, bool json) {
  const auto header = varloctl::PasswordBlock::header(1, "secret");
  FakeAgent agent({FakeAgent::expect(Bytes(header.begin(), header.end())),
                   FakeAgent::send(reply)});
  varloctl::Value v;
  {
    varloctl::Session session = varloctl::Session::open(
        varloctl::resolveIPv4("127.0.0.1", agent.port()), "agent", 2000);
    session.send(header);
    varloctl::ConfigCommand command;
    command.setJson(json);
    v = command.run(session);
  }  // hanging up ends the peer's script
  agent.join();
  EXPECT_EQ(agent.mismatch(), "");
  return v;
}

varlo::varlo_config sample() {
  varlo::varlo_config c;
  c.prefix = {1, true, true, 0};
  c.recordTag = 1376;
  c.cpuType = 601;
  c.fpuType = -2;
  c.keyboardType = -1;
  c.logicalRamMb = 24105;
  c.machineType = 351;
  c.fixed48 = -2;
  c.fixed52 = c.fixed56 = c.fixed64 = -1;
  c.physicalRamMb = 24105;
  c.systemVersion = 0x0610;
  c.fixed72 = 1;
  c.cpuSpeedHz = 2299998000u;
  c.busSpeedHz = 0xFFFFFFFF;
  c.cpuCount = 2;
  c.osVersionText = "6.1.0";
  c.manufacturer = "Apple";
  return c;
}

TEST(VarloctlConfig, TableShowsTheMachine) {
  EXPECT_EQ(varloctl::TableWriter::write(ask(wire(sample()), false)),
            "cpu type          601\n"
            "cpu count         2\n"
            "cpu speed mhz     2300\n"
            "machine type      351\n"
            "physical ram mib  24105\n"
            "logical ram mib   24105\n"
            "os version        0x0610\n"
            "os version text   6.1.0\n"
            "manufacturer      Apple\n");
}

TEST(VarloctlConfig, JsonAddsTheFixedFields) {
  varlo::varlo_config c = sample();
  c.systemVersion = 0xFFFFFFFF;
  c.osVersionText = "Unknown165.15.15";
  const std::string json = varloctl::JsonWriter::write(ask(wire(c), true));
  for (const char* member :
       {"\"os_version\": \"0xffffffff\"", "\"os_version_text\": \"Unknown165.15.15\"",
        "\"bus_speed_hz\": 4294967295", "\"fpu_type\": -2", "\"keyboard_type\": -1",
        "\"record_tag\": 1376", "\"fixed_48\": -2", "\"fixed_52\": -1", "\"fixed_72\": 1",
        "\"cpu_brand\": \"\""})
    EXPECT_NE(json.find(member), std::string::npos) << member << " in\n" << json;
}

}  // namespace
