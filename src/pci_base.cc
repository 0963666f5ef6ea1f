#include "pci_base.h"

#include "varlo/device_records.h"

template class CPciBase<pcilinux>;

int sendPciList(CPciBase<pcilinux>& pci, const RecordSink& sink) {
  using varlo::varlo_pci;
  if (!sink) return -1;
  varlo::varlo_list_header header{varlo::ReplyPrefix{varlo::kPciCommand, true, false, 0}, 0, 0};
  // Cleared once: a slot keeps the tail of an earlier, longer text.
  std::vector<std::uint8_t> batch(varlo_pci::kSize * varlo_pci::kBatch, 0);
  pci.enumPCIDevices();
  pci.resetPtr();

  std::size_t filled = 0;
  pcilinux dev;
  while (pci.getNext(dev) == 0) {
    varlo_pci{dev.name, dev.type, dev.slot, dev.vendor}.writeSlot(batch.data() +
                                                                  filled * varlo_pci::kSize);
    if (++filled < varlo_pci::kBatch) continue;
    header.count = static_cast<std::uint16_t>(filled);
    const auto h = header.encode();
    if (sink(h.data(), h.size()) != 0 || sink(batch.data(), batch.size()) != 0) return -1;
    filled = 0;
  }
  header.count = static_cast<std::uint16_t>(filled);
  header.prefix.last = true;
  const auto h = header.encode();
  if (sink(h.data(), h.size()) != 0) return -1;
  if (filled > 0 && sink(batch.data(), filled * varlo_pci::kSize) != 0) return -1;
  return 0;
}
