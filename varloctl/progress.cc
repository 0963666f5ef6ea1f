#include "varloctl/progress.h"

#include <cstdio>

#include "varloctl/table_writer.h"

namespace varloctl {
namespace {

std::string megabytes(double bytes) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f", bytes / 1e6);
  return buf;
}

}  // namespace

void Progress::files(std::uint32_t scanned, std::string_view where) {
  if (!enabled_) return;
  std::string text = "scanned " + std::to_string(scanned) + " files";
  // A partition's name is agent text: no control characters to the terminal.
  if (!where.empty()) text += " on " + TableWriter::text(where);
  show(std::move(text));
}

void Progress::transfer(std::uint64_t sent, std::uint64_t total, double seconds) {
  if (!enabled_) return;
  std::string text = "sent " + megabytes(static_cast<double>(sent)) + " of " +
                     megabytes(static_cast<double>(total)) + " MB";
  if (seconds > 0) text += ", " + megabytes(static_cast<double>(sent) / seconds) + " MB/s";
  show(std::move(text));
}

void Progress::text(std::string_view line) {
  if (!enabled_) return;
  show(TableWriter::text(line));
}

void Progress::show(std::string text) {
  if (text == shown_) return;
  // A shorter line (the next partition starts again at 0) must cover the old one.
  const std::size_t blanks = shown_.size() > text.size() ? shown_.size() - text.size() : 0;
  out_ << '\r' << text << std::string(blanks, ' ') << std::flush;
  shown_ = std::move(text);
}

void Progress::clear() {
  if (shown_.empty()) return;
  out_ << '\r' << std::string(shown_.size(), ' ') << '\r' << std::flush;
  shown_.clear();
}

}  // namespace varloctl
