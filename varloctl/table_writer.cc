#include "varloctl/table_writer.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <vector>

namespace varloctl {
namespace {

// Display width, counting each UTF-8 sequence once.
std::size_t width(std::string_view s) {
  return static_cast<std::size_t>(std::count_if(
      s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

void pad(std::string& out, std::string_view text, std::size_t to) {
  out += text;
  out.append(to - std::min(to, width(text)), ' ');
}

void margin(std::string& out, int indent) { out.append(static_cast<std::size_t>(indent), ' '); }

}  // namespace

std::string TableWriter::cell(const Value& v) {
  switch (v.type()) {
    case Value::value_t::null:
      return "-";
    case Value::value_t::boolean:
      return v.get<bool>() ? "yes" : "no";
    case Value::value_t::string:
      return text(v.get_ref<const std::string&>());
    case Value::value_t::array:
      return "[...]";
    case Value::value_t::object:
      return "{...}";
    default:  // numbers; commands give integers only
      return v.dump();
  }
}

std::string TableWriter::text(std::string_view s) {
  std::string out;
  for (char c : s) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02x", u);
      out += buf;
    } else {
      out += c;
    }
  }
  return out;
}

std::string TableWriter::label(std::string_view key) {
  std::string out(key);
  std::replace(out.begin(), out.end(), '_', ' ');
  return out;
}

std::string TableWriter::heading(std::string_view key) {
  std::string out = label(key);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

void TableWriter::writeObject(std::string& out, const Value& v, int indent) {
  std::size_t labelWidth = 0;
  for (const auto& [key, value] : v.items())
    if (value.is_primitive()) labelWidth = std::max(labelWidth, width(label(key)));
  for (const auto& [key, value] : v.items()) {
    if (!value.is_primitive()) continue;
    margin(out, indent);
    pad(out, label(key), labelWidth + 2);
    out += cell(value);
    out += '\n';
  }
  for (const auto& [key, value] : v.items()) {
    if (value.is_primitive()) continue;
    if (!out.empty()) out += '\n';
    margin(out, indent);
    out += label(key) + ":\n";
    writeValue(out, value, indent + 2);
  }
}

void TableWriter::writeArray(std::string& out, const Value& v, int indent) {
  if (v.empty()) {
    margin(out, indent);
    out += "(none)\n";
    return;
  }
  const bool rows = std::all_of(v.begin(), v.end(), [](const Value& i) { return i.is_object(); });
  if (!rows) {
    for (const auto& i : v) writeValue(out, i, indent);
    return;
  }
  // Objects holding lists of their own do not fit a row: one block each.
  const bool nested = std::any_of(v.begin(), v.end(), [](const Value& i) {
    return std::any_of(i.begin(), i.end(), [](const Value& m) { return !m.is_primitive(); });
  });
  if (nested) {
    for (std::size_t n = 0; n < v.size(); ++n) {
      if (n > 0) out += '\n';
      writeObject(out, v[n], indent);
    }
    return;
  }
  // Columns in order of first appearance; a row without a column shows "".
  std::vector<std::string> keys;
  for (const auto& i : v)
    for (const auto& [key, value] : i.items())
      if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);

  std::vector<std::vector<std::string>> table;
  table.emplace_back();
  for (const auto& k : keys) table.back().push_back(heading(k));
  for (const auto& i : v) {
    table.emplace_back();
    for (const auto& k : keys) {
      const auto c = i.find(k);
      table.back().push_back(c != i.end() ? cell(*c) : std::string());
    }
  }
  std::vector<std::size_t> widths(keys.size(), 0);
  for (const auto& row : table)
    for (std::size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], width(row[c]));
  for (const auto& row : table) {
    std::string line;
    for (std::size_t c = 0; c < row.size(); ++c) {
      if (c + 1 < row.size())
        pad(line, row[c], widths[c] + 2);
      else
        line += row[c];
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    margin(out, indent);
    out += line + '\n';
  }
}

void TableWriter::writeValue(std::string& out, const Value& v, int indent) {
  if (v.is_object()) {
    writeObject(out, v, indent);
  } else if (v.is_array()) {
    writeArray(out, v, indent);
  } else {
    margin(out, indent);
    out += cell(v) + '\n';
  }
}

std::string TableWriter::write(const Value& v) {
  std::string out;
  writeValue(out, v, 0);
  return out;
}

}  // namespace varloctl
