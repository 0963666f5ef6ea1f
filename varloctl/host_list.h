// The hosts of a fleet as the command line names them: HOST1,HOST2,...,
// @FILE (one host a line) or an IPv4 CIDR, or a comma-separated mix.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace varloctl {

class HostList {
 public:
  struct Host {
    std::string name;   // as given; a line that is no host keeps its text
    std::string error;  // why it cannot be reached; empty when it may be
  };

  // Bounds a run made by mistake (the hosts of a /16).
  static constexpr std::size_t kMaxHosts = 65536;
  static constexpr int kWidestPrefix = 16;
  static constexpr std::size_t kMaxFileBytes = 16 << 20;

  // Whether target names a fleet rather than one host.
  static bool isList(std::string_view target);

  // The hosts in the order given, each once. A list that cannot be taken as
  // a whole (no such file, a prefix wider than /16, an empty item) is a
  // usage CtlError; a line of a file that is no host is one Host with an
  // error, so the others still run.
  static std::vector<Host> parse(std::string_view target);

  // The hosts of a host file's text: blank lines and # comments left out.
  static std::vector<Host> parseLines(std::string_view text);

  // The usable addresses of an IPv4 network, e.g. "10.0.0.0/30" (dotted);
  // a usage CtlError for anything else.
  static std::vector<std::string> expandCidr(std::string_view cidr);

 private:
  static void add(std::vector<Host>& hosts, Host host);
};

}  // namespace varloctl
