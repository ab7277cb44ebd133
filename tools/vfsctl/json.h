// JSON as the tool reads and writes it: members keep the order in which they were set.
#pragma once

#include <nlohmann/json.hpp>

using json_value = nlohmann::ordered_json;
