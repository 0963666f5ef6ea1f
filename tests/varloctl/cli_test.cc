// varloctl's command line and JSON strings, without a network.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "varloctl/arg_parser.h"
#include "varloctl/ctl_error.h"
#include "varloctl/json_writer.h"

using namespace varloctl;

namespace {

using Args = std::vector<std::string>;

// What parsing args makes of them, in one line; or the usage error.
std::string parsed(const Args& args, const std::optional<std::string>& env = std::nullopt) {
  try {
    const Invocation inv = ArgParser::parse(args, env);
    const char* mode[] = {"print", "discover", "command"};
    return std::string(mode[static_cast<int>(inv.mode)]) + " " + inv.target + ":" +
           std::to_string(inv.port) + " " + std::to_string(inv.timeoutMs) +
           "ms pw=" + inv.password + (inv.json ? " json" : "") +
           (inv.broadcast ? " broadcast" : "") + (inv.hostsOnly ? " hosts-only" : "") +
           (inv.fleet ? " fleet/" + std::to_string(inv.parallel) : "") +
           (inv.command ? " code=" + std::to_string(inv.command->code()) : "");
  } catch (const CtlError& e) {
    EXPECT_EQ(e.status(), kUsage) << e.what();
    return std::string("error: ") + e.what();
  }
}

}  // namespace

TEST(VarloctlArgs, WhatTheCommandLineComesTo) {
  const struct {
    Args args;
    std::string want;  // the whole invocation, or how the usage error starts
    std::optional<std::string> env = std::nullopt;
  } cases[] = {
      // After "--" a word that starts with a dash is text; 255 bytes fit.
      {{"h", "notes", "set", "9", "--", "-" + std::string(254, 'x')},
       "command h:4347 10000ms pw= code=21"},
      // Options after the words, --name=value; --password beats the environment.
      {{"h", "password", "seven77", "--password=1234567", "--timeout=0.25", "--port", "9000",
        "--json"},
       "command h:9000 250ms pw=1234567 json code=17",
       "fromenv"},
      {{"h", "dbkey", "0xFFFFFFFF"}, "command h:4347 10000ms pw=fromenv code=33", "fromenv"},
      {{"h", "apps"}, "command h:4347 10000ms pw= code=6"},
      {{"h", "controls"}, "command h:4347 10000ms pw= code=7"},
      {{"h", "extensions"}, "command h:4347 10000ms pw= code=8"},
      {{"h", "fonts"}, "command h:4347 10000ms pw= code=9"},
      {{"h", "services"}, "command h:4347 10000ms pw= code=10"},
      {{"h", "census"}, "command h:4347 10000ms pw= code=23"},
      {{"--days=3650", "h", "profiler"}, "command h:4347 10000ms pw= code=30"},
      {{"h", "census", "--days", "3651"},
       "error: the number of days (--days) must be a number from 0 to 3650"},
      {{"h", "census", "--days", "-1"}, "error: the number of days (--days) must be a number"},
      {{"h", "profiler", "--days", "1.5"}, "error: the number of days (--days) must be a number"},
      {{"h", "profiler", "--days="},
       "error: --days: 1 required N missing (see varloctl profiler --help)"},
      {{"h", "census", "--days", "99999999999999999999"},
       "error: the number of days (--days) must be a number"},
      {{"h", "census", "--days"}, "error: --days: 1 required N missing"},
      {{"h", "fonts", "--days", "3"}, "error: --days applies to census and profiler only"},
      {{"discover", "--days", "3"}, "error: --days applies to census and profiler only"},
      {{"h", "census", "7"},
       "error: unexpected argument '7' after census (see varloctl census --help)"},
      {{"discover"}, "discover 255.255.255.255:4347 2000ms pw= broadcast"},
      {{"discover", "10.1.2.3", "--timeout", "3"}, "discover 10.1.2.3:4347 3000ms pw="},
      {{"h", "bogus", "--help"}, "print :0 10000ms pw="},
      {{"--version", "h", "network"}, "print :0 10000ms pw="},
      // A command's options may come before it; given twice they are refused.
      {{"--days", "7", "h", "census"}, "command h:4347 10000ms pw= code=23"},
      {{"--days", "7", "h", "census", "--days=8"}, "error: --days is given twice"},
      {{"h", "census", "--days", "7", "--days=8"}, "error: --days: At Most 1 required"},
      // Only the syntax makes a fleet, not the number of hosts.
      {{"--parallel", "1024", "a,b", "config"}, "command a,b:4347 10000ms pw= fleet/1024 code=1"},
      {{"@hosts", "config"}, "command @hosts:4347 10000ms pw= fleet/32 code=1"},
      {{"10.0.0.0/30", "config", "--parallel=7"},
       "command 10.0.0.0/30:4347 10000ms pw= fleet/7 code=1"},
      {{"--parallel", "0", "a,b", "config"}, "error: --parallel: Value 0 not in range 1 to 1024"},
      {{"--parallel", "1025", "a,b", "config"}, "error: --parallel: Value 1025 not in range"},
      {{"discover", "--hosts-only"},
       "discover 255.255.255.255:4347 2000ms pw= broadcast hosts-only"},
      {{"h", "config", "--hosts-only"}, "error: unknown option '--hosts-only'"},
      {{}, "error: missing HOSTS and COMMAND"},
      {{"h"}, "error: missing COMMAND after h"},
      {{"census"}, "error: missing HOSTS before census"},
      {{"h", "discover"}, "error: discover takes its HOST after it: varloctl discover h"},
      {{"h", "rebooot"}, "error: unknown command 'rebooot'"},
      {{"h", "notes"}, "error: 'notes' needs one of: get, set"},
      {{"h", "notes", "set", "1"}, "error: TEXT is required (see varloctl notes set --help)"},
      {{"h", "notes", "set", "10", "x"}, "error: the note index must be a number from 0 to 9"},
      {{"h", "notes", "set", "1", std::string(256, 'x')}, "error: the note text has 256 bytes"},
      {{"h", "notes", "set", "1", "two\nlines"}, "error: the note text must be a single line"},
      {{"h", "notes", "set", "1", "cr\r"}, "error: the note text must be a single line"},
      {{"h", "notes", "set", "1", ""}, "error: the note text is empty"},
      {{"h", "dbkey", "4294967296"}, "error: the DBMS key must be a number from 0 to 4294967295"},
      {{"h", "dbkey", "12abc"}, "error: the DBMS key must be a number"},
      {{"h", "password", "eightchr"}, "error: the new password has 8 characters"},
      {{"--password", "eightchr", "h", "network"}, "error: the password has 8 characters"},
      {{"h", "network"}, "error: the password has 8 characters", "eightchr"},
      {{"--password"}, "error: --password: 1 required P missing"},
      {{"--json=yes", "h", "network"}, "error: json was given a disallowed flag override"},
      {{"--verbose", "h", "network"}, "error: unknown option '--verbose'"},
      {{"--port", "0", "h", "network"}, "error: the port must not be 0"},
      {{"--port", "65536", "h", "network"}, "error: the port must be a number"},
      {{"--timeout", "0", "h", "network"}, "error: --timeout must be a number of seconds"},
      {{"--timeout", "nan", "h", "network"}, "error: --timeout must be a number of seconds"},
      {{"--timeout", "86401", "h", "network"}, "error: --timeout must be a number of seconds"},
      {{"--broadcast", "10.0.0.255", "h", "network"},
       "error: --broadcast applies to discover only"},
      {{"discover", "a", "b"}, "error: discover takes at most one HOST"},
      {{"--broadcast", "10.0.0.255", "discover", "h"},
       "error: discover takes either HOST or --broadcast"},
  };
  for (const auto& c : cases) {
    const std::string got = parsed(c.args, c.env);
    EXPECT_TRUE(got.starts_with(c.want) && (got == c.want || got.starts_with("error: "))) << got;
  }
}

TEST(VarloctlJson, EscapesAlwaysYieldUtf8) {
  const struct {
    std::string text, json;
  } cases[] = {
      {"a\"b\\c/", R"("a\"b\\c/")"},
      {"\n\r\t\b\f", R"("\n\r\t\b\f")"},
      {std::string("\x01\x1f\x7f\0z", 5), R"("\u0001\u001f\u007f\u0000z")"},
      // C1 controls, which some terminals obey, stay escapes too.
      {std::string("a\xc2\x9b") + "b", R"("a\u009bb")"},
      // Well-formed UTF-8 passes through, up to four-byte sequences.
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
       "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\""},
      // Anything else is read byte by byte as Latin-1: a lone 0xE9, an
      // overlong '/', an encoded surrogate, a sequence cut off at the end.
      {"caf\xe9", "\"caf\xc3\xa9\""},
      {"\xc0\xaf", "\"\xc3\x80\xc2\xaf\""},
      {"\xed\xa0\x80", "\"\xc3\xad\xc2\xa0\\u0080\""},
      {"x\xe2\x82", "\"x\xc3\xa2\\u0082\""},
  };
  for (const auto& c : cases) EXPECT_EQ(JsonWriter::write(Value(c.text)), c.json + "\n");
  // Keys and strings deep in the tree alike; empty containers stay on their line.
  const Value tree = {{"caf\xe9", Value::array({"\x7f", Value::object(), Value::array()})}};
  EXPECT_EQ(JsonWriter::write(tree),
            "{\n  \"caf\xc3\xa9\": [\n    \"\\u007f\",\n    {},\n    []\n  ]\n}\n");
}
