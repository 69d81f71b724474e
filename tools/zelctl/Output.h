// Human output: aligned tables for lists, key/value blocks for one record.
// Both are rendered from the same JSON as --json prints, so the two views
// never disagree.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zelctl {

// One column per key, in the order given; nested values are shown compactly.
void PrintTable(std::ostream& out, const nlohmann::ordered_json& rows,
                const std::vector<std::string>& columns);

// "key: value" lines, the keys aligned.
void PrintKeyValues(std::ostream& out, const nlohmann::ordered_json& record);

// --json prints `record` as is; otherwise `human` runs.
void Emit(bool json, const nlohmann::ordered_json& record, const std::function<void()>& human);

}  // namespace zelctl
