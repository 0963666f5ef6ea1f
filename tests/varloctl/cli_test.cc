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
    const char* mode[] = {"help", "discover", "command"};
    return std::string(mode[static_cast<int>(inv.mode)]) + " " + inv.target + ":" +
           std::to_string(inv.port) + " " + std::to_string(inv.timeoutMs) +
           "ms pw=" + inv.password + (inv.json ? " json" : "") +
           (inv.broadcast ? " broadcast" : "") +
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
      {{"h", "profiler", "--days="}, "error: the number of days (--days) must be a number"},
      {{"h", "census", "--days", "99999999999999999999"},
       "error: the number of days (--days) must be a number"},
      {{"h", "census", "--days"}, "error: --days needs a value"},
      {{"h", "fonts", "--days", "3"}, "error: --days applies to census and profiler only"},
      {{"discover", "--days", "3"}, "error: --days applies to census and profiler only"},
      {{"h", "census", "7"}, "error: usage: varloctl [OPTIONS] HOST census [--days N]"},
      {{"discover"}, "discover 255.255.255.255:4347 2000ms pw= broadcast"},
      {{"discover", "10.1.2.3", "--timeout", "3"}, "discover 10.1.2.3:4347 3000ms pw="},
      {{"h", "bogus", "--help"}, "help :0 10000ms pw="},
      {{}, "error: missing HOST and COMMAND"},
      {{"h"}, "error: missing COMMAND after h"},
      {{"h", "rebooot"}, "error: unknown command 'rebooot'"},
      {{"h", "notes"}, "error: 'notes' needs one of: get, set"},
      {{"h", "notes", "set", "1"}, "error: usage: varloctl [OPTIONS] HOST notes set INDEX TEXT"},
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
      {{"--password"}, "error: --password needs a value"},
      {{"--json=yes", "h", "network"}, "error: --json takes no value"},
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
      // Well-formed UTF-8 passes through, up to four-byte sequences.
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
       "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\""},
      // Anything else is read byte by byte as Latin-1: a lone 0xE9, an
      // overlong '/', an encoded surrogate, a sequence cut off at the end.
      {"caf\xe9", R"("caf\u00e9")"},
      {"\xc0\xaf", R"("\u00c0\u00af")"},
      {"\xed\xa0\x80", R"("\u00ed\u00a0\u0080")"},
      {"x\xe2\x82", R"("x\u00e2\u0082")"},
  };
  for (const auto& c : cases) EXPECT_EQ(JsonWriter::quote(c.text), c.json);
}
