#include "software/named_list.h"

#include "session/list_batches.h"
#include "varlo/software_records.h"

int sendNamedList(std::uint16_t command, const RecordSink& sink, const BatchPause& pause,
                  bool clearSlots, const NextNamed& next) {
  ListBatches<varlo::varlo_app> batches(command, sink);
  if (pause) batches.setPause(pause);
  varlo::varlo_app entry;
  entry.clearSlot = clearSlots;
  std::uint32_t index = 0;
  while (next(entry.name, entry.version) == 0) {
    entry.index = ++index;
    if (batches.add(entry) != 0) return -1;
  }
  return batches.finish();
}
