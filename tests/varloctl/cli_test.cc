// varloctl's command line, password block and printing, without a network.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "varloctl/arg_parser.h"
#include "varloctl/ctl_error.h"
#include "varloctl/json_writer.h"
#include "varloctl/password_block.h"
#include "varloctl/table_writer.h"
#include "varloctl/wire_text.h"

using namespace varloctl;

namespace {

using Args = std::vector<std::string>;

// The message of the usage error that args cause, or "" when they parse.
std::string usageErrorOf(const Args& args, const std::optional<std::string>& env = {}) {
  try {
    ArgParser::parse(args, env);
  } catch (const CtlError& e) {
    EXPECT_EQ(e.status(), kUsage) << e.what();
    return e.what();
  }
  return "";
}

}  // namespace

TEST(VarloctlArgs, RefusesWhatCannotBeCarriedOut) {
  const std::string long255(255, 'x');
  const struct {
    Args args;
    const char* message;
  } cases[] = {
      {{}, "missing HOST and COMMAND"},
      {{"h"}, "missing COMMAND after h"},
      {{"h", "reboot"}, "unknown command 'reboot'"},
      {{"h", "notes"}, "'notes' needs one of: get, set"},
      {{"h", "notes", "put", "1"}, "'notes' needs one of: get, set"},
      {{"h", "network", "extra"}, "usage: varloctl [OPTIONS] HOST network"},
      {{"h", "notes", "set", "1"}, "usage: varloctl [OPTIONS] HOST notes set INDEX TEXT"},
      {{"h", "notes", "set", "10", "x"}, "the note index must be a number from 0 to 9"},
      {{"h", "notes", "set", "1", long255 + "y"}, "the note text has 256 bytes"},
      {{"h", "notes", "set", "1", "two\nlines"}, "single line"},
      {{"h", "notes", "set", "1", "cr\r"}, "single line"},
      {{"h", "notes", "set", "1", ""}, "the note text is empty"},
      {{"h", "dbkey", "4294967296"}, "the DBMS key must be a number from 0 to 4294967295"},
      {{"h", "dbkey", "12abc"}, "the DBMS key must be a number"},
      {{"h", "dbkey", "0x"}, "the DBMS key must be a number"},
      {{"h", "dbkey", "-1"}, "unknown option '-1'"},
      {{"h", "password", "eightchr"}, "the new password has 8 characters"},
      {{"--password", "eightchr", "h", "network"}, "the password has 8 characters"},
      {{"--password"}, "--password needs a value"},
      {{"--json=yes", "h", "network"}, "--json takes no value"},
      {{"--verbose", "h", "network"}, "unknown option '--verbose'"},
      {{"--port", "0", "h", "network"}, "the port must not be 0"},
      {{"--port", "65536", "h", "network"}, "the port must be a number"},
      {{"--timeout", "0", "h", "network"}, "--timeout must be a number of seconds"},
      {{"--timeout", "-1", "h", "network"}, "--timeout must be a number of seconds"},
      {{"--timeout", "nan", "h", "network"}, "--timeout must be a number of seconds"},
      {{"--timeout", "1e3", "h", "network"}, "--timeout must be a number of seconds"},
      {{"--timeout", "86401", "h", "network"}, "--timeout must be a number of seconds"},
      {{"--broadcast", "10.0.0.255", "h", "network"}, "--broadcast applies to discover only"},
      {{"discover", "a", "b"}, "discover takes at most one HOST"},
      {{"--broadcast", "10.0.0.255", "discover", "h"}, "either HOST or --broadcast"},
  };
  for (const auto& c : cases) {
    std::string joined;
    for (const auto& a : c.args) joined += "[" + a + "]";
    EXPECT_NE(usageErrorOf(c.args).find(c.message), std::string::npos)
        << joined << " gave: " << usageErrorOf(c.args);
  }
  // The password from the environment is held to the same limit.
  EXPECT_NE(usageErrorOf({"h", "network"}, "eightchr").find("has 8 characters"), std::string::npos);
}

TEST(VarloctlArgs, DefaultsAndTheLimitsThemselves) {
  Invocation inv =
      ArgParser::parse({"agent.example", "notes", "set", "9", std::string(255, 'x')}, std::nullopt);
  EXPECT_EQ(inv.mode, Invocation::Mode::Command);
  EXPECT_EQ(inv.target, "agent.example");
  EXPECT_EQ(inv.port, 4347);
  EXPECT_EQ(inv.timeoutMs, 10000);
  EXPECT_EQ(inv.password, "");
  EXPECT_FALSE(inv.json);
  EXPECT_EQ(inv.command->code(), 21);

  // Options after the words, --name=value, and seven-character passwords.
  inv = ArgParser::parse({"h", "password", "seven77", "--password=1234567", "--timeout=0.25",
                          "--port", "9000", "--json"},
                         "fromenv");
  EXPECT_EQ(inv.password, "1234567");
  EXPECT_EQ(inv.timeoutMs, 250);
  EXPECT_EQ(inv.port, 9000);
  EXPECT_TRUE(inv.json);
  EXPECT_EQ(inv.command->code(), 17);

  inv = ArgParser::parse({"h", "dbkey", "0xFFFFFFFF"}, "fromenv");
  EXPECT_EQ(inv.password, "fromenv");
  EXPECT_EQ(inv.command->code(), 33);

  // After "--" a word that starts with a dash is text.
  EXPECT_EQ(usageErrorOf({"h", "notes", "set", "2", "--", "-5 degrees"}), "");

  inv = ArgParser::parse({"discover"}, std::nullopt);
  EXPECT_EQ(inv.mode, Invocation::Mode::Discover);
  EXPECT_EQ(inv.target, "255.255.255.255");
  EXPECT_TRUE(inv.broadcast);
  EXPECT_EQ(inv.timeoutMs, 2000);
  inv = ArgParser::parse({"discover", "10.1.2.3", "--timeout", "3"}, std::nullopt);
  EXPECT_EQ(inv.target, "10.1.2.3");
  EXPECT_FALSE(inv.broadcast);
  EXPECT_EQ(inv.timeoutMs, 3000);

  EXPECT_EQ(ArgParser::parse({"h", "bogus", "--help"}, std::nullopt).mode, Invocation::Mode::Help);
}

TEST(VarloctlPasswordBlock, HeaderCarriesTheEncipheredPascalString) {
  EXPECT_EQ(PasswordBlock::header(2, "secret"),
            (varlo::varlo_cmd_header::Bytes{0x00, 0x02, 0x00, 0x00, 0xb1, 0x6e, 0xd7, 0x45, 0x29,
                                            0x07, 0x5b, 0x4d}));
  EXPECT_EQ(PasswordBlock::header(0x1234, ""),
            (varlo::varlo_cmd_header::Bytes{0x12, 0x34, 0x00, 0x00, 0xae, 0xc6, 0xc2, 0x38, 0xc7,
                                            0x44, 0xdb, 0xad}));
  EXPECT_EQ(PasswordBlock::plain("abcdefg"),
            (PasswordBlock::Block{7, 'a', 'b', 'c', 'd', 'e', 'f', 'g'}));
  EXPECT_THROW(PasswordBlock::header(1, "abcdefgh"), CtlError);
}

TEST(VarloctlJson, EscapesAndAlwaysYieldsUtf8) {
  EXPECT_EQ(JsonWriter::quote("a\"b\\c/"), R"("a\"b\\c/")");
  EXPECT_EQ(JsonWriter::quote("\n\r\t\b\f"), R"("\n\r\t\b\f")");
  EXPECT_EQ(JsonWriter::quote(std::string("\x01\x1f\x7f\0z", 5)), R"("\u0001\u001f\u007f\u0000z")");
  // Well-formed UTF-8 passes through, up to four-byte sequences.
  EXPECT_EQ(JsonWriter::quote("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"),
            "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"");
  // Anything else is read byte by byte as Latin-1: a lone 0xE9, an
  // overlong '/', an encoded surrogate, a sequence cut off at the end.
  EXPECT_EQ(JsonWriter::quote("caf\xe9"), R"("caf\u00e9")");
  EXPECT_EQ(JsonWriter::quote("\xc0\xaf"), R"("\u00c0\u00af")");
  EXPECT_EQ(JsonWriter::quote("\xed\xa0\x80"), R"("\u00ed\u00a0\u0080")");
  EXPECT_EQ(JsonWriter::quote("x\xe2\x82"), R"("x\u00e2\u0082")");
}

TEST(VarloctlJson, DocumentLayout) {
  Value v = Value::object();
  v.add("n", Value::integer(4294967295))
      .add("ok", Value::boolean(false))
      .add("none", Value())
      .add("empty", Value::array())
      .add("list", Value::array().push(Value::object().add("k", Value::string("v"))));
  EXPECT_EQ(JsonWriter::write(v),
            "{\n"
            "  \"n\": 4294967295,\n"
            "  \"ok\": false,\n"
            "  \"none\": null,\n"
            "  \"empty\": [],\n"
            "  \"list\": [\n"
            "    {\n"
            "      \"k\": \"v\"\n"
            "    }\n"
            "  ]\n"
            "}\n");
}

TEST(VarloctlTable, ObjectsAlignAndListsBecomeColumns) {
  Value obj = Value::object();
  obj.add("ip_address", Value::string("10.0.0.1")).add("up", Value::boolean(true));
  EXPECT_EQ(TableWriter::write(obj), "ip address  10.0.0.1\nup          yes\n");

  Value rows = Value::array();
  rows.push(Value::object().add("index", Value::integer(0)).add("text", Value::string("")));
  rows.push(
      Value::object().add("index", Value::integer(10)).add("text", Value::string("a\x1b[2Jb")));
  // No trailing blanks; control characters cannot reach the terminal.
  EXPECT_EQ(TableWriter::write(rows), "INDEX  TEXT\n0\n10     a\\x1b[2Jb\n");
  EXPECT_EQ(TableWriter::write(Value::array()), "(none)\n");
}

TEST(VarloctlWireText, NumbersAsTheConsoleShowsThem) {
  EXPECT_EQ(dotted(0xC0000201), "192.0.2.1");
  EXPECT_EQ(dotted(0xFFFFFF00), "255.255.255.0");
  EXPECT_EQ(hardwareAddress({0x00, 0x1a, 0x2b, 0xc3, 0xd4, 0xff}), "00:1a:2b:c3:d4:ff");
  EXPECT_EQ(agentVersion(0x560), "5.6.0");
  EXPECT_EQ(osVersion(0x0A39), "10.3.9");  // 10.3.9 after the agent's BCD fold
  EXPECT_EQ(osVersion(0x0610), "6.1.0");
  EXPECT_EQ(osVersion(0x0C05), "12.0.5");
  EXPECT_EQ(secondsText(2000), "2 s");
  EXPECT_EQ(secondsText(250), "0.25 s");
}
