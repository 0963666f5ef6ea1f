#include "inventory/pci_handler.h"

#include "inventory/pci_linux.h"
#include "session/list_batches.h"
#include "session/session.h"
#include "varlo/device_records.h"

int sendPciList(CPciBase<pcilinux>& pci, const RecordSink& sink) {
  using varlo::varlo_pci;
  ListBatches<varlo_pci> batches(varlo::kPciCommand, sink);
  pci.enumPCIDevices();
  pci.resetPtr();
  pcilinux dev;
  while (pci.getNext(dev) == 0)
    if (batches.add(varlo_pci{dev.name, dev.type, dev.slot, dev.vendor}) != 0) return -1;
  return batches.finish();
}

void sendPCIData(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  CPciLinux pci;
  sendPciList(pci, session.sink());
}
