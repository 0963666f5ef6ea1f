#include "varloctl/progress.h"

#include "varloctl/table_writer.h"
#include "varloctl/value.h"

namespace varloctl {

void Progress::files(std::uint32_t scanned, std::string_view where) {
  if (!enabled_) return;
  std::string text = "scanned " + std::to_string(scanned) + " files";
  // A partition's name is agent text: no control characters to the terminal.
  if (!where.empty()) text += " on " + TableWriter::cell(Value::string(std::string(where)));
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
