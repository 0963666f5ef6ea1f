#include "varloctl/fleet_report.h"

#include <algorithm>
#include <string>

#include "varloctl/ctl_error.h"

namespace varloctl {
namespace {

bool isRecord(const Value& v) {
  return v.is_object() &&
         std::all_of(v.begin(), v.end(), [](const Value& m) { return m.is_primitive(); });
}

bool isRecordList(const Value& v) {
  return v.is_array() && std::all_of(v.begin(), v.end(), isRecord);
}

}  // namespace

Value FleetReport::table() const {
  bool records = true, lists = true, anyOk = false, anyFailed = false;
  for (const Fleet::Outcome& o : outcomes_) {
    if (o.status != kOk) {
      anyFailed = true;
      continue;
    }
    anyOk = true;
    records = records && isRecord(o.result);
    lists = lists && isRecordList(o.result);
  }

  if (anyOk && !records && !lists) {
    // A block a host, the host as a value so that it shows as given.
    Value blocks = Value::array();
    for (std::size_t i = 0; i < hosts_.size(); ++i) {
      const Fleet::Outcome& o = outcomes_[i];
      Value block = {{"host", hosts_[i].name}};
      if (o.status != kOk)
        block["error"] = o.error;
      else if (o.result.is_object())
        block.update(o.result);
      else
        block["answer"] = o.result;
      blocks.push_back(std::move(block));
    }
    return blocks;
  }

  // The columns in order of first appearance, so that every row, a failed
  // host's too, lists them in the same order.
  std::vector<std::string> columns{"host"};
  const auto addColumns = [&columns](const Value& record) {
    for (const auto& [key, value] : record.items())
      if (std::find(columns.begin(), columns.end(), key) == columns.end()) columns.push_back(key);
  };
  for (const Fleet::Outcome& o : outcomes_) {
    if (o.status != kOk) continue;
    if (records) addColumns(o.result);
    if (lists && !records)
      for (const Value& r : o.result) addColumns(r);
  }
  if (anyFailed) columns.push_back("error");

  Value rows = Value::array();
  const auto addRow = [&](const std::string& host, const Value& record, const std::string& error) {
    Value row = Value::object();
    for (const std::string& c : columns) {
      if (c == "host") {
        row[c] = host;
      } else if (c == "error" && anyFailed) {
        row[c] = error;
      } else {
        const auto at = record.find(c);
        row[c] = at != record.end() ? *at : Value("");
      }
    }
    rows.push_back(std::move(row));
  };
  for (std::size_t i = 0; i < hosts_.size(); ++i) {
    const Fleet::Outcome& o = outcomes_[i];
    if (o.status != kOk) {
      addRow(hosts_[i].name, Value::object(), o.error);
    } else if (o.result.is_object()) {
      addRow(hosts_[i].name, o.result, "");
    } else {
      for (const Value& r : o.result) addRow(hosts_[i].name, r, "");
    }
  }
  return rows;
}

Value FleetReport::json() const {
  Value doc = Value::object();
  for (std::size_t i = 0; i < hosts_.size(); ++i) {
    const Fleet::Outcome& o = outcomes_[i];
    doc[hosts_[i].name] =
        o.status == kOk ? o.result : Value{{"error", o.error}, {"status", o.status}};
  }
  return doc;
}

int FleetReport::status() const {
  for (const Fleet::Outcome& o : outcomes_)
    if (o.status != kOk) return o.status;
  return kOk;
}

}  // namespace varloctl
