// The host as a probe reply describes it.
#include "intake/host_description.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <sys/utsname.h>

#include <atomic>
#include <thread>

#include "inventory/net_source.h"
#include "prefs/prefs.h"
#include "test_support.h"

using namespace std::chrono_literals;

namespace {

// While gAnswer is set, this host's name resolves to it after gDelayMs; gAsked counts.
std::atomic<std::uint32_t> gAnswer{0};
std::atomic<int> gDelayMs{0}, gAsked{0};

std::uint32_t ip(int k) { return 0xC0000200u + static_cast<std::uint32_t>(k); }  // 192.0.2.k

struct NoInterfaces : NetSource {
  InterfaceList interfaces() override { return InterfaceList(nullptr, [](ifaddrs*) {}); }
  std::optional<std::vector<DefaultRoute>> defaultRoutes() override { return std::nullopt; }
  unsigned indexOf(const std::string&) override { return 0; }
};

}  // namespace

extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                           addrinfo** found) {
  using Real = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "getaddrinfo"));
  utsname host{};
  uname(&host);
  host.nodename[31] = '\0';  // as much of it as a reply carries
  if (gAnswer == 0 || name == nullptr || name != std::string(host.nodename))
    return real(name, service, hints, found);
  ++gAsked;
  std::this_thread::sleep_for(std::chrono::milliseconds(gDelayMs.load()));
  const in_addr answer{htonl(gAnswer.load())};
  char text[INET_ADDRSTRLEN];
  return real(inet_ntop(AF_INET, &answer, text, sizeof text), service, hints, found);
}

TEST(HostDescription, PrimaryIsTheResolvedAddressElseTheFirstAndTenOthersAtMost) {
  // Interfaces in name order; the one at 192.0.2.k has the gateway 192.0.3.k.
  std::vector<HostDescription::Interface> twelve;
  for (int k = 1; k <= 12; ++k)
    twelve.push_back({ip(k), ip(k) + 0x100, 0xFFFFFF00, {2, 0, 0, 0, 0, std::uint8_t(k)}});
  for (const auto& [count, resolved, primary, others] :
       {std::tuple{3, 2, 2, "1 3"}, {3, 0, 1, "2 3"}, {12, 0, 1, "2 3 4 5 6 7 8 9 10 11"},
        {12, 12, 12, "1 2 3 4 5 6 7 8 9 10"}}) {
    varlo::varlo_probe_reply r;
    r.ipAddress = resolved == 0 ? 0 : ip(resolved);
    HostDescription::placeInterfaces({twelve.begin(), twelve.begin() + count}, r);
    EXPECT_EQ(r.ipAddress, ip(primary));
    EXPECT_EQ(r.gateway, ip(primary) + 0x100);
    EXPECT_EQ(r.hwAddress[5], primary);
    std::string placed;
    for (std::size_t i = 0; i < r.otherIp.size() && r.otherIp[i] != 0; ++i) {
      placed += (i ? " " : "") + std::to_string(r.otherIp[i] - ip(0));
      EXPECT_EQ(r.otherGateway[i], r.otherIp[i] + 0x100);
    }
    EXPECT_EQ(placed, others) << count << " " << resolved;
  }
}

TEST(HostDescription, OsVersionPutsTheMajorIntoTheThirdHexDigit) {
  for (const auto& [release, want] :
       {std::pair{"6.1.0-18-amd64", 0x0610u}, {"6.18.44", 0x0699u}, {"10.4.11", 0x0A49u}})
    EXPECT_EQ(HostDescription::osVersionOf(release), want) << release;
}

TEST(HostDescription, ReplyNeverWaitsAndTheNameIsAskedAgainOnlyWhenItsFilesChange) {
  test_support::TempDir t;
  test_support::spit(t / "hosts", "one");
  CPrefs prefs{PrefsSources{}};
  gAnswer = ip(2);
  HostDescription unwatched(prefs, {.net = std::make_shared<NoInterfaces>(), .watch = false});
  EXPECT_EQ(unwatched.reply().ipAddress, ip(2));  // asked by the reply itself
  gAsked = 0;
  gDelayMs = 500;
  HostDescription host(prefs, {.resolverFiles = {t / "hosts"}, .net = std::make_shared<NoInterfaces>()});
  const auto addressOnceItIs = [&](std::uint32_t want) {
    std::uint32_t got = 0;
    for (const auto end = std::chrono::steady_clock::now() + 3s;
         (got = host.reply().ipAddress) != want && std::chrono::steady_clock::now() < end;)
      std::this_thread::sleep_for(10ms);
    return got;  // or what it still is after three seconds
  };
  // The look-up takes half a second; the replies meanwhile go out at once.
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(host.reply().ipAddress, 0u);
  EXPECT_LT(std::chrono::steady_clock::now() - before, 100ms);
  EXPECT_EQ(addressOnceItIs(ip(2)), ip(2));

  // Another answer is not looked for while the files stay as they were...
  gAnswer = ip(3);
  host.reply();
  std::this_thread::sleep_for(700ms);
  EXPECT_EQ(host.reply().ipAddress, ip(2));
  EXPECT_EQ(gAsked, 1);
  // ...but is once a new file is renamed over the old one.
  test_support::spit(t / "hosts.new", "two");
  ASSERT_EQ(std::rename((t / "hosts.new").c_str(), (t / "hosts").c_str()), 0);
  EXPECT_EQ(addressOnceItIs(ip(3)), ip(3));
  EXPECT_EQ(gAsked, 2);
  gDelayMs = 0;
  gAnswer = 0;
}
