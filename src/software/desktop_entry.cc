#include "software/desktop_entry.h"

#include <algorithm>

namespace {

std::string_view trim(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  const auto last = s.find_last_not_of(" \t\r");
  return s.substr(first, last - first + 1);
}

std::string unescape(std::string_view v) {
  std::string out;
  out.reserve(v.size());
  for (std::size_t i = 0; i < v.size(); ++i) {
    if (v[i] != '\\' || i + 1 == v.size()) {
      out += v[i];
      continue;
    }
    switch (v[++i]) {
      case 's': out += ' '; break;
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case 'r': out += '\r'; break;
      case '\\': out += '\\'; break;
      default: out += '\\'; out += v[i]; break;
    }
  }
  return out;
}

// A string list: ';'-separated, "\;" standing for a ';' inside an item.
std::vector<std::string> splitList(std::string_view v) {
  std::vector<std::string> items;
  std::string item;
  for (std::size_t i = 0; i < v.size(); ++i) {
    if (v[i] == '\\' && i + 1 < v.size() && v[i + 1] == ';') {
      item += ';';
      ++i;
    } else if (v[i] == ';') {
      const std::string_view kept = trim(item);
      if (!kept.empty()) items.emplace_back(kept);
      item.clear();
    } else {
      item += v[i];
    }
  }
  const std::string_view kept = trim(item);
  if (!kept.empty()) items.emplace_back(kept);
  return items;
}

}  // namespace

bool DesktopEntry::inCategory(std::string_view category) const {
  return std::find(categories.begin(), categories.end(), category) != categories.end();
}

DesktopEntry DesktopEntry::parse(std::string_view text) {
  DesktopEntry entry;
  bool inGroup = false;
  while (!text.empty()) {
    const auto eol = text.find('\n');
    std::string_view line = text.substr(0, eol);
    text = eol == std::string_view::npos ? std::string_view{} : text.substr(eol + 1);
    line = trim(line);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      // The entry's own group ends where the next begins (its actions).
      if (entry.hasGroup && inGroup) break;
      inGroup = line == "[Desktop Entry]";
      entry.hasGroup = entry.hasGroup || inGroup;
      continue;
    }
    if (!inGroup) continue;
    const auto eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    const std::string_view key = trim(line.substr(0, eq));
    const std::string_view value = trim(line.substr(eq + 1));
    if (key == "Name") {
      entry.name = unescape(value);
    } else if (key == "Categories") {
      entry.categories = splitList(value);
    } else if (key == "Hidden") {
      entry.hidden = value == "true";
    }
  }
  return entry;
}
