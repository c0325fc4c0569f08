#include "Csv.h"

#include <cctype>

namespace host {

namespace {

std::string trimmed(std::string_view s) {
    std::size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return std::string(s.substr(b, e - b));
}

}  // namespace

std::string printable(std::string_view text) {
    static const char* const hex = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7f) {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += ch;
        }
    }
    return out;
}

std::string csvField(std::string_view text) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(text);
    std::string q = "\"";
    for (char c : text) {
        if (c == '"') q += '"';
        q += c;
    }
    return q + '"';
}

std::optional<std::vector<std::string>> splitCsvLine(std::string_view line, std::string* error) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::vector<std::string> fields;
    std::size_t i = 0;
    for (;;) {
        // Blanks before an opening quote are not part of the field.
        std::size_t start = i;
        while (start < line.size() && (line[start] == ' ' || line[start] == '\t')) ++start;
        if (start < line.size() && line[start] == '"') {
            std::string field;
            std::size_t k = start + 1;
            for (;;) {
                if (k >= line.size()) {
                    if (error) *error = "a quoted field is not closed on its line";
                    return std::nullopt;
                }
                if (line[k] == '"') {
                    if (k + 1 < line.size() && line[k + 1] == '"') {
                        field += '"';
                        k += 2;
                        continue;
                    }
                    ++k;
                    break;
                }
                field += line[k++];
            }
            while (k < line.size() && (line[k] == ' ' || line[k] == '\t')) ++k;
            if (k < line.size() && line[k] != ',') {
                if (error) *error = "text after a closing quote";
                return std::nullopt;
            }
            fields.push_back(std::move(field));
            if (k >= line.size()) return fields;
            i = k + 1;
            continue;
        }
        const std::size_t comma = line.find(',', i);
        fields.push_back(trimmed(line.substr(i, comma == std::string_view::npos ? std::string_view::npos : comma - i)));
        if (comma == std::string_view::npos) return fields;
        i = comma + 1;
    }
}

}  // namespace host
