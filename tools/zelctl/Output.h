// Human output: aligned tables for lists, key/value blocks for one record,
// one line for a change. Tables and blocks are rendered from the same JSON
// as --json prints, so the two views never disagree.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zelctl {

// `text` as it may reach a terminal: names come from whoever wrote
// zel.conf or typed the command, and an escape sequence in one must not
// move the cursor or clear the screen. A backslash is doubled; ESC, BEL,
// BS, TAB, LF, VT, FF and CR become \e \a \b \t \n \v \f \r; every other
// control character (C0 and DEL) and a byte that is not part of valid
// UTF-8 become \xNN, and a C1 control character (U+0080 to U+009F) \u00NN.
// Everything else, UTF-8 letters included, is kept.
std::string Printable(const std::string& text);

// One column per key, in the order given; nested values are shown compactly
// (a list as "a,b", an object as "key=value,key=value").
void PrintTable(std::ostream& out, const nlohmann::ordered_json& rows,
                const std::vector<std::string>& columns);

// "key: value" lines, the keys aligned.
void PrintKeyValues(std::ostream& out, const nlohmann::ordered_json& record);

// --json prints `record` as is; otherwise `human` runs.
void Emit(bool json, const nlohmann::ordered_json& record, const std::function<void()>& human);

// A change that succeeded: --json prints the record `changed` returns (what
// the change left behind); otherwise the one line `done`, whose values the
// caller has passed through Printable. `changed` runs only for --json.
void ReportDone(bool json, const std::string& done,
                const std::function<nlohmann::ordered_json()>& changed);

}  // namespace zelctl
