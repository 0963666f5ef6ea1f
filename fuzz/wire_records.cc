// The fixed-size records a console sends: the command header, a note, the
// manage request (its key) and the Pascal-string fields, decoded from any
// bytes. Decoding, encoding and decoding again must give the same record,
// and no text may come from outside its field.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "varlo/records.h"

using namespace varlo;

namespace {

template <std::size_t N>
WireRecord<N> recordOf(const std::uint8_t* data, std::size_t size) {
  WireRecord<N> r{};
  std::memcpy(r.data(), data, size < N ? size : N);
  return r;
}

// The text lies inside its field, right after the length byte, and is as
// long as the length byte says unless that runs past the field.
template <typename F, std::size_t N>
void checkPString(const WireRecord<N>& r) {
  const std::string_view text = getPString<F>(r);
  const auto* first = reinterpret_cast<const char*>(r.data() + F::offset + 1);
  if (text.data() != first) __builtin_trap();
  if (text.size() > F::width - 1) __builtin_trap();
  const std::size_t claimed = r[F::offset];
  if (text.size() != (claimed < F::width - 1 ? claimed : F::width - 1)) __builtin_trap();

  // Written back into a clean record, the same text reads back.
  WireRecord<N> again{};
  putPString<F>(again, text);
  if (getPString<F>(again) != text) __builtin_trap();
}

void header(const std::uint8_t* data, std::size_t size) {
  const auto wire = recordOf<varlo_cmd_header::kSize>(data, size);
  const varlo_cmd_header h = varlo_cmd_header::decode(wire);
  const auto back = h.encode();
  // Every byte but the reserved pair (written as zero) comes back.
  for (std::size_t i = 0; i < wire.size(); ++i) {
    const bool reserved = i >= varlo_cmd_header::Reserved::offset &&
                          i < varlo_cmd_header::Reserved::end;
    if (back[i] != (reserved ? 0 : wire[i])) __builtin_trap();
  }
  const varlo_cmd_header again = varlo_cmd_header::decode(back);
  if (again.command != h.command || again.passwordBlock != h.passwordBlock) __builtin_trap();
}

void note(const std::uint8_t* data, std::size_t size) {
  const auto wire = recordOf<varlo_note::kSize>(data, size);
  checkPString<varlo_note::Text>(wire);
  const varlo_note n = varlo_note::decode(wire);
  if (n.index != getU32(wire.data())) __builtin_trap();
  if (n.text != getPString<varlo_note::Text>(wire)) __builtin_trap();
  const auto back = n.encode();
  const varlo_note again = varlo_note::decode(back);
  if (again.index != n.index || again.text != n.text) __builtin_trap();
  // Only the index, the length byte and the text are written; the rest is zero.
  const std::size_t used = varlo_note::Text::offset + 1 + n.text.size();
  if (std::memcmp(back.data(), wire.data(), used) != 0) __builtin_trap();
  for (std::size_t i = used; i < back.size(); ++i)
    if (back[i] != 0) __builtin_trap();
}

void manage(const std::uint8_t* data, std::size_t size) {
  auto wire = recordOf<varlo_manage::kSize>(data, size);
  checkPString<varlo_manage::Message>(wire);
  // The key the DBMS request carries, and its reply built on the request.
  const std::uint32_t key = get32<varlo_manage::KeyValue>(wire);
  if (key != getU32(wire.data() + varlo_manage::KeyValue::offset)) __builtin_trap();
  const ReplyPrefix prefix = ReplyPrefix::decodeFrom(wire);
  ReplyPrefix{prefix.command, prefix.success, true, 0}.encodeInto(wire);
  if (get32<varlo_manage::KeyValue>(wire) != key) __builtin_trap();
  const ReplyPrefix reply = ReplyPrefix::decodeFrom(wire);
  if (reply.command != prefix.command || reply.success != prefix.success || !reply.last ||
      reply.status != 0)
    __builtin_trap();
  WireRecord<varlo_manage::kSize> keyed{};
  put32<varlo_manage::KeyValue>(keyed, key);
  if (get32<varlo_manage::KeyValue>(keyed) != key) __builtin_trap();
}

void listHeader(const std::uint8_t* data, std::size_t size) {
  const auto wire = recordOf<varlo_list_header::kSize>(data, size);
  const varlo_list_header h = varlo_list_header::decode(wire);
  const varlo_list_header again = varlo_list_header::decode(h.encode());
  if (again.word != h.word || again.count != h.count || again.prefix.command != h.prefix.command ||
      again.prefix.success != h.prefix.success || again.prefix.last != h.prefix.last ||
      again.prefix.status != h.prefix.status)
    __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  header(data, size);
  note(data, size);
  manage(data, size);
  listHeader(data, size);
  return 0;
}
