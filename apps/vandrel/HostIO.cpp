#include "HostIO.h"

#include <cctype>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "Csv.h"
#include "vandrel/core/BlockParameter.h"
#include "vandrel/core/Wire.h"
#include "vandrel/scheme/SimulationSystemScheme.h"

namespace host {

namespace {

std::vector<WireSlot> ioWires(const wSimulationSystemScheme& scheme, bool isInput) {
    const auto& io = scheme.getIOBlock();
    const wLeadList& leads = io.getLeads(isInput, false);
    std::vector<WireSlot> out;
    for (std::size_t i = 0; i < leads.size(); ++i) {
        const int offset = isInput ? io.getInputWireOffset(static_cast<int>(i)) : io.getOutputWireOffset(static_cast<int>(i));
        out.push_back({std::string(leads[i].name), leads[i].type, offset});
    }
    return out;
}

// Number of doubles a vector or quaternion slot holds; 0 for scalar types.
int componentCount(eLeadType t) {
    return t == LEAD_VECTOR ? 3 : (t == LEAD_QUATERNION ? 4 : 0);
}

std::string trim(std::string_view s) {
    std::size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return std::string(s.substr(b, e - b));
}

// Strict number parsing: the whole text must be one number.
bool parseDouble(std::string_view text, double* out) {
    const std::string t = trim(text);
    if (t.empty()) return false;
    char* end = nullptr;
    *out = std::strtod(t.c_str(), &end);
    return end == t.c_str() + t.size();
}

bool parseLong(std::string_view text, long long* out) {
    const std::string t = trim(text);
    if (t.empty()) return false;
    char* end = nullptr;
    *out = std::strtoll(t.c_str(), &end, 10);
    return end == t.c_str() + t.size();
}

std::vector<std::string> splitComponents(std::string_view text) {
    std::string t = trim(text);
    if (t.size() >= 2 && (t.front() == '(' || t.front() == '{' || t.front() == '[')) t = t.substr(1, t.size() - 2);
    std::vector<std::string> parts;
    std::string cur;
    for (char c : t) {
        if (c == ',' || c == ';') {
            parts.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    parts.push_back(cur);
    return parts;
}

}  // namespace

// Integer, object-id and boolean inputs take whole numbers in their range (booleans 0 or 1):
// converting anything else would invent a value.
std::string InputSeries::checkCell(const Column& col, double v) {
    if (col.component >= 0) return {};
    switch (col.wire.type) {
        case LEAD_INT:
            if (!(v >= INT32_MIN && v <= INT32_MAX && v == std::trunc(v))) return "not a 32-bit integer: " + doubleToString(v);
            return {};
        case LEAD_OBJECT_ID:
            if (!(v >= 0 && v <= UINT32_MAX && v == std::trunc(v))) return "not an object id: " + doubleToString(v);
            return {};
        case LEAD_BOOL:
            if (v != 0.0 && v != 1.0) return "a boolean is 0 or 1, got " + doubleToString(v);
            return {};
        default: return {};
    }
}

std::vector<WireSlot> schemeOutputs(const wSimulationSystemScheme& scheme) { return ioWires(scheme, true); }
std::vector<WireSlot> schemeInputs(const wSimulationSystemScheme& scheme) { return ioWires(scheme, false); }

std::vector<std::string> columnNames(const WireSlot& w) {
    static const char* const suffix[] = {".x", ".y", ".z", ".w"};
    if (w.type == LEAD_OBJECT_PTR) return {};
    const int n = componentCount(w.type);
    if (n == 0) return {w.name};
    std::vector<std::string> names;
    for (int i = 0; i < n; ++i) names.push_back(w.name + suffix[i]);
    return names;
}

std::string formatNumber(double v, int precision) {
    if (precision <= 0) return doubleToString(v);
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.*g", precision, v);
    return buf;
}

std::string lowerExtension(const std::string& file) {
    std::string ext = std::filesystem::path(file).extension().string();
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

void appendValues(std::string& line, const unsigned char* data, const WireSlot& w, int precision) {
    switch (w.type) {
        case LEAD_INT: line += ',' + std::to_string(readWire<int>(data, w.offset)); break;
        case LEAD_BOOL: line += readWire<bool>(data, w.offset) ? ",1" : ",0"; break;
        case LEAD_DOUBLE: line += ',' + formatNumber(readWire<double>(data, w.offset), precision); break;
        case LEAD_VECTOR:
        case LEAD_QUATERNION:
            for (int i = 0; i < componentCount(w.type); ++i)
                line += ',' + formatNumber(readWire<double>(data, w.offset + 8 * i), precision);
            break;
        case LEAD_OBJECT_ID: line += ',' + std::to_string(readWire<unsigned>(data, w.offset)); break;
        case LEAD_OBJECT_PTR: break;
    }
}

std::string writeValue(unsigned char* data, const WireSlot& w, std::string_view text) {
    const std::string bad = "cannot read \"" + std::string(text) + "\" as " + leadTypeNames[w.type] + " for " + w.name;
    switch (w.type) {
        case LEAD_INT:
        case LEAD_OBJECT_ID: {
            long long v = 0;
            if (!parseLong(text, &v)) return bad;
            if (w.type == LEAD_INT) {
                if (v < INT32_MIN || v > INT32_MAX) return bad + " (out of range)";
                writeWire<int>(data, w.offset, static_cast<int>(v));
            } else {
                if (v < 0 || v > UINT32_MAX) return bad + " (out of range)";
                writeWire<unsigned>(data, w.offset, static_cast<unsigned>(v));
            }
            return {};
        }
        case LEAD_BOOL: {
            const std::string t = trim(text);
            if (t == "true" || t == "1") writeWire<bool>(data, w.offset, true);
            else if (t == "false" || t == "0") writeWire<bool>(data, w.offset, false);
            else return bad;
            return {};
        }
        case LEAD_DOUBLE: {
            double v = 0;
            if (!parseDouble(text, &v)) return bad;
            writeWire<double>(data, w.offset, v);
            return {};
        }
        case LEAD_VECTOR:
        case LEAD_QUATERNION: {
            const auto parts = splitComponents(text);
            const int n = componentCount(w.type);
            if (static_cast<int>(parts.size()) != n) return bad + " (expected " + std::to_string(n) + " components)";
            for (int i = 0; i < n; ++i) {
                double v = 0;
                if (!parseDouble(parts[static_cast<std::size_t>(i)], &v)) return bad;
                writeWire<double>(data, w.offset + 8 * i, v);
            }
            return {};
        }
        case LEAD_OBJECT_PTR: return "input " + w.name + " carries object pointers and cannot be set";
    }
    return bad;
}

InputSeries::InputSeries(const std::string& fileName, const std::vector<WireSlot>& inputs) {
    std::ifstream in(fileName);
    if (!in) throw std::runtime_error("Cannot open file: " + fileName);
    auto fail = [&](int line, const std::string& why) {
        throw std::runtime_error(fileName + ":" + std::to_string(line) + ": " + why);
    };
    std::string line;
    int lineNo = 0;
    // Header: time, then input names or name.component.
    while (std::getline(in, line)) {
        ++lineNo;
        if (!trim(line).empty()) break;
    }
    std::string why;
    const auto parsedHeader = splitCsvLine(line, &why);
    if (!parsedHeader) fail(lineNo, why);
    const std::vector<std::string>& header = *parsedHeader;
    if (header.empty() || header[0] != "time") fail(lineNo, "the first column must be \"time\"");
    for (std::size_t c = 1; c < header.size(); ++c) {
        const std::string& h = header[c];
        bool found = false;
        for (const WireSlot& w : inputs) {
            const auto names = columnNames(w);
            for (std::size_t k = 0; k < names.size(); ++k) {
                if (names[k] != h) continue;
                columns_.push_back({w, componentCount(w.type) == 0 ? -1 : static_cast<int>(k)});
                found = true;
            }
        }
        if (!found) fail(lineNo, "no scheme input wire \"" + h + "\"");
    }
    // Rows of numbers (bools as 0/1) with non-decreasing time.
    while (std::getline(in, line)) {
        ++lineNo;
        if (trim(line).empty()) continue;
        const auto parsed = splitCsvLine(line, &why);
        if (!parsed) fail(lineNo, why);
        const std::vector<std::string>& cells = *parsed;
        if (cells.size() != header.size())
            fail(lineNo, "expected " + std::to_string(header.size()) + " values, got " + std::to_string(cells.size()));
        std::vector<double> row;
        for (std::size_t c = 0; c < cells.size(); ++c) {
            const std::string& cell = cells[c];
            double v = 0;
            if (!parseDouble(cell, &v)) fail(lineNo, "not a number: \"" + cell + "\"");
            // A time that is not finite would never be reached (NaN) or never be left.
            if (c == 0 && !std::isfinite(v)) fail(lineNo, "the time must be a finite number, got \"" + cell + "\"");
            if (c > 0) {
                const std::string problem = checkCell(columns_[c - 1], v);
                if (!problem.empty()) fail(lineNo, "column \"" + header[c] + "\": " + problem);
            }
            row.push_back(v);
        }
        if (!times_.empty() && row[0] < times_.back()) fail(lineNo, "time goes backwards");
        times_.push_back(row[0]);
        row.erase(row.begin());
        rows_.push_back(std::move(row));
    }
}

bool InputSeries::apply(double t, unsigned char* data) {
    bool applied = false;
    while (next_ < times_.size() && times_[next_] <= t + 1e-12) {
        const auto& row = rows_[next_];
        for (std::size_t c = 0; c < columns_.size(); ++c) {
            const Column& col = columns_[c];
            const double v = row[c];
            if (col.component >= 0) {
                writeWire<double>(data, col.wire.offset + 8 * col.component, v);
                continue;
            }
            switch (col.wire.type) {
                case LEAD_INT: writeWire<int>(data, col.wire.offset, static_cast<int>(v)); break;
                case LEAD_BOOL: writeWire<bool>(data, col.wire.offset, v != 0.0); break;
                case LEAD_DOUBLE: writeWire<double>(data, col.wire.offset, v); break;
                case LEAD_OBJECT_ID: writeWire<unsigned>(data, col.wire.offset, static_cast<unsigned>(v)); break;
                default: break;
            }
        }
        ++next_;
        applied = true;
    }
    return applied;
}

double InputSeries::nextChangeAfter(double t) const {
    for (std::size_t i = next_; i < times_.size(); ++i)
        if (times_[i] > t) return times_[i];
    return -1.0;
}

}  // namespace host
