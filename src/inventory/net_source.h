// Where CNetInfo reads the host's network: the interface list, the kernel's
// interface indexes and the default routes, so tests can hand in a fixture.
#pragma once

#include <ifaddrs.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// An IPv4 route with destination length 0.
struct DefaultRoute {
  int oif = 0;                // output interface index
  std::uint32_t gateway = 0;  // host order; 0 for a route without a gateway
};

// The two platform queries CNetInfo needs, so tests can hand it a fixture.
class NetSource {
 public:
  // Whoever builds the list decides how it is released (freeifaddrs for the
  // system's; nothing for a list a test owns).
  using InterfaceList = std::unique_ptr<ifaddrs, void (*)(ifaddrs*)>;

  virtual ~NetSource() = default;

  // Null when the list cannot be read or is empty.
  virtual InterfaceList interfaces() = 0;

  // Default routes of the main IPv4 table in table order; nullopt when the
  // table cannot be read at all.
  virtual std::optional<std::vector<DefaultRoute>> defaultRoutes() = 0;

  // The kernel's index of the interface; 0 when there is none.
  virtual unsigned indexOf(const std::string& name) = 0;
};

// getifaddrs, if_nametoindex and an rtnetlink route dump.
class SystemNetSource : public NetSource {
 public:
  InterfaceList interfaces() override;
  std::optional<std::vector<DefaultRoute>> defaultRoutes() override;
  unsigned indexOf(const std::string& name) override;
};
