// The PCI devices of the machine, as the PCI command lists them. The entry
// type is the platform's; each platform's collector fills the list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "session/record_sink.h"

// What a Linux collector knows of one PCI function.
struct pcilinux {
  std::uint16_t vendor = 0;
  std::string name;
  std::string slot;
  std::string type;
};

template <typename Entry>
class CPciBase {
 public:
  CPciBase() = default;
  virtual ~CPciBase() = default;
  CPciBase(const CPciBase&) = delete;
  CPciBase& operator=(const CPciBase&) = delete;

  // The base finds nothing; 0.
  virtual int enumPCIDevices() { return 0; }
  virtual void resetPtr() { pos_ = 0; }

  // The next entry in the order added; 0, or -1 at the end.
  int getNext(Entry& out) {
    if (pos_ >= devices_.size()) return -1;
    out = devices_[pos_++];
    return 0;
  }

  std::size_t size() const { return devices_.size(); }

 protected:
  void addDevice(Entry e) { devices_.push_back(std::move(e)); }
  void clearDevices() {
    devices_.clear();
    pos_ = 0;
  }

 private:
  std::vector<Entry> devices_;
  std::size_t pos_ = 0;
};

extern template class CPciBase<pcilinux>;
