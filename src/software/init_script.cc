#include "software/init_script.h"

namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// True when the word's first seven characters hold key ("DAEMON=" or
// "NAME="), so "PNAME=x" counts as a NAME= and "DAEMON_ARGS=" does not.
bool assigns(std::string_view word, std::string_view key) {
  return word.substr(0, 7).find(key) != std::string_view::npos;
}

}  // namespace

CInitScript::Verdict CInitScript::serviceOf(std::string_view script, std::string& service) {
  std::string_view daemon;
  std::string_view name;
  std::size_t i = 0;
  while (i < script.size()) {
    while (i < script.size() && isBlank(script[i])) ++i;
    const std::size_t start = i;
    while (i < script.size() && !isBlank(script[i])) ++i;
    const std::string_view word = script.substr(start, i - start);
    if (word.empty()) break;
    const auto eq = word.find('=');
    if (eq == std::string_view::npos) continue;
    if (assigns(word, "DAEMON=")) {
      daemon = word.substr(eq + 1);
    } else if (assigns(word, "NAME=")) {
      name = word.substr(eq + 1);
      break;
    }
  }

  std::string_view chosen = daemon;
  if (chosen.empty()) {
    if (name.size() < 2) return Verdict::kNoName;
    chosen = name;
  }
  if (chosen.find('$') != std::string_view::npos) return Verdict::kVariable;
  const auto slash = chosen.rfind('/');
  const std::string_view base = slash == std::string_view::npos ? chosen : chosen.substr(slash + 1);
  // "DAEMON=/usr/sbin/" names no program.
  if (base.empty()) return Verdict::kNoName;
  service = std::string(base);
  return Verdict::kService;
}
