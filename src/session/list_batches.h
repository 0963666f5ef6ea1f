// Sends a list reply the way every list command frames it: batches of up to
// Entry::kBatch entries, each behind a list header and sent as two blocks
// (header, then entries), and a closing header with its last byte set that
// may carry no entries.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "session/record_sink.h"
#include "varlo/records.h"

template <typename Entry>
class ListBatches {
 public:
  // onFullBatch runs before each full batch goes out (some lists log it).
  ListBatches(std::uint16_t command, const RecordSink& sink,
              std::function<void(std::size_t)> onFullBatch = {})
      : header_{varlo::ReplyPrefix{command, true, false, 0}, 0, 0},
        sink_(sink),
        onFullBatch_(std::move(onFullBatch)) {}

  // 0, or -1 once a block could not be delivered.
  int add(const Entry& entry) {
    entry.writeSlot(buffer_.data() + filled_ * Entry::kSize);
    if (++filled_ < Entry::kBatch) return 0;
    if (onFullBatch_) onFullBatch_(filled_);
    const int result = flush(false);
    filled_ = 0;
    return result;
  }

  int finish() { return flush(true); }

 private:
  int flush(bool last) {
    header_.count = static_cast<std::uint16_t>(filled_);
    header_.prefix.last = last;
    const auto h = header_.encode();
    if (sink_(h.data(), h.size()) != 0) return -1;
    if (filled_ > 0 && sink_(buffer_.data(), filled_ * Entry::kSize) != 0) return -1;
    return 0;
  }

  varlo::varlo_list_header header_;
  const RecordSink& sink_;
  std::function<void(std::size_t)> onFullBatch_;
  // Cleared once: a slot keeps whatever bytes of an earlier entry its own
  // writer leaves alone, as the console has always received them.
  std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(Entry::kSize * Entry::kBatch, 0);
  std::size_t filled_ = 0;
};
