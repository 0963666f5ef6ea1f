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

template <typename Entry, typename Header = varlo::varlo_list_header>
class ListBatches {
 public:
  // onFullBatch runs before each full batch goes out (some lists log it).
  ListBatches(std::uint16_t command, const RecordSink& sink,
              std::function<void(std::size_t)> onFullBatch = {})
      : sink_(sink), onFullBatch_(std::move(onFullBatch)) {
    header_.prefix = varlo::ReplyPrefix{command, true, false, 0};
  }

  // Runs after each full batch was delivered; false ends the answer there,
  // without a closing header (the lists that pause between batches, and
  // stop when the session is told to).
  void setPause(std::function<bool()> pause) { pause_ = std::move(pause); }

  // The header every batch is sent behind, for lists whose header carries
  // more than the count.
  Header& header() { return header_; }

  // 0, or -1 once a block could not be delivered or the pause said stop.
  int add(const Entry& entry) {
    entry.writeSlot(buffer_.data() + filled_ * Entry::kSize);
    if (++filled_ < Entry::kBatch) return 0;
    if (onFullBatch_) onFullBatch_(filled_);
    int result = flush(false);
    filled_ = 0;
    if (result == 0 && pause_ && !pause_()) result = -1;
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

  Header header_{};
  const RecordSink& sink_;
  std::function<void(std::size_t)> onFullBatch_;
  std::function<bool()> pause_;
  // Cleared once: a slot keeps whatever bytes of an earlier entry its own
  // writer leaves alone, as the console has always received them.
  std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(Entry::kSize * Entry::kBatch, 0);
  std::size_t filled_ = 0;
};
