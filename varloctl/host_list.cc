#include "varloctl/host_list.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "base/unique_fd.h"
#include "varloctl/ctl_error.h"
#include "varloctl/numbers.h"
#include "varloctl/table_writer.h"
#include "varloctl/wire_text.h"

namespace varloctl {
namespace {

std::string_view trimmed(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

// A DNS name or a dotted address; the resolver decides whether it exists.
bool plausibleHost(std::string_view s) {
  if (s.empty() || s.size() > 253 || s.front() == '-' || s.front() == '.') return false;
  return std::all_of(s.begin(), s.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_';
  });
}

std::string readHostFile(const std::string& path) {
  const auto failed = [&path](int err) {
    return usageError("cannot read the host file " + TableWriter::text(path) + ": " +
                      std::strerror(err));
  };
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) throw failed(errno);
  std::string text;
  char buf[65536];
  for (;;) {
    const ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw failed(errno);
    if (n == 0) return text;
    text.append(buf, static_cast<std::size_t>(n));
    if (text.size() > HostList::kMaxFileBytes)
      throw usageError("the host file " + TableWriter::text(path) + " is larger than 16 MiB");
  }
}

}  // namespace

bool HostList::isList(std::string_view target) {
  return target.starts_with('@') || target.find_first_of(",/") != std::string_view::npos;
}

void HostList::add(std::vector<Host>& hosts, Host host) {
  if (hosts.size() == kMaxHosts)
    throw usageError("more than " + std::to_string(kMaxHosts) + " hosts");
  hosts.push_back(std::move(host));
}

std::vector<std::string> HostList::expandCidr(std::string_view cidr) {
  const std::string shown = TableWriter::text(cidr);
  const auto slash = cidr.find('/');
  in_addr addr{};
  const std::string dotted(cidr.substr(0, slash));
  if (slash == std::string_view::npos || inet_pton(AF_INET, dotted.c_str(), &addr) != 1)
    throw usageError("'" + shown + "' is not an IPv4 network such as 10.0.0.0/24");
  const auto prefix =
      static_cast<int>(parseUnsigned(cidr.substr(slash + 1), 32, "the prefix length of " + shown));
  if (prefix < kWidestPrefix)
    throw usageError(shown + " holds " + std::to_string((1ull << (32 - prefix)) - 2) +
                     " hosts; the widest network taken is a /16");
  const std::uint32_t mask = prefix == 0 ? 0 : ~std::uint32_t{0} << (32 - prefix);
  const std::uint32_t network = ntohl(addr.s_addr);
  if ((network & ~mask) != 0)
    throw usageError(shown + " is not a network address; " + varloctl::dotted(network & mask) +
                     "/" + std::to_string(prefix) + " is");
  // A /31 is a point-to-point link and a /32 one host: no network or
  // broadcast address to leave out.
  const std::uint32_t last = network | ~mask;
  const std::uint32_t first = prefix >= 31 ? network : network + 1;
  const std::uint32_t end = prefix >= 31 ? last : last - 1;
  std::vector<std::string> out;
  for (std::uint64_t a = first; a <= end; ++a)
    out.push_back(varloctl::dotted(static_cast<std::uint32_t>(a)));
  return out;
}

std::vector<HostList::Host> HostList::parseLines(std::string_view text) {
  std::vector<Host> hosts;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line = text.substr(at, end - at);
    at = end + 1;
    line = trimmed(line.substr(0, line.find('#')));
    if (line.empty()) continue;
    if (plausibleHost(line)) {
      add(hosts, {std::string(line), {}});
      continue;
    }
    if (line.find('/') != std::string_view::npos) {
      try {
        for (std::string& a : expandCidr(line)) add(hosts, {std::move(a), {}});
        continue;
      } catch (const CtlError& e) {
        if (std::string(e.what()).starts_with("more than")) throw;
        add(hosts, {std::string(line), e.what()});
        continue;
      }
    }
    add(hosts, {std::string(line), "not a host name or IPv4 address"});
  }
  return hosts;
}

std::vector<HostList::Host> HostList::parse(std::string_view target) {
  std::vector<Host> all;
  for (std::size_t at = 0; at <= target.size();) {
    const std::size_t end = std::min(target.find(',', at), target.size());
    const std::string_view item = trimmed(target.substr(at, end - at));
    at = end + 1;
    if (item.empty()) {
      // "a,b," is forgiven; "a,,b" or "," is a slip worth a word.
      if (at > target.size() && !all.empty()) break;
      throw usageError("an empty host in the list '" + TableWriter::text(target) + "'");
    }
    std::vector<Host> hosts;
    if (item.starts_with('@')) {
      hosts = parseLines(readHostFile(std::string(item.substr(1))));
    } else if (item.find('/') != std::string_view::npos) {
      for (std::string& a : expandCidr(item)) hosts.push_back({std::move(a), {}});
    } else {
      hosts.push_back(
          {std::string(item), plausibleHost(item) ? "" : "not a host name or IPv4 address"});
    }
    for (Host& h : hosts) add(all, std::move(h));
  }
  // Each host once, where it first appears: results are keyed by host.
  std::unordered_set<std::string> seen;
  std::erase_if(all, [&seen](const Host& h) { return !seen.insert(h.name).second; });
  return all;
}

}  // namespace varloctl
