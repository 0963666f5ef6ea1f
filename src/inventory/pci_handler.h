// PCI (27): the PCI functions in batches of four.
#pragma once

#include <cstdint>

#include "inventory/pci_base.h"
#include "session/record_sink.h"

class Session;

// Collects with pci.enumPCIDevices(), then sends each batch of four as two
// blocks, the list header and its entries, and closes with a header whose
// last byte is 1. 0, or -1 as soon as the sink refuses a block.
int sendPciList(CPciBase<pcilinux>& pci, const RecordSink& sink);

void sendPCIData(Session& session, std::uint16_t code);
