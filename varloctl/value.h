// The result of a command as a small tree (objects keep their member order),
// so that one result can be printed either as a table or as JSON.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace varloctl {

class Value {
 public:
  struct Member;
  using Array = std::vector<Value>;
  using Object = std::vector<Member>;
  enum class Kind { Null, Bool, Integer, String, Array, Object };

  Value() = default;
  static Value boolean(bool b);
  static Value integer(std::int64_t n);
  static Value string(std::string s);
  static Value array();
  static Value object();

  Kind kind() const { return static_cast<Kind>(data_.index()); }
  bool isScalar() const { return kind() != Kind::Array && kind() != Kind::Object; }

  bool asBool() const { return std::get<bool>(data_); }
  std::int64_t asInteger() const { return std::get<std::int64_t>(data_); }
  const std::string& asString() const { return std::get<std::string>(data_); }
  const Array& items() const { return std::get<Array>(data_); }
  const Object& members() const { return std::get<Object>(data_); }

  // Appends to an array or an object; returns *this so calls chain.
  Value& push(Value v);
  Value& add(std::string key, Value v);

  // The member named key of an object, or nullptr.
  const Value* find(const std::string& key) const;

 private:
  // Alternatives in the order of Kind.
  std::variant<std::monostate, bool, std::int64_t, std::string, Array, Object> data_;
};

struct Value::Member {
  std::string key;
  Value value;
};

}  // namespace varloctl
