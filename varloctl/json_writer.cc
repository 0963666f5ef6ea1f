#include "varloctl/json_writer.h"

#include <cstdint>
#include <cstdio>

namespace varloctl {
namespace {

// Length of the well-formed UTF-8 sequence at the start of s, or 0.
std::size_t utf8Sequence(std::string_view s) {
  const auto b = [&](std::size_t i) { return static_cast<std::uint8_t>(s[i]); };
  const std::uint8_t lead = b(0);
  std::size_t len;
  std::uint32_t cp;
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) {
    len = 2;
    cp = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    len = 3;
    cp = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    len = 4;
    cp = lead & 0x07;
  } else {
    return 0;
  }
  if (s.size() < len) return 0;
  for (std::size_t i = 1; i < len; ++i) {
    if ((b(i) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b(i) & 0x3F);
  }
  // Overlong forms, surrogates and code points past U+10FFFF are not UTF-8.
  if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000)) return 0;
  if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return 0;
  return len;
}

void appendEscape(std::string& out, unsigned code) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "\\u%04x", code);
  out += buf;
}

const char* shortEscape(unsigned char c) {
  switch (c) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '\b':
      return "\\b";
    case '\f':
      return "\\f";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return nullptr;
  }
}

void indent(std::string& out, int depth) { out.append(static_cast<std::size_t>(depth) * 2, ' '); }

}  // namespace

std::string JsonWriter::quote(std::string_view text) {
  std::string out = "\"";
  std::size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (const char* e = shortEscape(c)) {
      out += e;
      ++i;
      continue;
    }
    const std::size_t len = c < 0x20 || c == 0x7F ? 0 : utf8Sequence(text.substr(i));
    if (len == 0) {
      appendEscape(out, c);
      ++i;
    } else {
      out.append(text.substr(i, len));
      i += len;
    }
  }
  out += '"';
  return out;
}

void JsonWriter::writeValue(std::string& out, const Value& v, int depth) {
  switch (v.kind()) {
    case Value::Kind::Null:
      out += "null";
      break;
    case Value::Kind::Bool:
      out += v.asBool() ? "true" : "false";
      break;
    case Value::Kind::Integer:
      out += std::to_string(v.asInteger());
      break;
    case Value::Kind::String:
      out += quote(v.asString());
      break;
    case Value::Kind::Array: {
      const auto& items = v.items();
      if (items.empty()) {
        out += "[]";
        break;
      }
      out += "[\n";
      for (std::size_t i = 0; i < items.size(); ++i) {
        indent(out, depth + 1);
        writeValue(out, items[i], depth + 1);
        out += i + 1 < items.size() ? ",\n" : "\n";
      }
      indent(out, depth);
      out += ']';
      break;
    }
    case Value::Kind::Object: {
      const auto& members = v.members();
      if (members.empty()) {
        out += "{}";
        break;
      }
      out += "{\n";
      for (std::size_t i = 0; i < members.size(); ++i) {
        indent(out, depth + 1);
        out += quote(members[i].key);
        out += ": ";
        writeValue(out, members[i].value, depth + 1);
        out += i + 1 < members.size() ? ",\n" : "\n";
      }
      indent(out, depth);
      out += '}';
      break;
    }
  }
}

std::string JsonWriter::write(const Value& v) {
  std::string out;
  writeValue(out, v, 0);
  out += '\n';
  return out;
}

}  // namespace varloctl
