// One agent command: the dialogue that follows the command header on its
// connection, and what it has to show for it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "varlo/records.h"
#include "varloctl/ctl_error.h"
#include "varloctl/session.h"
#include "varloctl/value.h"

namespace varloctl {

class Progress;

class Command {
 public:
  virtual ~Command() = default;
  virtual std::uint16_t code() const = 0;
  // The same request for another host: each host of a fleet runs its own
  // copy, made before setJson() and setProgress().
  virtual std::unique_ptr<Command> clone() const = 0;
  // Runs after the header was sent; throws CtlError when it cannot finish.
  virtual Value run(Session& session) = 0;
  // Told before run() when the output is JSON, for commands that show more there.
  virtual void setJson(bool) {}
  // Told before run(), for commands that take long to answer: where to show
  // how far they got. Outlives run().
  virtual void setProgress(Progress*) {}
  // For commands that must not run by mistake: the question to ask before
  // connecting, e.g. "reboot HOST?"; empty when there is none to ask.
  virtual std::string confirmation(const std::string& /*host*/) const { return {}; }

  // Text from the agent or the disk, safe to print: control characters escaped.
  static std::string agentText(std::string_view text);

 protected:
  // The first reply of a command is where a rejected password shows: a
  // record of that reply's size with status 0xFF in its prefix.
  template <std::size_t N>
  static varlo::WireRecord<N> receiveFirstReply(Session& session) {
    auto r = session.receive<N>();
    if (varlo::ReplyPrefix::decodeFrom(r).status == varlo::ReplyPrefix::kPasswordRejected)
      throw CtlError(kWrongPassword, "wrong password");
    return r;
  }

  // Every entry of a batched list: list headers, each followed by its
  // entries, up to the one marked last. noun names the entries in errors;
  // maxEntries only stops a runaway peer. An empty batch that is not the
  // last is an agent's heartbeat while it still collects: up to
  // maxHeartbeats of them do not count as batches.
  template <typename Entry>
  static std::vector<Entry> receiveList(Session& session, const std::string& failure,
                                        const std::string& noun,
                                        std::size_t maxEntries = kMaxListEntries,
                                        std::size_t maxHeartbeats = 0) {
    using varlo::varlo_list_header;
    const std::size_t maxBatches = maxEntries / Entry::kBatch + 1;
    std::vector<Entry> list;
    for (std::size_t batches = 0, heartbeats = 0;;) {
      if (batches == maxBatches)
        throw CtlError(kBadReply, "the agent sent more than " + std::to_string(maxBatches) +
                                      " batches of " + noun + " without a last one");
      const auto bytes = batches + heartbeats == 0
                             ? receiveFirstReply<varlo_list_header::kSize>(session)
                             : session.receive<varlo_list_header::kSize>();
      requireSuccess(bytes, failure);
      const auto header = varlo_list_header::decode(bytes);
      if (header.count == 0 && !header.prefix.last && heartbeats < maxHeartbeats) {
        ++heartbeats;
        continue;
      }
      ++batches;
      if (list.size() + header.count > maxEntries)
        throw CtlError(kBadReply,
                       "the agent announced more than " + std::to_string(maxEntries) + " " + noun);
      for (std::uint16_t i = 0; i < header.count; ++i) {
        const auto entry = session.receive<Entry::kSize>();
        list.push_back(Entry::decodeAt(entry.data()));
      }
      if (header.prefix.last) return list;
    }
  }

  // A sane agent sends a handful of disks, volumes, devices or addresses.
  static constexpr std::size_t kMaxListEntries = 65536;
  // Heartbeats come once a second: a week of them, for a census of a huge
  // file system, while a peer that sends nothing else is still stopped.
  static constexpr std::size_t kMaxHeartbeats = 7 * 24 * 3600;

  // Throws a failure CtlError with `failure`, and the agent's reason when it
  // gave one in the message field, when the success byte of a varlo_manage
  // reply is 0.
  static void requireManageSuccess(const varlo::varlo_manage::Bytes& r,
                                   const std::string& failure);

  // Throws a failure CtlError with `failure` when the success byte is 0.
  template <std::size_t N>
  static void requireSuccess(const varlo::WireRecord<N>& r, const std::string& failure) {
    if (!varlo::ReplyPrefix::decodeFrom(r).success) throw CtlError(kFailed, failure);
  }
};

// The base of each command class: clone() is its copy constructor.
template <typename Self>
class CommandOf : public Command {
 public:
  std::unique_ptr<Command> clone() const override {
    return std::make_unique<Self>(static_cast<const Self&>(*this));
  }
};

}  // namespace varloctl
