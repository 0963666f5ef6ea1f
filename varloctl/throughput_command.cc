#include "varloctl/throughput_command.h"

#include <chrono>
#include <cstdio>

#include "varlo/volume_records.h"
#include "varloctl/progress.h"

namespace varloctl {

std::unique_ptr<Command> ThroughputCommand::make(const std::vector<std::string>&) {
  return std::make_unique<ThroughputCommand>();
}

std::string ThroughputCommand::rateText(std::uint64_t bytes, std::int64_t microseconds) {
  if (microseconds <= 0) return "-";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f",
                static_cast<double>(bytes) / static_cast<double>(microseconds));
  return buf;
}

Value ThroughputCommand::run(Session& session) {
  using varlo::varlo_list_header;
  using varlo::varlo_volume;
  using Clock = std::chrono::steady_clock;
  Value rows = Value::array();
  std::vector<std::uint8_t> data(kBlock);
  for (std::size_t n = 0;; ++n) {
    const auto bytes = n == 0 ? receiveFirstReply<varlo_list_header::kSize>(session)
                              : session.receive<varlo_list_header::kSize>();
    requireSuccess(bytes, "the agent could not run the throughput test");
    const auto header = varlo_list_header::decode(bytes);
    if (header.prefix.last) break;
    if (header.count != 1)
      throw CtlError(kBadReply, "the agent announced " + std::to_string(header.count) +
                                    " partitions at once; the test takes one at a time");
    if (n == kMaxPartitions)
      throw CtlError(kBadReply, "the agent announced more than " +
                                    std::to_string(kMaxPartitions) + " partitions");
    const auto volume = session.receive<varlo_volume::kSize>();
    const std::string name(varlo::getPString<varlo_volume::Name>(volume));
    if (progress_ != nullptr) progress_->text("measuring " + name);
    const auto start = Clock::now();
    session.receive(data.data(), data.size());
    const auto us =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    rows.push_back(Value{
        {"partition", name}, {"microseconds", us}, {"megabytes_per_second", rateText(kBlock, us)}});
    // The go-ahead for the next partition.
    session.send(varlo::varlo_cmd_header::Bytes{});
  }
  return rows;
}

}  // namespace varloctl
