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
  switch (v.kind()) {
    case Value::Kind::Null:
      return "-";
    case Value::Kind::Bool:
      return v.asBool() ? "yes" : "no";
    case Value::Kind::Integer:
      return std::to_string(v.asInteger());
    case Value::Kind::String: {
      std::string out;
      for (char c : v.asString()) {
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
    case Value::Kind::Array:
      return "[...]";
    case Value::Kind::Object:
      return "{...}";
  }
  return {};
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
  for (const auto& m : v.members())
    if (m.value.isScalar()) labelWidth = std::max(labelWidth, width(label(m.key)));
  for (const auto& m : v.members()) {
    if (!m.value.isScalar()) continue;
    margin(out, indent);
    pad(out, label(m.key), labelWidth + 2);
    out += cell(m.value);
    out += '\n';
  }
  for (const auto& m : v.members()) {
    if (m.value.isScalar()) continue;
    if (!out.empty()) out += '\n';
    margin(out, indent);
    out += label(m.key) + ":\n";
    writeValue(out, m.value, indent + 2);
  }
}

void TableWriter::writeArray(std::string& out, const Value& v, int indent) {
  const auto& items = v.items();
  if (items.empty()) {
    margin(out, indent);
    out += "(none)\n";
    return;
  }
  const bool rows = std::all_of(items.begin(), items.end(),
                                [](const Value& i) { return i.kind() == Value::Kind::Object; });
  if (!rows) {
    for (const auto& i : items) writeValue(out, i, indent);
    return;
  }
  // Objects holding lists of their own do not fit a row: one block each.
  const bool nested = std::any_of(items.begin(), items.end(), [](const Value& i) {
    return std::any_of(i.members().begin(), i.members().end(),
                       [](const Value::Member& m) { return !m.value.isScalar(); });
  });
  if (nested) {
    for (std::size_t n = 0; n < items.size(); ++n) {
      if (n > 0) out += '\n';
      writeObject(out, items[n], indent);
    }
    return;
  }
  // Columns in order of first appearance; a row without a column shows "".
  std::vector<std::string> keys;
  for (const auto& i : items)
    for (const auto& m : i.members())
      if (std::find(keys.begin(), keys.end(), m.key) == keys.end()) keys.push_back(m.key);

  std::vector<std::vector<std::string>> table;
  table.emplace_back();
  for (const auto& k : keys) table.back().push_back(heading(k));
  for (const auto& i : items) {
    table.emplace_back();
    for (const auto& k : keys) {
      const Value* c = i.find(k);
      table.back().push_back(c != nullptr ? cell(*c) : std::string());
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
  switch (v.kind()) {
    case Value::Kind::Object:
      writeObject(out, v, indent);
      break;
    case Value::Kind::Array:
      writeArray(out, v, indent);
      break;
    default:
      margin(out, indent);
      out += cell(v) + '\n';
      break;
  }
}

std::string TableWriter::write(const Value& v) {
  std::string out;
  writeValue(out, v, 0);
  return out;
}

}  // namespace varloctl
