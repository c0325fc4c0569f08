// libFuzzer target: arbitrary bytes as a scheme file, taken down every path a host takes
// with one (SchemeChecks.h). The bytes may also define a global "overrides" table, which
// the running load takes as its parameter overrides.
#include <cstdint>
#include <string>
#include <string_view>

#include "SchemeChecks.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::logEverything();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchDir dir;
    static const std::string source = dir.file("scheme.lua");
    fuzz::writeFile(source, std::string_view(reinterpret_cast<const char*>(data), size));
    fuzz::checkSchemeFile(dir, source);
    return 0;
}
