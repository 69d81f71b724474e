#include "Output.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iomanip>
#include <iostream>

namespace zelctl {
namespace {

// The length of the well-formed UTF-8 sequence of two or more bytes at
// `at`, or 0. Overlong forms, surrogates and values above U+10FFFF are not
// well-formed.
size_t Utf8Length(const std::string& text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  if (byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (size_t i = at + 2; i < at + length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  }
  return length;
}

// The letter of the escape of a control character that has a named one,
// else 0.
char EscapeLetter(unsigned char c) {
  switch (c) {
    case 0x1B: return 'e';
    case '\a': return 'a';
    case '\b': return 'b';
    case '\t': return 't';
    case '\n': return 'n';
    case '\v': return 'v';
    case '\f': return 'f';
    case '\r': return 'r';
    case '\\': return '\\';
  }
  return 0;
}

std::string ByteEscape(unsigned char byte) {
  char escaped[5];
  std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
  return escaped;
}

std::string C1Escape(unsigned char codePoint) {
  char escaped[7];
  std::snprintf(escaped, sizeof escaped, "\\u%04x", codePoint);
  return escaped;
}

std::string Cell(const nlohmann::ordered_json& value) {
  if (value.is_string()) return Printable(value.get<std::string>());
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_array() || value.is_object()) {
    std::string joined;
    for (const auto& item : value.items()) {
      if (!joined.empty()) joined += ",";
      if (value.is_object()) joined += Printable(item.key()) + "=";
      joined += Cell(item.value());
    }
    return joined;
  }
  if (value.is_null()) return "";
  return value.dump();
}

}  // namespace

std::string Printable(const std::string& text) {
  std::string shown;
  shown.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[at]);
    if (c >= 0x80) {
      const size_t length = Utf8Length(text, at);
      if (length == 0) {
        shown += ByteEscape(c);
        ++at;
      } else if (c == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0) {
        shown += C1Escape(static_cast<unsigned char>(text[at + 1]));
        at += length;
      } else {
        shown.append(text, at, length);
        at += length;
      }
      continue;
    }
    if (const char letter = EscapeLetter(c)) {
      shown += '\\';
      shown += letter;
    } else if (c < 0x20 || c == 0x7F) {
      shown += ByteEscape(c);
    } else {
      shown += static_cast<char>(c);
    }
    ++at;
  }
  return shown;
}

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
    // A name that is not UTF-8 is shown with U+FFFD in its place rather
    // than failing the whole command.
    std::cout << record.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
              << '\n';
  } else {
    human();
  }
}

void ReportDone(bool json, const std::string& done,
                const std::function<nlohmann::ordered_json()>& changed) {
  if (json) {
    Emit(true, changed(), [] {});
  } else {
    std::cout << done << '\n';
  }
}

}  // namespace zelctl
