#include "pci_base.h"

#include "list_batches.h"
#include "varlo/device_records.h"

template class CPciBase<pcilinux>;

int sendPciList(CPciBase<pcilinux>& pci, const RecordSink& sink) {
  using varlo::varlo_pci;
  if (!sink) return -1;
  ListBatches<varlo_pci> batches(varlo::kPciCommand, sink);
  pci.enumPCIDevices();
  pci.resetPtr();
  pcilinux dev;
  while (pci.getNext(dev) == 0)
    if (batches.add(varlo_pci{dev.name, dev.type, dev.slot, dev.vendor}) != 0) return -1;
  return batches.finish();
}
