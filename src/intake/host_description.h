// The host as the probe reply describes it, kept current by change
// notifications so that answering a probe never waits on the name service,
// a mount or a routing dump: a watcher thread rebuilds the interfaces when
// rtnetlink reports a link, address or route change, and the host name is
// resolved on a thread of its own whenever the name or the files that
// decide its resolution change. The console user and the DBMS key come from
// the preferences, which the login listener keeps current.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/thread.h"
#include "base/unique_fd.h"
#include "varlo/probe.h"

class CPrefs;
class NetSource;

class HostDescription {
 public:
  struct Sources {
    // Files whose change (content, or a file mounted over them) may change
    // what the host name resolves to.
    std::vector<std::string> resolverFiles = {"/etc/hosts", "/etc/resolv.conf",
                                              "/etc/nsswitch.conf"};
    std::shared_ptr<NetSource> net;  // null: the host's
    // False: no threads; every reply rebuilds what it needs (tests).
    bool watch = true;
  };

  HostDescription(CPrefs& prefs, Sources sources);
  explicit HostDescription(CPrefs& prefs);
  // Stops the watcher; never waits for a name look-up in progress.
  ~HostDescription();
  HostDescription(const HostDescription&) = delete;
  HostDescription& operator=(const HostDescription&) = delete;

  // The reply to a probe arriving now.
  varlo::varlo_probe_reply reply();

  // Kernel release "6.1.0-18-amd64" to the console's version number.
  static std::uint32_t osVersionOf(const std::string& release);

  // The first IPv4 address name resolves to that is neither 0.0.0.0 nor
  // loopback (Debian maps the host name to 127.0.1.1); 0 when none.
  static std::uint32_t primaryAddress(const std::string& name);

  struct Interface {
    std::uint32_t address = 0, gateway = 0, mask = 0;
    std::array<std::uint8_t, 6> hw{};
  };
  // Fills the interface fields of reply from the interfaces in name order:
  // the one with the reply's address (or the first, when it has none) is
  // the primary, at most ten others follow it.
  static void placeInterfaces(const std::vector<Interface>& interfaces,
                              varlo::varlo_probe_reply& reply);

 private:
  struct Shared;
  void subscribe();
  void watch();
  void rebuildInterfaces();
  // Asks the resolver for name unless it is the name resolved (or being
  // resolved) already and the resolver files are unchanged.
  void resolveIfChanged(const std::string& name);

  CPrefs& prefs_;
  Sources sources_;
  std::shared_ptr<Shared> shared_;
  UniqueFd routeEvents_;  // rtnetlink: link, address and route changes
  UniqueFd wake_;  // eventfd: tells the watcher to stop
  Thread watcher_;
};
