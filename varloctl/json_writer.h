// Prints a Value as one JSON document, two-space indented.
#pragma once

#include <string>
#include <string_view>

#include "varloctl/value.h"

namespace varloctl {

class JsonWriter {
 public:
  // The document followed by a newline.
  static std::string write(const Value& v);

  // A JSON string literal. Agent text is bytes in no declared encoding:
  // valid UTF-8 passes through, any other byte is read as Latin-1, so the
  // output is always valid UTF-8.
  static std::string quote(std::string_view text);

 private:
  static void writeValue(std::string& out, const Value& v, int depth);
};

}  // namespace varloctl
