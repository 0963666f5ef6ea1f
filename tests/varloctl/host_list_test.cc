// How a fleet's hosts are named: lists, host files and networks, and what
// varloctl may run at once.
#include "varloctl/host_list.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_support.h"
#include "varloctl/ctl_error.h"
#include "varloctl/fleet.h"

using varloctl::CtlError;
using varloctl::Fleet;
using varloctl::HostList;

namespace {

// The hosts as "name" or "name!error", joined by spaces; or the usage error.
std::string hosts(const std::vector<HostList::Host>& list) {
  std::string out;
  for (const auto& h : list)
    out += (out.empty() ? "" : " ") + h.name + (h.error.empty() ? "" : "!" + h.error);
  return out;
}

std::string parsed(const std::string& target) {
  try {
    return hosts(HostList::parse(target));
  } catch (const CtlError& e) {
    EXPECT_EQ(e.status(), varloctl::kUsage) << e.what();
    return std::string("error: ") + e.what();
  }
}

}  // namespace

TEST(VarloctlHostList, WhatATargetComesTo) {
  test_support::TempDir dir;
  test_support::spit(dir / "fleet",
                     "# the rack\n"
                     "127.0.0.2\n"
                     "\n"
                     "  alpha.example  # with a comment\r\n"
                     "not a host!\n"
                     "\t\n"
                     "127.0.0.2\n"
                     "10.9.0.0/31\n"
                     "10.0.0.0/8\n"
                     "10.1.0.7/30\n"
                     "-rf\n"
                     "last-line-without-newline");
  test_support::spit(dir / "empty", "# nothing but comments\n\n");
  const struct {
    std::string target, want;
  } cases[] = {
      {"a,b,c", "a b c"},
      {" a , b,", "a b"},  // blanks around items and one trailing comma are forgiven
      {"a,b,a", "a b"},    // each host once, where it first appears
      {"a,,b", "error: an empty host in the list 'a,,b'"},
      {",", "error: an empty host in the list ','"},
      {"a,bad host", "a bad host!not a host name or IPv4 address"},
      {"10.0.0.0/30", "10.0.0.1 10.0.0.2"},
      {"10.0.0.4/31", "10.0.0.4 10.0.0.5"},
      {"10.0.0.9/32", "10.0.0.9"},
      {"10.0.0.0/30,10.0.0.2,b", "10.0.0.1 10.0.0.2 b"},
      {"255.255.255.252/30", "255.255.255.253 255.255.255.254"},
      {"10.0.0.0/15", "error: 10.0.0.0/15 holds 131070 hosts; the widest network taken is a /16"},
      {"0.0.0.0/0", "error: 0.0.0.0/0 holds 4294967294 hosts"},
      {"10.0.0.5/24", "error: 10.0.0.5/24 is not a network address; 10.0.0.0/24 is"},
      {"10.0.0.0/33", "error: the prefix length of 10.0.0.0/33 must be a number from 0 to 32"},
      {"10.0.0.0/", "error: the prefix length of 10.0.0.0/ must be a number"},
      {"10.0.0/24", "error: '10.0.0/24' is not an IPv4 network"},
      {"a/24", "error: 'a/24' is not an IPv4 network"},
      {"@" + dir / "fleet",
       "127.0.0.2 alpha.example not a host!!not a host name or IPv4 address 10.9.0.0 10.9.0.1 "
       "10.0.0.0/8!10.0.0.0/8 holds 16777214 hosts; the widest network taken is a /16 "
       "10.1.0.7/30!10.1.0.7/30 is not a network address; 10.1.0.4/30 is "
       "-rf!not a host name or IPv4 address last-line-without-newline"},
      {"@" + dir / "empty", ""},
      {"@" + dir / "missing", "error: cannot read the host file " + dir / "missing"},
      {"@" + dir.path, "error: cannot read the host file " + dir.path},
      {"h,@" + dir / "fleet", "h 127.0.0.2 alpha.example"},
  };
  for (const auto& c : cases) {
    const std::string got = parsed(c.target);
    EXPECT_TRUE(got.starts_with(c.want)) << c.target << "\n got: " << got;
  }
  // Whether the words name a fleet at all: only their form decides.
  for (const auto& [target, fleet] :
       std::vector<std::pair<std::string, bool>>{{"host", false},
                                                 {"10.0.0.1", false},
                                                 {"a,b", true},
                                                 {"@f", true},
                                                 {"10.0.0.0/24", true}})
    EXPECT_EQ(HostList::isList(target), fleet) << target;
}

TEST(VarloctlHostList, BoundedWhateverTheInput) {
  test_support::TempDir dir;
  // A /16 is the widest network, and its 65534 hosts fit under the bound.
  EXPECT_EQ(HostList::parse("10.7.0.0/16").size(), 65534u);
  EXPECT_EQ(HostList::parse("10.7.0.0/16").back().name, "10.7.255.254");
  // More hosts than that, however they are named, is refused.
  std::string many;
  for (int i = 0; i < 70000; ++i) many += "h" + std::to_string(i) + "\n";
  test_support::spit(dir / "many", many);
  EXPECT_THROW(HostList::parse("@" + dir / "many"), CtlError);
  EXPECT_THROW(HostList::parse("10.7.0.0/16,10.8.0.0/16"), CtlError);
  // Binary garbage is lines that are no hosts, shown escaped by the caller.
  const auto garbage = HostList::parseLines(std::string("\x01\x02\xff\0zz\n", 6));
  ASSERT_EQ(garbage.size(), 1u);
  EXPECT_FALSE(garbage[0].error.empty());
  // A file past 16 MiB is not read to the end.
  test_support::spit(dir / "huge", std::string(HostList::kMaxFileBytes + 1, '#'));
  EXPECT_THROW(HostList::parse("@" + dir / "huge"), CtlError);
}

TEST(VarloctlFleetLimits, WorkersFitUnderTheLimitOfOpenFiles) {
  const struct {
    int wanted;
    rlim_t limit;
    long open;
    int want;
    bool warned;
  } cases[] = {
      {32, 1024, 10, 32, false},
      {1024, 1024, 10, 499, true},  // (1024 - 10 - 16) / 2
      {1024, 4096, 10, 1024, false},
      {8, 64, 40, 4, true},
      {8, 20, 40, 1, true},  // never none: one worker still gets through the list
      {1024, RLIM_INFINITY, 10, 1024, false},
  };
  for (const auto& c : cases) {
    std::string warning;
    EXPECT_EQ(Fleet::workersFor(c.wanted, c.limit, c.open, warning), c.want) << c.limit;
    EXPECT_EQ(!warning.empty(), c.warned) << warning;
    if (c.warned) {
      EXPECT_NE(warning.find("--parallel " + std::to_string(c.wanted) + " lowered to " +
                             std::to_string(c.want)),
                std::string::npos)
          << warning;
    }
  }
}
