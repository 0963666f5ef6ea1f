// Records of the system actions: Shutdown/Reboot (12, 13), Sync Clock (14)
// and Quit Process (15). The others answer with varlo_manage.
#pragma once

#include <cstdint>
#include <string_view>

#include "varlo/coding.h"
#include "varlo/records.h"

namespace varlo {

// The answer to Shutdown/Reboot: the prefix (command left 0, last 1) and a
// failure text.
struct varlo_shutdown {
  static constexpr std::size_t kSize = kShutdownRecordSize;
  using Bytes = WireRecord<kSize>;
  using Message = Field<12, 256>;
  static_assert(Message::end == kSize);

  static Bytes reply(bool success, std::string_view message = {}) {
    Bytes r{};
    ReplyPrefix{0, success, true, 0}.encodeInto(r);
    if (!message.empty()) putPString<Message>(r, message);
    return r;
  }
};

// Sync Clock's request: the console's local time in seconds since
// 1904-01-01 00:00:00.
struct varlo_clock_request {
  static constexpr std::size_t kSize = 4;
  using Bytes = WireRecord<kSize>;
  using Seconds = Field<0, 4>;
  // From 1904-01-01 to 1970-01-01.
  static constexpr std::uint32_t kEpochOffset = 2082844800u;
};

// Quit Process's request: a process serial number whose low word is the pid.
struct varlo_quit_request {
  static constexpr std::size_t kSize = 8;
  using Bytes = WireRecord<kSize>;
  using High = Field<0, 4>;
  using Pid = Field<4, 4>;
};

}  // namespace varlo
