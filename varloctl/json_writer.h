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

  // Agent text is bytes in no declared encoding: valid UTF-8 stays as it
  // is, any other byte is read as Latin-1, so the result is always UTF-8.
  static std::string utf8(std::string_view text);
};

}  // namespace varloctl
