#include "vandrel/core/BlockParameter.h"

#include <charconv>
#include <limits>
#include <string>
#include <system_error>
#include <type_traits>

#include "vandrel/platform/LuaLoader.h"
#include "vandrel/runtime/SimulationException.h"

zo::string doubleToString(double v) {
    // Shortest round-trip form; 32 characters hold any double in it.
    char buf[32];
    const auto result = std::to_chars(buf, buf + sizeof buf, v);
    return zo::string(buf, result.ptr);
}

namespace {

// ---- Text parsing: a cursor over the text with the rules of stream extraction in the
// classic locale (leading blanks skipped, trailing text ignored), but locale-free.
class TextCursor {
public:
    explicit TextCursor(const zo::string& text) : p_(text.data()), end_(text.data() + text.size()) {}

    void skipBlanks() {
        while (p_ != end_ && isBlank(*p_)) ++p_;
    }
    // One non-blank character, whatever it is.
    bool separator() {
        skipBlanks();
        if (p_ == end_) return false;
        ++p_;
        return true;
    }
    template <class N>
    bool number(N& out) {
        skipBlanks();
        const char* start = p_;
        // A leading '+' is accepted as a stream would; from_chars only takes '-'.
        if (start != end_ && *start == '+' && start + 1 != end_ && start[1] != '-') ++start;
        N value{};
        std::from_chars_result r;
        if constexpr (std::is_floating_point_v<N>) r = std::from_chars(start, end_, value);
        else r = std::from_chars(start, end_, value, 10);
        if (r.ec != std::errc()) return false;
        out = value;
        p_ = r.ptr;
        return true;
    }
    // The next blank-delimited word; false when only blanks remain.
    bool word(zo::string& out) {
        skipBlanks();
        const char* start = p_;
        while (p_ != end_ && !isBlank(*p_)) ++p_;
        if (start == p_) return false;
        out.assign(start, p_);
        return true;
    }

private:
    static bool isBlank(char c) {
        return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
    }
    const char* p_;
    const char* end_;
};

[[noreturn]] void cannotParse(const zo::string& text) {
    throw wSimulationException("Cannot parse: " + text);
}

zo::string vectorToString(const Vec3d& v) {
    return "(" + doubleToString(v.x) + ", " + doubleToString(v.y) + ", " + doubleToString(v.z) + ")";
}

[[noreturn]] void failedGetter(const Lua::Loader* loader, std::string_view key, const char* getter) {
    throw Lua::LoaderException(loader->formatPath(key) + " failed to Lua::Loader::" + getter);
}

}  // namespace

// ---- wBlockParameterProxy<T>

template <class T>
wBlockParameterProxy<T>::wBlockParameterProxy(const T& value)
    : record_(new ParameterValue<T>{value, false, true}), owns_(true) {}

template <class T>
wBlockParameterProxy<T>::wBlockParameterProxy(const wBlockParameterProxy& other)
    : record_(new ParameterValue<T>(*other.record_)), owns_(true) {}

template <class T>
wBlockParameterProxy<T>& wBlockParameterProxy<T>::operator=(const wBlockParameterProxy& other) {
    if (this != &other) {
        auto* copy = new ParameterValue<T>(*other.record_);
        if (owns_) delete record_;
        record_ = copy;
        owns_ = true;
    }
    return *this;
}

template <class T>
wBlockParameterProxy<T>::~wBlockParameterProxy() {
    if (owns_) delete record_;
}

template <class T>
eParameterType wBlockParameterProxy<T>::getType() const {
    if constexpr (std::is_same_v<T, int>) return PARAM_INT;
    else if constexpr (std::is_same_v<T, unsigned int>) return PARAM_UINT;
    else if constexpr (std::is_same_v<T, bool>) return PARAM_BOOL;
    else if constexpr (std::is_same_v<T, Vec3d>) return PARAM_VEC3D;
    else if constexpr (std::is_same_v<T, zo::string>) return PARAM_STRING;
    // double, and the list of doubles, which generic code treats as a double.
    else return PARAM_DOUBLE;
}

template <class T>
wBlockParameterProxyBase* wBlockParameterProxy<T>::clone(bool forceCopy) const {
    if (!owns_ && !forceCopy) return makeReference();
    return new wBlockParameterProxy<T>(*this);
}

template <class T>
wBlockParameterProxyBase* wBlockParameterProxy<T>::makeReference() const {
    return new wBlockParameterProxy<T>(record_, false);
}

template <class T>
zo::string wBlockParameterProxy<T>::toString() const {
    const T& v = record_->value;
    if constexpr (std::is_same_v<T, int> || std::is_same_v<T, unsigned int>) return std::to_string(v);
    else if constexpr (std::is_same_v<T, bool>) return v ? "1" : "0";
    else if constexpr (std::is_same_v<T, double>) return doubleToString(v);
    else if constexpr (std::is_same_v<T, Vec3d>) return vectorToString(v);
    else if constexpr (std::is_same_v<T, zo::string>) return v;
    else {
        // The list of doubles: its elements, blank-separated.
        zo::string out;
        for (double d : v) {
            if (!out.empty()) out += ' ';
            out += doubleToString(d);
        }
        return out;
    }
}

template <class T>
void wBlockParameterProxy<T>::fromString(const zo::string& text) {
    TextCursor in(text);
    T& v = record_->value;
    if constexpr (std::is_same_v<T, int> || std::is_same_v<T, unsigned int> || std::is_same_v<T, double>) {
        if (!in.number(v)) cannotParse(text);
    } else if constexpr (std::is_same_v<T, bool>) {
        // Only the numbers 0 and 1, as a stream reads a bool without boolalpha.
        long n = 0;
        if (!in.number(n) || (n != 0 && n != 1)) cannotParse(text);
        v = n != 0;
    } else if constexpr (std::is_same_v<T, Vec3d>) {
        // Any single characters around and between the components: "(1, 2, 3)", "[1;2;3]".
        Vec3d r;
        if (!in.separator() || !in.number(r.x) || !in.separator() || !in.number(r.y) || !in.separator() ||
            !in.number(r.z) || !in.separator())
            cannotParse(text);
        v = r;
    } else if constexpr (std::is_same_v<T, zo::string>) {
        // Only the first word: values with blanks have no text form.
        if (!in.word(v)) cannotParse(text);
    } else {
        // The list of doubles: every number of the text.
        zo::vector<double> list;
        double d = 0;
        while (in.number(d)) list.push_back(d);
        in.skipBlanks();
        zo::string rest;
        if (in.word(rest)) cannotParse(text);
        v = std::move(list);
    }
}

template <class T>
void wBlockParameterProxy<T>::save(Lua::Loader* loader, std::string_view key) const {
    const T& v = record_->value;
    if constexpr (std::is_same_v<T, int>) loader->setInt(key, v);
    else if constexpr (std::is_same_v<T, unsigned int>) loader->setUINT32(key, v);
    else if constexpr (std::is_same_v<T, double>) loader->setDouble(key, v);
    else if constexpr (std::is_same_v<T, bool>) loader->setBoolean(key, v);
    else if constexpr (std::is_same_v<T, Vec3d>) loader->setVector(key, v);
    else if constexpr (std::is_same_v<T, zo::string>) loader->setString(key, v);
    else {
        // The list of doubles: a subtable { a, b, c }.
        loader->createSubtable(key);
        int index = 1;
        for (double d : v) loader->setDouble(index++, d);
        loader->endSubtable();
    }
}

template <class T>
void wBlockParameterProxy<T>::load(Lua::Loader* loader, std::string_view key) {
    if constexpr (std::is_same_v<T, zo::vector<double>>) {
        // The subtable must exist; elements 1, 2, ... up to the first gap.
        loader->beginSubtable(key);
        zo::vector<double> list;
        for (int i = 1; loader->hasEntry(i); ++i) list.push_back(loader->getDouble(i));
        loader->endSubtable();
        record_->value = std::move(list);
        return;
    } else {
        // An optional parameter absent from the table keeps its current value.
        if (!record_->required && !loader->hasEntry(key)) return;
        T& v = record_->value;
        if constexpr (std::is_same_v<T, int>) v = loader->getInt(key);
        else if constexpr (std::is_same_v<T, unsigned int>) v = loader->getUINT32(key);
        else if constexpr (std::is_same_v<T, double>) v = loader->getDouble(key);
        else if constexpr (std::is_same_v<T, bool>) v = loader->getBoolean(key);
        else if constexpr (std::is_same_v<T, Vec3d>) {
            Vec3d r;
            if (!loader->tryGetVector(key, &r)) failedGetter(loader, key, "getVector");
            v = r;
        } else {
            zo::string s;
            if (!loader->tryGetString(key, &s)) failedGetter(loader, key, "getString");
            v = std::move(s);
        }
    }
}

template <class T>
void wBlockParameterProxy<T>::assign(const wBlockParameterProxyBase& other) {
    // Types with the same code (double and the list of doubles) must not be mixed up.
    const auto* typed = dynamic_cast<const wBlockParameterProxy<T>*>(&other);
    if (!typed) throw wSimulationException("Cannot assign a parameter of another type");
    record_->value = typed->get();
}

template class wBlockParameterProxy<int>;
template class wBlockParameterProxy<unsigned int>;
template class wBlockParameterProxy<double>;
template class wBlockParameterProxy<bool>;
template class wBlockParameterProxy<Vec3d>;
template class wBlockParameterProxy<zo::string>;
template class wBlockParameterProxy<zo::vector<double>>;

// ---- wBlockParameterContainer

wBlockParameterContainer::wBlockParameterContainer(const wBlockParameterContainer& other)
    : proxy_(other.proxy_ ? other.proxy_->clone(false) : nullptr), name_(other.name_) {}

wBlockParameterContainer& wBlockParameterContainer::operator=(const wBlockParameterContainer& other) {
    if (this != &other) {
        proxy_.reset(other.proxy_ ? other.proxy_->clone(false) : nullptr);
        name_ = other.name_;
    }
    return *this;
}

// An empty container (no proxy) has nothing to write or read.
void wBlockParameterContainer::save(Lua::Loader* loader, std::string_view key) const {
    if (proxy_) proxy_->save(loader, key);
}

void wBlockParameterContainer::load(Lua::Loader* loader, std::string_view key) {
    if (proxy_) proxy_->load(loader, key);
}

// ---- Creators

namespace {

template <class T, eParameterType Code>
class __ParameterCreator final : public wParameterCreatorBase {
public:
    static_assert(Code >= 0 && Code < kParameterTypeCount);
    wBlockParameterContainer create(const zo::string& name) const override {
        return wBlockParameterContainer(name, std::make_unique<wBlockParameterProxy<T>>(T{}));
    }
};

__ParameterCreator<int, PARAM_INT> intParameterCreator;
__ParameterCreator<double, PARAM_DOUBLE> doubleParameterCreator;
__ParameterCreator<zo::string, PARAM_STRING> stringParameterCreator;
__ParameterCreator<Vec3d, PARAM_VEC3D> vectorParameterCreator;
__ParameterCreator<bool, PARAM_BOOL> boolParameterCreator;
// The unsigned value starts at zero; nothing relies on it.
__ParameterCreator<unsigned int, PARAM_UINT> uintParameterCreator;

}  // namespace

wParameterCreatorBase* const paramGenerators[kParameterTypeCount] = {
    &intParameterCreator,    &doubleParameterCreator, &stringParameterCreator,
    &vectorParameterCreator, &boolParameterCreator,   &uintParameterCreator,
};

wBlockParameterContainer createParameter(int code, const zo::string& name) {
    // Unsigned comparison: negative codes are rejected as well.
    if (static_cast<unsigned>(code) >= static_cast<unsigned>(kParameterTypeCount))
        throw wSimulationException("Invalid parameter type");
    return paramGenerators[code]->create(name);
}
