#include "inventory/pci_linux.h"

#include <dirent.h>

#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>

extern "C" {
#include <pci/pci.h>
}

#include "base/dir_handle.h"
#include "core/vllog.h"

namespace {

// libpci reports a failure it cannot get past by calling its error hook,
// which must not return (the library's own exits the process). Ours jumps
// back to the guarded() frame that made the call, on the calling thread.
struct Guard {
  std::jmp_buf env;
};
thread_local Guard* tlsGuard = nullptr;
thread_local char tlsMessage[256];

// The GNU attribute, not [[noreturn]]: it is part of the hook's type.
__attribute__((noreturn)) void fatalHook(char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(tlsMessage, sizeof tlsMessage, format, ap);
  va_end(ap);
  if (tlsGuard == nullptr) std::abort();  // a libpci call outside guarded()
  std::longjmp(tlsGuard->env, 1);
}

// libpci copes with what it warns about by itself.
void quietHook(char*, ...) {}

// Runs step, which calls into libpci; false when libpci gave up inside it.
// The jump skips destructors, so step must not hold an object that has one
// across a libpci call.
template <typename Step>
bool guarded(Step&& step) {
  Guard guard;
  Guard* const outer = tlsGuard;
  tlsGuard = &guard;
  if (setjmp(guard.env) != 0) {
    tlsGuard = outer;
    return false;
  }
  step();
  tlsGuard = outer;
  return true;
}

struct AccessCloser {
  void operator()(pci_access* a) const {
    guarded([a] { pci_cleanup(a); });
  }
};
using Access = std::unique_ptr<pci_access, AccessCloser>;

// libpci gives up on the whole bus at an entry it cannot parse, and would
// leave its directory open doing so; checking first avoids that.
bool busListable(const std::string& devicesDir) {
  DirHandle d(opendir(devicesDir.c_str()));
  if (!d) return false;
  while (const dirent* e = readdir(d.get())) {
    if (e->d_name[0] == '.') continue;
    unsigned domain = 0, bus = 0, dev = 0;
    int func = 0;
    if (std::sscanf(e->d_name, "%x:%x:%x.%d", &domain, &bus, &dev, &func) < 4 ||
        domain > 0x7fffffff)
      return false;
  }
  return true;
}

// Names come from one lookup context per ID database for the life of the
// process, so the database is parsed once, not on every PCI command. The
// lock serialises the workers' lookups.
class NameLookup {
 public:
  static NameLookup& forDatabase(const std::string& idsFile) {
    static std::mutex mutex;
    static std::map<std::string, std::unique_ptr<NameLookup>> byFile;
    std::lock_guard<std::mutex> lock(mutex);
    auto& entry = byFile[idsFile];
    if (!entry) entry.reset(new NameLookup(idsFile));
    return *entry;
  }

  ~NameLookup() {
    if (access_ != nullptr) guarded([this] { pci_cleanup(access_); });
  }

  // The name libpci looks up, or its numeric form ("Device 1042") when the
  // database has none.
  std::string lookup(int flags, int id1, int id2 = 0) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (access_ == nullptr) return {};
    char buf[256];
    const char* name = nullptr;
    if (!guarded([&] { name = pci_lookup_name(access_, buf, sizeof buf, flags, id1, id2); }) ||
        name == nullptr)
      return {};
    return name;
  }

 private:
  explicit NameLookup(std::string idsFile) : idsFile_(std::move(idsFile)) {
    access_ = pci_alloc();
    if (access_ == nullptr) return;
    access_->error = fatalHook;
    access_->warning = quietHook;
    access_->debug = quietHook;  // pci_init would set these; the lookups need no access method
    access_->id_lookup_mode = 0;  // no ~/.pciids-cache, no DNS
    if (!idsFile_.empty()) pci_set_name_list_path(access_, idsFile_.data(), 0);
    // Names from the ID file alone: the udev hardware database holds the
    // same names, and libpci leaks a udev context on every query of it.
    pci_set_param(access_, const_cast<char*>("hwdb.disable"), const_cast<char*>("1"));
  }

  std::mutex mutex_;
  std::string idsFile_;
  pci_access* access_ = nullptr;
};

}  // namespace

CPciLinux::CPciLinux(HostRoots roots, std::string idsFile)
    : roots_(std::move(roots)), idsFile_(std::move(idsFile)) {}

std::string CPciLinux::address(int domain, int bus, int dev, int func) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04x:%02x:%02x.%x", static_cast<unsigned>(domain),
                static_cast<unsigned>(bus), static_cast<unsigned>(dev),
                static_cast<unsigned>(func));
  return buf;
}

int CPciLinux::enumPCIDevices() {
  clearDevices();
  const std::string busDir = roots_.sysPath("/bus/pci");
  Access acc(pci_alloc());
  if (!acc || !busListable(busDir + "/devices")) {
    Log->LogMessage("Could not get master port");
    return 0;
  }
  pci_access* a = acc.get();
  a->error = fatalHook;
  a->warning = quietHook;
  a->method = PCI_ACCESS_SYS_BUS_PCI;
  pci_set_param(a, const_cast<char*>("sysfs.path"), const_cast<char*>(busDir.c_str()));
  if (!guarded([a] {
        pci_init(a);
        pci_scan_bus(a);
      })) {
    Log->LogMessage("Could not get master port");
    return 0;
  }

  NameLookup& names = NameLookup::forDatabase(idsFile_);
  for (pci_dev* d = a->devices; d != nullptr; d = d->next) {
    pcilinux entry;
    if (guarded([d] { pci_fill_info(d, PCI_FILL_IDENT); })) {
      entry.vendor = d->vendor_id;
      entry.name = names.lookup(PCI_LOOKUP_DEVICE, d->vendor_id, d->device_id);
      if (entry.name.size() > kMaxName) entry.name.resize(kMaxName);
    } else {
      Log->LogMessage("Failed to get vendor code");
    }
    if (guarded([d] { pci_fill_info(d, PCI_FILL_CLASS); }))
      entry.type = names.lookup(PCI_LOOKUP_CLASS, d->device_class);
    else
      Log->LogMessage("failed to get device type");
    // Most machines, and every virtual one, name no physical slots.
    if (guarded([d] { pci_fill_info(d, PCI_FILL_PHYS_SLOT); }) && d->phy_slot != nullptr &&
        d->phy_slot[0] != '\0')
      entry.slot = d->phy_slot;
    else
      entry.slot = address(d->domain, d->bus, d->dev, d->func);
    addDevice(std::move(entry));
  }
  resetPtr();
  return 0;
}

int CPciLinux::getNextDevice(std::uint16_t& vendor, std::string& name, std::string& slot,
                             std::string& type) {
  pcilinux d;
  if (getNext(d) != 0) return -1;
  vendor = d.vendor;
  name = std::move(d.name);
  slot = std::move(d.slot);
  type = std::move(d.type);
  return 0;
}
