// One command on many hosts at once: a fixed pool of workers takes the
// hosts in turn, so that at most `parallel` sessions (and their sockets)
// are open at any moment, and one host's failure stops no other.
#pragma once

#include <sys/resource.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "varloctl/host_list.h"
#include "varloctl/value.h"

namespace varloctl {

class Fleet {
 public:
  struct Outcome {
    int status = 0;  // an ExitStatus; 0 when result holds the answer
    Value result;
    std::string error;
  };
  // One host's command; throws CtlError when it fails. Called on the
  // workers' threads, for one host at a time each.
  using Job = std::function<Value(const std::string& host)>;
  // How far the run is, told on the calling thread about ten times a second.
  using Report = std::function<void(std::size_t done, std::size_t failed)>;

  // Descriptors a worker may hold at once: its socket, and a file being
  // sent or the resolver's.
  static constexpr int kDescriptorsPerWorker = 2;
  // Left for the rest of the process (standard streams, a terminal).
  static constexpr int kSpareDescriptors = 16;

  explicit Fleet(int parallel) : parallel_(parallel) {}

  // The outcomes in the hosts' order. A host that carries an error is not
  // tried; once Ctrl-C is pressed no host is started, and those left show
  // as interrupted.
  std::vector<Outcome> run(const std::vector<HostList::Host>& hosts, const Job& job,
                           const Report& report = {}) const;

  // How many workers fit under the limit of open files with `open`
  // descriptors already in use; below wanted, warning says why.
  static int workersFor(int wanted, rlim_t limit, long open, std::string& warning);
  // The same for this process: raises its soft limit towards the hard one
  // when wanted needs it.
  static int workersAllowed(int wanted, std::string& warning);

 private:
  int parallel_;
};

}  // namespace varloctl
