// Prints a Value for people: an object as aligned "label  value" lines, an
// array of objects as a table with a heading row (objects that hold lists,
// as blocks one after the other).
#pragma once

#include <string>
#include <string_view>

#include "varloctl/value.h"

namespace varloctl {

class TableWriter {
 public:
  static std::string write(const Value& v);

  // A scalar as one cell.
  static std::string cell(const Value& v);
  // Text with its control characters as \xHH, so that agent text cannot
  // move the terminal's cursor.
  static std::string text(std::string_view s);

  // "hardware_address" -> "hardware address"; headings are upper case.
  static std::string label(std::string_view key);
  static std::string heading(std::string_view key);

 private:
  static void writeValue(std::string& out, const Value& v, int indent);
  static void writeObject(std::string& out, const Value& v, int indent);
  static void writeArray(std::string& out, const Value& v, int indent);
};

}  // namespace varloctl
