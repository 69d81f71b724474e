#include "Output.h"

#include <algorithm>
#include <functional>
#include <iomanip>
#include <iostream>

namespace zelctl {
namespace {

std::string Cell(const nlohmann::ordered_json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_array()) {
    std::string joined;
    for (const auto& item : value) {
      if (!joined.empty()) joined += ",";
      joined += item.is_string() ? item.get<std::string>() : item.dump();
    }
    return joined;
  }
  if (value.is_null()) return "";
  return value.dump();
}

}  // namespace

void PrintTable(std::ostream& out, const nlohmann::ordered_json& rows,
                const std::vector<std::string>& columns) {
  std::vector<size_t> widths;
  for (const std::string& column : columns) widths.push_back(column.size());
  std::vector<std::vector<std::string>> cells;
  for (const auto& row : rows) {
    std::vector<std::string> line;
    for (size_t i = 0; i < columns.size(); ++i) {
      line.push_back(Cell(row.contains(columns[i]) ? row[columns[i]] : nullptr));
      widths[i] = std::max(widths[i], line.back().size());
    }
    cells.push_back(std::move(line));
  }
  auto printLine = [&](const std::vector<std::string>& line) {
    std::string text;
    for (size_t i = 0; i < line.size(); ++i) {
      text += line[i];
      if (i + 1 < line.size()) text += std::string(widths[i] - line[i].size() + 2, ' ');
    }
    out << text << '\n';
  };
  printLine(columns);
  for (const auto& line : cells) printLine(line);
}

void PrintKeyValues(std::ostream& out, const nlohmann::ordered_json& record) {
  size_t width = 0;
  for (const auto& item : record.items()) width = std::max(width, item.key().size());
  for (const auto& item : record.items()) {
    out << std::left << std::setw(static_cast<int>(width + 1)) << (item.key() + ":") << ' '
        << Cell(item.value()) << '\n';
  }
}

void Emit(bool json, const nlohmann::ordered_json& record, const std::function<void()>& human) {
  if (json) {
    std::cout << record.dump(2) << '\n';
  } else {
    human();
  }
}

}  // namespace zelctl
