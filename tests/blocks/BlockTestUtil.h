#pragma once
// A test bench for blocks of the library: each block added is fed from scheme inputs
// named "<block>.<input>" and drives scheme outputs "<block>.<output>", so one scheme
// file exercises many blocks side by side.
#include <string>

#include "support/SchemeFiles.h"

namespace blocktest {

class Bench {
public:
    // Adds the block entry; its leads come from the block itself, as read from the entry.
    int add(const std::string& name, const std::string& type, const std::string& params = "",
            const std::string& rest = "") {
        testutil::SchemeText alone;
        alone.block(name, type, params, rest);
        const auto scheme = testutil::loadForEdit(alone.text());
        const auto* block = scheme->getBlockByIndex(0);
        const int i = s.block(name, type, params, rest);
        for (const auto& in : block->getInputWires()) {
            s.inputWire(name + "." + in.name, in.type);
            s.wire(testutil::kIO, name + "." + in.name, i, in.name);
        }
        for (const auto& out : block->getOutputWires()) {
            s.outputWire(name + "." + out.name, out.type);
            s.wire(i, out.name, testutil::kIO, name + "." + out.name);
        }
        return i;
    }
    testutil::SchemeText s;
};

// "name = { value = v }, " per pair: the body of a "__parameters" table.
inline std::string params(std::initializer_list<std::pair<std::string, std::string>> values) {
    std::string s;
    for (const auto& [name, v] : values) s += name + " = { value = " + v + " }, ";
    return s;
}

// "inputs = { { name = a }, ... }", with ", coeff = c" after each name when given.
inline std::string inputs(std::initializer_list<std::string> names, std::initializer_list<std::string> coeffs = {}) {
    std::string s = "inputs = {";
    auto c = coeffs.begin();
    for (const auto& n : names) s += " { name = \"" + n + "\"" + (c != coeffs.end() ? ", coeff = " + *c++ : "") + " },";
    return s + " }";
}

}  // namespace blocktest
