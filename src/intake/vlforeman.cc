#include "intake/vlforeman.h"

#include <chrono>

#include <sys/wait.h>

#include <cstdio>
#include <system_error>

#include "core/vllog.h"
#include "intake/vlbuffer.h"

VLForeman::VLForeman(VLBuffer& buffer, CommandTable table)
    : VLWorker(nullptr, table), buffer_(buffer) {}

void VLForeman::run() {
  Log->LogMessage("Foreman going to work");
  buffer_.registerCallback(&sem_);
  // Connections queued before we listened must not wait for the next one.
  for (std::size_t queued = buffer_.size(); queued > 0; --queued) sem_.semUp();
  while (!quit_) {
    if (!sem_.semDownFor(std::chrono::seconds(1))) {
      reapChildren();
      continue;
    }
    checkWorkers();
    if (quit_) break;
    if (!buffer_.empty()) hire();
  }
  buffer_.unregisterCallback(&sem_);
  Log->LogMessage("Foreman Thread Finished");
}

void VLForeman::hire() {
  VLBuffer::connInfo conn;
  if (!buffer_.pop(conn)) return;
  VLWorker::task handed{conn.socket, conn.peer, std::move(conn.data)};
  auto worker = std::make_unique<VLWorker>(nullptr, table());
  worker->init(&handed);
  try {
    Thread thread([w = worker.get()] { w->run(); });
    crew_.push_back(Hand{std::move(worker), std::move(thread)});
  } catch (const std::system_error& e) {
    char text[299];
    std::snprintf(text, sizeof text, "Unable to spawn worker thread.  Error: %d", e.code().value());
    Log->LogMessage(text);
    // The worker goes at once, and with it the connection it cannot serve.
  }
}

void VLForeman::reapChildren() {
  for (Hand& hand : crew_) hand.worker->returnPids(pids_);
  for (auto it = pids_.begin(); it != pids_.end();) {
    if (waitpid(*it, nullptr, WNOHANG) == *it) {
      it = pids_.erase(it);
    } else {
      ++it;
    }
  }
}

void VLForeman::checkWorkers() {
  if (crew_.empty()) {
    reapChildren();
    return;
  }
  Log->LogMessage("Checking for finished workers");
  for (auto it = crew_.begin(); it != crew_.end();) {
    if (!it->worker->finished()) {
      ++it;
      continue;
    }
    it->thread.join();
    it->worker->returnPids(pids_);
    it = crew_.erase(it);
  }
  Log->LogMessage("There are " + std::to_string(crew_.size()) + " workers still running");
  reapChildren();
}

void VLForeman::exit() {
  quit_ = true;
  sem_.semUp();
}

VLForeman::~VLForeman() {
  Log->LogMessage("Foreman: Notifying workers of quitting time");
  Log->LogMessage(std::to_string(crew_.size()) + " threads need to close");
  // Every command still running stops at its next step; none is cancelled,
  // since a cancelled thread could die holding the log's lock.
  for (Hand& hand : crew_)
    if (!hand.worker->finished()) hand.worker->requestStop();
  for (Hand& hand : crew_) hand.thread.join();
  crew_.clear();
  Log->LogMessage("Foreman exiting");
}
