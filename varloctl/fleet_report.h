// What a fleet run shows: its outcomes as one table with the host first, or
// one JSON document keyed by host, and the exit status of the whole.
#pragma once

#include <vector>

#include "varloctl/fleet.h"
#include "varloctl/host_list.h"
#include "varloctl/value.h"

namespace varloctl {

class FleetReport {
 public:
  FleetReport(const std::vector<HostList::Host>& hosts, const std::vector<Fleet::Outcome>& outcomes)
      : hosts_(hosts), outcomes_(outcomes) {}

  // For TableWriter. Answers that are one record or a list of records make
  // one table: a row a host (or a row a record), HOST first, then the
  // answers' columns, then ERROR when a host failed. Anything deeper (the
  // profiler's partitions) is a block a host.
  Value table() const;
  // {"HOST": answer, ...}, a failed host's answer {"error": TEXT, "status": N}.
  Value json() const;
  // 0 when every host succeeded, else the status of the first that failed.
  int status() const;

 private:
  const std::vector<HostList::Host>& hosts_;
  const std::vector<Fleet::Outcome>& outcomes_;
};

}  // namespace varloctl
