// libFuzzer target: Lua::Loader on arbitrary bytes.
//
// The bytes run as a data file defining the global table "simulation_scheme". The loader's
// cursor then walks what they built, through every getter, the array walk and the
// subtable calls, under a fixed set of keys (the scheme format's own and a few others) and
// the first few indices. Finally the table is written back as Lua source, which must load
// again and write out as the very same text.
// A LoaderException is the expected answer to bad input. A crash, a sanitizer report, a
// leak, a hang, a cursor left at the wrong depth or a broken round trip is a bug; the last
// two abort with a message.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <type_traits>

#include "vandrel/platform/LuaLoader.h"
#include "vandrel/platform/LuaSerializer.h"

namespace {

const zo::string kGlobal = "simulation_scheme";

// Keys a scheme file uses, plus one that no identifier can be.
constexpr std::string_view kKeys[] = {
    "blocks", "solver", "io",     "connections", "__name", "__type",      "__parameters", "value",
    "name",   "type",   "inputs", "coeff",       "values", "inputWires",  "outputPorts",  "port",
    "H",      "x",      "",       "odd key",     "input_block", "output_lead",
};
constexpr int kIndices = 4;
// Enough to reach every part of a real scheme file, few enough that a table that
// contains itself cannot make the walk explode.
constexpr int kMaxDepth = 6;
constexpr int kMaxVisits = 200;

[[noreturn]] void fail(const char* what, const std::string& detail = {}) {
    std::fprintf(stderr, "\n*** %s\n%s\n", what, detail.c_str());
    std::abort();
}

class Walker {
public:
    explicit Walker(Lua::Loader& loader) : loader_(loader) {}

    void table(int depth) {
        if (depth > kMaxDepth || ++visits_ > kMaxVisits) return;
        const int at = loader_.depth();
        for (std::string_view key : kKeys) entry(key, depth);
        // Elements are entered by the array walk; by index only their values are read.
        for (int i = 0; i <= kIndices; ++i) entry(i, kMaxDepth);
        array(depth);
        if (loader_.depth() != at) fail("the loader's cursor moved while reading");
    }

private:
    Lua::Loader& loader_;
    int visits_ = 0;

    template <class Key>
    void entry(Key key, int depth) {
        (void)loader_.formatPath_(key);
        // A missing entry takes the same path in every getter: one is enough.
        if (!loader_.hasEntry(key)) {
            attempt([&] { (void)loader_.getInt(key); });
            return;
        }
        attempt([&] { (void)loader_.getInt(key); });
        attempt([&] { (void)loader_.getDouble(key); });
        if constexpr (std::is_same_v<Key, std::string_view>) {
            attempt([&] { (void)loader_.getUINT32(key); });
            attempt([&] { (void)loader_.getBoolean(key); });
            attempt([&] { (void)loader_.getString(key); });
            zo::string text;
            (void)loader_.tryGetString(key, &text);
            Vec3d vector;
            (void)loader_.tryGetVector(key, &vector);
        }
        if (loader_.tryBeginSubtable(key)) {
            table(depth + 1);
            loader_.endSubtable();
        } else {
            attempt([&] { loader_.beginSubtable(key); });
        }
    }

    void array(int depth) {
        const int at = loader_.depth();
        try {
            loader_.beginArray();
            for (int n = 0; n < 64 && loader_.nextArray(); ++n) {
                (void)loader_.arrayIndex();
                table(depth + 1);
            }
        } catch (const Lua::LoaderException&) {
        }
        // A walk that stopped early leaves the cursor on an element.
        while (loader_.depth() > at) loader_.endSubtable();
    }

    template <class F>
    static void attempt(F&& f) {
        try {
            f();
        } catch (const Lua::LoaderException&) {
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view source(reinterpret_cast<const char*>(data), size);

    zo::string text;
    {
        Lua::Loader loader;
        try {
            loader.loadString(source, "fuzz.lua", kGlobal);
        } catch (const Lua::LoaderException&) {
            return 0;
        }
        Walker(loader).table(0);
        if (loader.depth() != 0) fail("the loader's cursor is not back at the global table");
        try {
            text = Lua::Serializer::toSource(loader.getState(), kGlobal);
        } catch (const Lua::LoaderException&) {
            return 0;  // functions, booleans as keys, cycles: no source form
        }
    }

    // The serializer's output is ours: it must read back and write out unchanged.
    Lua::Loader again;
    try {
        again.loadString(text, "written.lua", kGlobal);
    } catch (const Lua::LoaderException& e) {
        fail("written source does not load again", std::string(e.what()) + "\n" + std::string(text));
    }
    zo::string rewritten;
    try {
        rewritten = Lua::Serializer::toSource(again.getState(), kGlobal);
    } catch (const Lua::LoaderException& e) {
        fail("reloaded table cannot be written again", e.what());
    }
    if (rewritten != text) fail("writing a reloaded table changes the text", std::string(text) + "\n--- became ---\n" + std::string(rewritten));
    return 0;
}
