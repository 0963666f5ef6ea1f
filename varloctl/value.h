// The result of a command as a small tree whose objects keep their member
// order, so that one result can be printed either as a table or as JSON.
// Strings hold the agent's bytes as they came; JsonWriter makes them UTF-8.
#pragma once

#include <nlohmann/json.hpp>

namespace varloctl {

using Value = nlohmann::ordered_json;

}  // namespace varloctl
