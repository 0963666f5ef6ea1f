// Records shared by every command: the header that opens a session, the
// prefix of every reply, the list header and the generic manage record.
// Each is a fixed-size byte image in the console's big-endian layout.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "varlo/coding.h"

namespace varlo {

// The first five bytes of every reply record, whatever its type.
struct ReplyPrefix {
  using Command = Field<0, 2>;
  using Success = Field<2, 1>;
  using Last = Field<3, 1>;
  using Status = Field<4, 1>;
  static constexpr std::size_t kSize = 5;
  static constexpr std::uint8_t kPasswordRejected = 0xFF;

  std::uint16_t command = 0;
  bool success = false;
  bool last = false;
  std::uint8_t status = 0;

  template <std::size_t N>
  void encodeInto(WireRecord<N>& r) const {
    static_assert(N >= kSize, "a reply record holds at least the prefix");
    put16<Command>(r, command);
    put8<Success>(r, success ? 1 : 0);
    put8<Last>(r, last ? 1 : 0);
    put8<Status>(r, status);
  }

  template <std::size_t N>
  static ReplyPrefix decodeFrom(const WireRecord<N>& r) {
    static_assert(N >= kSize, "a reply record holds at least the prefix");
    return ReplyPrefix{get16<Command>(r), get8<Success>(r) != 0, get8<Last>(r) != 0,
                       get8<Status>(r)};
  }
};

// Opens every TCP session, console to agent.
struct varlo_cmd_header {
  static constexpr std::size_t kSize = 12;
  using Bytes = WireRecord<kSize>;
  using Command = Field<0, 2>;
  using Reserved = Field<2, 2>;
  using PasswordBlock = Field<4, 8>;
  static_assert(PasswordBlock::end == kSize);

  std::uint16_t command = 0;
  std::array<std::uint8_t, PasswordBlock::width> passwordBlock{};

  Bytes encode() const {
    Bytes r{};
    put16<Command>(r, command);
    std::memcpy(r.data() + PasswordBlock::offset, passwordBlock.data(), PasswordBlock::width);
    return r;
  }

  static varlo_cmd_header decode(const Bytes& r) {
    varlo_cmd_header h;
    h.command = get16<Command>(r);
    std::memcpy(h.passwordBlock.data(), r.data() + PasswordBlock::offset, PasswordBlock::width);
    return h;
  }
};

// Header of each batch of a list reply: the prefix, three zero bytes, a word
// whose meaning belongs to the list, and the count of entries that follow.
struct varlo_list_header {
  static constexpr std::size_t kSize = 14;
  using Bytes = WireRecord<kSize>;
  using Word = Field<8, 4>;
  using Count = Field<12, 2>;
  static_assert(Count::end == kSize);

  ReplyPrefix prefix;
  std::uint32_t word = 0;
  std::uint16_t count = 0;

  Bytes encode() const {
    Bytes r{};
    prefix.encodeInto(r);
    put32<Word>(r, word);
    put16<Count>(r, count);
    return r;
  }

  static varlo_list_header decode(const Bytes& r) {
    return varlo_list_header{ReplyPrefix::decodeFrom(r), get32<Word>(r), get16<Count>(r)};
  }
};

// Request and reply of the administrative and action commands.
struct varlo_manage {
  static constexpr std::size_t kSize = 324;
  using Bytes = WireRecord<kSize>;
  using KeyValue = Field<36, 4>;
  using Message = Field<68, 256>;
  static_assert(Message::end == kSize);

  // A reply of the administrative commands: all zero but the prefix.
  static Bytes reply(std::uint16_t command, bool success, bool last) {
    Bytes r{};
    ReplyPrefix{command, success, last, 0}.encodeInto(r);
    return r;
  }

  // The acknowledgement: all zero but the prefix and, when refused, the reason.
  static Bytes acknowledgement(bool success, std::string_view message = {}) {
    Bytes r{};
    ReplyPrefix{0, success, true, 0}.encodeInto(r);
    if (!message.empty()) putPString<Message>(r, message);
    return r;
  }
};

}  // namespace varlo

namespace varlo {

// Fixed sizes of the reply records that a password rejection may take the
// shape of; their fields belong to the commands that fill them.
inline constexpr std::size_t kConfigRecordSize = 1272;
inline constexpr std::size_t kNetRecordSize = 104;
inline constexpr std::size_t kScsiRecordSize = 224;
inline constexpr std::size_t kShutdownRecordSize = 268;
inline constexpr std::size_t kExtensionsRecordSize = 34;

// One stored note, both directions.
struct varlo_note {
  static constexpr std::size_t kSize = 260;
  static constexpr int kCount = 10;  // the console always exchanges ten
  using Bytes = WireRecord<kSize>;
  using Index = Field<0, 4>;
  using Text = Field<4, 256>;
  static_assert(Text::end == kSize);

  std::uint32_t index = 0;
  std::string text;

  Bytes encode() const {
    Bytes r{};
    put32<Index>(r, index);
    putPString<Text>(r, text);
    return r;
  }

  static varlo_note decode(const Bytes& r) {
    return varlo_note{get32<Index>(r), std::string(getPString<Text>(r))};
  }
};

}  // namespace varlo
