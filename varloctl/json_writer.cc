#include "varloctl/json_writer.h"

#include <cstdint>
#include <utility>

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

// The same tree with every string and key made UTF-8, which the library
// insists on when it prints.
Value utf8Tree(const Value& v) {
  if (v.is_string()) return JsonWriter::utf8(v.get_ref<const std::string&>());
  if (v.is_array()) {
    Value out = Value::array();
    for (const Value& item : v) out.push_back(utf8Tree(item));
    return out;
  }
  if (v.is_object()) {
    Value out = Value::object();
    for (const auto& [key, value] : v.items()) out[JsonWriter::utf8(key)] = utf8Tree(value);
    return out;
  }
  return v;
}

}  // namespace

std::string JsonWriter::utf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    if (const std::size_t len = utf8Sequence(text.substr(i)); len != 0) {
      out.append(text.substr(i, len));
      i += len;
      continue;
    }
    const auto c = static_cast<std::uint8_t>(text[i++]);
    out += static_cast<char>(0xC0 | c >> 6);
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
  return out;
}

std::string JsonWriter::write(const Value& v) {
  const std::string doc = utf8Tree(v).dump(2);
  // The library leaves DEL and the C1 controls (U+0080 to U+009F) as they
  // are, which a terminal may act on; as escapes they are only text. In a
  // document of valid UTF-8 these bytes occur only inside strings.
  std::string out;
  out.reserve(doc.size() + 1);
  for (std::size_t i = 0; i < doc.size(); ++i) {
    const auto c = static_cast<std::uint8_t>(doc[i]);
    const auto next = i + 1 < doc.size() ? static_cast<std::uint8_t>(doc[i + 1]) : 0;
    if (c == 0x7F || (c == 0xC2 && next >= 0x80 && next <= 0x9F)) {
      const unsigned code = c == 0x7F ? c : next;
      const char hex[] = "0123456789abcdef";
      out += "\\u00";
      out += hex[code >> 4];
      out += hex[code & 0xF];
      i += c == 0x7F ? 0 : 1;
      continue;
    }
    out += doc[i];
  }
  return out + '\n';
}

}  // namespace varloctl
