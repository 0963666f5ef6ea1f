#include "intake/host_description.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "inventory/config_info.h"
#include "inventory/netinfo.h"
#include "prefs/prefs.h"

using varlo::varlo_probe_reply;

struct HostDescription::Shared {
  std::mutex mutex;
  std::condition_variable wake;
  std::condition_variable resolved;
  std::vector<Interface> interfaces;
  // The address of resolvedName; a reply for another name has none yet.
  std::string resolvedName;
  std::uint32_t address = 0;
  // What the resolver was last asked, and the resolver files then.
  std::string wantedName;
  std::string wantedStamp;
  bool requested = false;
  bool stopping = false;
};

namespace {

constexpr auto kStartupResolveWait = std::chrono::milliseconds(250);

// Identity and age of each file: a rewrite, a rename over it or a file
// mounted over it (as containers do) all change it.
std::string stampOf(const std::vector<std::string>& files) {
  std::string stamp;
  for (const std::string& f : files) {
    struct stat st{};
    if (::stat(f.c_str(), &st) != 0) {
      stamp += "-;";
      continue;
    }
    stamp += std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" +
             std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + ":" +
             std::to_string(st.st_size) + ";";
  }
  return stamp;
}

// Drains a non-blocking descriptor.
void drain(int fd) {
  char buf[8192];
  while (::read(fd, buf, sizeof buf) > 0) {
  }
}

}  // namespace

HostDescription::HostDescription(CPrefs& prefs) : HostDescription(prefs, Sources{}) {}

HostDescription::HostDescription(CPrefs& prefs, Sources sources)
    : prefs_(prefs), sources_(std::move(sources)), shared_(std::make_shared<Shared>()) {
  if (!sources_.watch) return;
  subscribe();
  rebuildInterfaces();
  wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  // The resolver may sit in a look-up for as long as the name service
  // takes; nobody waits for it, and it owns its share of the state.
  Thread::detach(
      [shared = shared_] {
        std::unique_lock<std::mutex> lock(shared->mutex);
        for (;;) {
          shared->wake.wait(lock, [&] { return shared->requested || shared->stopping; });
          if (shared->stopping) return;
          shared->requested = false;
          const std::string name = shared->wantedName;
          lock.unlock();
          const std::uint32_t address = primaryAddress(name);
          lock.lock();
          shared->resolvedName = name;
          shared->address = address;
          shared->resolved.notify_all();
        }
      },
      64 * 1024);
  // Resolved before the first probe can ask: start-up gives the look-up a
  // moment (a hosts file answers in microseconds), never longer.
  utsname un{};
  ::uname(&un);
  un.nodename[31] = '\0';
  resolveIfChanged(un.nodename);
  {
    std::unique_lock<std::mutex> lock(shared_->mutex);
    shared_->resolved.wait_for(lock, kStartupResolveWait,
                               [&] { return shared_->resolvedName == un.nodename; });
  }
  if (wake_.valid()) {
    try {
      watcher_ = Thread([this] { watch(); }, 128 * 1024);
    } catch (const std::system_error&) {
      // Without it the interfaces stay as found at start-up.
    }
  }
}

HostDescription::~HostDescription() {
  {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->stopping = true;
  }
  shared_->wake.notify_all();
  if (wake_.valid()) {
    const std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(wake_.get(), &one, sizeof one);
  }
  watcher_.join();
}

std::uint32_t HostDescription::osVersionOf(const std::string& release) {
  // The probe moves the major version into the third hexadecimal digit, as
  // 10.3.9 (0x1039) once became 0x0A39.
  const std::uint32_t r = CConfigInfo::systemVersionOf(release);
  return (r & 0x0FFF) | (((r >> 4) & 0x0F00) * 10);
}

std::uint32_t HostDescription::primaryAddress(const std::string& name) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0) return 0;
  std::uint32_t address = 0;
  for (const addrinfo* a = found; a != nullptr && address == 0; a = a->ai_next) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(a->ai_addr);
    const std::uint32_t candidate = ntohl(in->sin_addr.s_addr);
    if (candidate != 0 && (candidate >> 24) != 127) address = candidate;
  }
  freeaddrinfo(found);
  return address;
}

void HostDescription::placeInterfaces(const std::vector<Interface>& interfaces,
                                      varlo_probe_reply& reply) {
  std::size_t others = 0;
  for (const Interface& i : interfaces) {
    if (reply.ipAddress == 0 || i.address == reply.ipAddress) {
      reply.ipAddress = i.address;
      reply.gateway = i.gateway;
      reply.subnetMask = i.mask;
      reply.hwAddress = i.hw;
      reply.atNetwork = 0;  // no AppleTalk on this platform
      reply.atNode = 0;
    } else if (others < varlo_probe_reply::kOtherInterfaces) {
      // More than ten others do not fit the reply; the rest are left out.
      reply.otherIp[others] = i.address;
      reply.otherGateway[others] = i.gateway;
      reply.otherMask[others] = i.mask;
      ++others;
    }
  }
}

void HostDescription::rebuildInterfaces() {
  CNetInfo info(sources_.net);
  std::vector<Interface> found;
  if (info.enumInterfaces() == 0) {
    info.rewind();
    Interface i;
    unsigned long address = 0, gateway = 0, mask = 0;
    while (info.getNextInterface(address, gateway, mask, i.hw.data(), i.hw.size()) == 0) {
      i.address = static_cast<std::uint32_t>(address);
      i.gateway = static_cast<std::uint32_t>(gateway);
      i.mask = static_cast<std::uint32_t>(mask);
      found.push_back(i);
    }
  }
  std::lock_guard<std::mutex> lock(shared_->mutex);
  shared_->interfaces = std::move(found);
}

void HostDescription::resolveIfChanged(const std::string& name) {
  const std::string stamp = stampOf(sources_.resolverFiles);
  {
    std::lock_guard<std::mutex> lock(shared_->mutex);
    if (name == shared_->wantedName && stamp == shared_->wantedStamp) return;
    shared_->wantedName = name;
    shared_->wantedStamp = stamp;
    shared_->requested = true;
  }
  shared_->wake.notify_all();
}

varlo_probe_reply HostDescription::reply() {
  varlo_probe_reply reply;
  utsname un{};
  ::uname(&un);
  un.nodename[31] = '\0';  // the reply carries at most 31 characters of it
  reply.hostName = un.nodename;
  reply.osVersion = osVersionOf(un.release);

  std::vector<Interface> interfaces;
  if (sources_.watch) {
    resolveIfChanged(reply.hostName);
    std::lock_guard<std::mutex> lock(shared_->mutex);
    interfaces = shared_->interfaces;
    if (shared_->resolvedName == reply.hostName) reply.ipAddress = shared_->address;
  } else {
    rebuildInterfaces();
    reply.ipAddress = primaryAddress(reply.hostName);
    std::lock_guard<std::mutex> lock(shared_->mutex);
    interfaces = shared_->interfaces;
  }
  placeInterfaces(interfaces, reply);
  reply.dbmsKey = prefs_.dbmsKey();
  reply.userName = prefs_.userName();
  return reply;
}

void HostDescription::subscribe() {
  // Subscribed before the first rebuild, so no change falls between the two.
  routeEvents_.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
  if (routeEvents_.valid() &&
      ::bind(routeEvents_.get(), reinterpret_cast<sockaddr*>(&groups), sizeof groups) != 0)
    routeEvents_.reset();
}

void HostDescription::watch() {
  for (;;) {
    pollfd fds[2] = {{wake_.get(), POLLIN, 0}, {routeEvents_.get(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[0].revents & POLLIN) return;
    if (fds[1].revents & (POLLIN | POLLERR)) {
      // What changed matters less than that something did: a lost event
      // (ENOBUFS) is handled the same way.
      drain(fds[1].fd);
      rebuildInterfaces();
    }
  }
}
