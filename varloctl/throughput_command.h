// throughput: the agent streams 1 MiB from each of its local partitions;
// the time each takes to arrive here gives the partition's rate.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "varloctl/command.h"

namespace varloctl {

class ThroughputCommand : public CommandOf<ThroughputCommand> {
 public:
  static constexpr std::uint16_t kCode = 24;
  static constexpr std::size_t kBlock = 1024 * 1024;
  // Stops an agent that announces partitions without end.
  static constexpr std::size_t kMaxPartitions = 4096;

  static std::unique_ptr<Command> make(const std::vector<std::string>& arguments);
  std::uint16_t code() const override { return kCode; }
  void setProgress(Progress* progress) override { progress_ = progress; }
  Value run(Session& session) override;

  // "12.3" MB/s for bytes in microseconds; "-" when too fast to time.
  static std::string rateText(std::uint64_t bytes, std::int64_t microseconds);

 private:
  Progress* progress_ = nullptr;
};

}  // namespace varloctl
