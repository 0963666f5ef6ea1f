#include "varloctl/value.h"

#include <utility>

namespace varloctl {

Value Value::boolean(bool b) {
  Value v;
  v.data_ = b;
  return v;
}

Value Value::integer(std::int64_t n) {
  Value v;
  v.data_ = n;
  return v;
}

Value Value::string(std::string s) {
  Value v;
  v.data_ = std::move(s);
  return v;
}

Value Value::array() {
  Value v;
  v.data_ = Array{};
  return v;
}

Value Value::object() {
  Value v;
  v.data_ = Object{};
  return v;
}

Value& Value::push(Value v) {
  std::get<Array>(data_).push_back(std::move(v));
  return *this;
}

Value& Value::add(std::string key, Value v) {
  std::get<Object>(data_).push_back(Member{std::move(key), std::move(v)});
  return *this;
}

const Value* Value::find(const std::string& key) const {
  for (const Member& m : members())
    if (m.key == key) return &m.value;
  return nullptr;
}

}  // namespace varloctl
