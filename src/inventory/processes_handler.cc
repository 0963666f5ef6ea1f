#include "inventory/processes_handler.h"

#include "inventory/process_info.h"
#include "session/list_batches.h"
#include "session/session.h"

int sendProcessList(CProcessInfo& info, const RecordSink& sink) {
  using varlo::varlo_proc;
  ListBatches<varlo_proc> batches(varlo::kProcessesCommand, sink);
  info.enumProcesses();
  info.rewind();
  varlo_proc entry;
  while (info.getNext(entry) == 0)
    if (batches.add(entry) != 0) return -1;
  return batches.finish();
}

void sendProcessData(Session& session, std::uint16_t) {
  if (!session.connected()) return;
  CProcessInfo processes;
  sendProcessList(processes, session.sink());
}
