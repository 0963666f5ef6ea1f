// The shapes a fleet's answers take in one table.
#include "varloctl/fleet_report.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "varloctl/table_writer.h"

using varloctl::Fleet;
using varloctl::FleetReport;
using varloctl::HostList;
using varloctl::Value;

TEST(VarloctlFleetReport, DeeperAnswersABlockAHostAndFailuresAlone) {
  const std::vector<HostList::Host> hosts = {{"a", ""}, {"b_1", ""}};
  const Value partition = {{"name", "/"}, {"extensions", Value::array({{{"extension", "c"}}})}};
  const Fleet::Outcome failed{6, {}, "connection refused"};
  const struct {
    std::vector<Fleet::Outcome> outcomes;
    std::string table;
    int status;
  } cases[] = {
      // The profiler's partitions hold lists: a block for each host, its
      // name as given.
      {{{0, Value::array({partition}), ""}, failed},
       "host  a\n\nanswer:\n  name  /\n\n  extensions:\n    EXTENSION\n    c\n\n"
       "host   b_1\nerror  connection refused\n",
       6},
      // Nobody answered: only the hosts and their errors.
      {{failed, {5, {}, "timed out"}},
       "HOST  ERROR\na     connection refused\nb_1   timed out\n",
       6},
      // Columns in order of first appearance; a record without one leaves it blank.
      {{{0, {{"x", 1}}, ""}, {0, {{"y", true}, {"x", 2}}, ""}},
       "HOST  X  Y\na     1\nb_1   2  yes\n",
       0},
      // An empty list adds no row.
      {{{0, Value::array(), ""}, {0, Value::array({{{"n", 1}}, {{"n", 2}}}), ""}},
       "HOST  N\nb_1   1\nb_1   2\n",
       0},
  };
  for (const auto& c : cases) {
    const FleetReport report(hosts, c.outcomes);
    EXPECT_EQ(varloctl::TableWriter::write(report.table()), c.table);
    EXPECT_EQ(report.status(), c.status);
  }
}
