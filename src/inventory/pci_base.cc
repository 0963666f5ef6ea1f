#include "inventory/pci_base.h"

#include "session/list_batches.h"
#include "varlo/device_records.h"

template class CPciBase<pcilinux>;
