#pragma once
// Text that goes out to files and terminals. CSV as RFC 4180 has it, for the tables the host writes and reads: a field holding a
// comma, a double quote, CR or LF is enclosed in double quotes, with each double quote
// inside doubled. Names come from scheme files, so any of these can appear in them.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host {

// The field as it goes into a CSV line: unchanged, or quoted when it has to be.
std::string csvField(std::string_view text);

// Splits one line into fields, undoing the quoting; fields that are not quoted are trimmed
// of blanks. Empty when a quoted field is not closed on the line (*error says why).
std::optional<std::vector<std::string>> splitCsvLine(std::string_view line, std::string* error);

// Text from a scheme file made safe for a terminal: control characters other than
// newline and tab (an escape sequence could rewrite the screen) become \xNN.
std::string printable(std::string_view text);

}  // namespace host
