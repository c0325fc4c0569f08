#pragma once
// Block parameters: typed values that a user sets on a block, held behind a small
// virtual interface so that editors, serializers and overrides handle every type alike.
//
//   ParameterValue<T>          the record: value, `undefined`, `required`
//   wBlockParameterProxy<T>    a handle on a record, owning it or referring to it
//   wBlockParameterContainer   a named, owning handle; the element of parameter lists
//   paramGenerators[code]      creators of new parameters by type code
#include <cstdint>
#include <memory>
#include <string_view>

#include "vandrel/platform/Math.h"
#include "vandrel/platform/String.h"

namespace Lua {
class Loader;
}

// Persisted as integers in scheme files: never renumber.
enum eParameterType : std::int32_t {
    PARAM_INT = 0,
    PARAM_DOUBLE = 1,
    PARAM_STRING = 2,
    PARAM_VEC3D = 3,
    PARAM_BOOL = 4,
    PARAM_UINT = 5,
};
inline constexpr int kParameterTypeCount = 6;

template <class T>
struct ParameterValue {
    T value{};
    bool undefined = false;  // deliberately left without a value; supplied at run time
    bool required = true;    // a missing value is an error (false: keep the default)
};

class wBlockParameterProxyBase {
public:
    virtual ~wBlockParameterProxyBase() = default;
    virtual bool isUndefined() const = 0;
    virtual void setUndefined(bool undefined) = 0;
    virtual bool isRequired() const = 0;
    virtual void setRequired(bool required) = 0;
    virtual eParameterType getType() const = 0;
    // A copy, owned by the caller: another reference when this proxy refers and
    // !forceCopy, else an owning proxy of a fresh copy of the record (value and flags).
    virtual wBlockParameterProxyBase* clone(bool forceCopy) const = 0;
    // A new non-owning proxy of the same record; the proxy object is the caller's.
    virtual wBlockParameterProxyBase* makeReference() const = 0;
    // Text form for editors. Doubles use the shortest text that reads back exactly;
    // bools are "0"/"1"; vectors "(x, y, z)". fromString throws "Cannot parse: " + text.
    virtual zo::string toString() const = 0;
    virtual void fromString(const zo::string& text) = 0;
    // Lua form: the value under `key` of the loader's current table.
    virtual void save(Lua::Loader* loader, std::string_view key) const = 0;
    virtual void load(Lua::Loader* loader, std::string_view key) = 0;
    // Copies only the value; `other` must hold the same type.
    virtual void assign(const wBlockParameterProxyBase& other) = 0;
};

// T is one of int, unsigned, double, bool, Vec3d, zo::string, and zo::vector<double>
// (the delay list of the multiple delay trigger, which reports PARAM_DOUBLE).
template <class T>
class wBlockParameterProxy final : public wBlockParameterProxyBase {
public:
    // An owning proxy of a fresh record holding `value`, defined and required.
    explicit wBlockParameterProxy(const T& value = T{});
    // A proxy of an existing record; deletes it on destruction when `owns`.
    wBlockParameterProxy(ParameterValue<T>* record, bool owns) : record_(record), owns_(owns) {}
    // Copies own a fresh copy of the record (descriptor members are copied by value).
    wBlockParameterProxy(const wBlockParameterProxy& other);
    wBlockParameterProxy& operator=(const wBlockParameterProxy& other);
    ~wBlockParameterProxy() override;

    const T& get() const { return record_->value; }
    void set(const T& v) { record_->value = v; }
    ParameterValue<T>* record() const { return record_; }
    bool owns() const { return owns_; }

    bool isUndefined() const override { return record_->undefined; }
    void setUndefined(bool undefined) override { record_->undefined = undefined; }
    bool isRequired() const override { return record_->required; }
    void setRequired(bool required) override { record_->required = required; }
    eParameterType getType() const override;
    wBlockParameterProxyBase* clone(bool forceCopy) const override;
    wBlockParameterProxyBase* makeReference() const override;
    zo::string toString() const override;
    void fromString(const zo::string& text) override;
    void save(Lua::Loader* loader, std::string_view key) const override;
    void load(Lua::Loader* loader, std::string_view key) override;
    void assign(const wBlockParameterProxyBase& other) override;

private:
    ParameterValue<T>* record_;
    bool owns_;
};

extern template class wBlockParameterProxy<int>;
extern template class wBlockParameterProxy<unsigned int>;
extern template class wBlockParameterProxy<double>;
extern template class wBlockParameterProxy<bool>;
extern template class wBlockParameterProxy<Vec3d>;
extern template class wBlockParameterProxy<zo::string>;
extern template class wBlockParameterProxy<zo::vector<double>>;

// A named parameter handle. Copying keeps references as references (the copy edits the
// same storage) and deep-copies owned values.
class wBlockParameterContainer {
public:
    wBlockParameterContainer() = default;
    // Both take ownership of the proxy.
    wBlockParameterContainer(zo::string name, std::unique_ptr<wBlockParameterProxyBase> proxy)
        : proxy_(std::move(proxy)), name_(std::move(name)) {}
    wBlockParameterContainer(zo::string name, wBlockParameterProxyBase* proxy)
        : proxy_(proxy), name_(std::move(name)) {}
    wBlockParameterContainer(const wBlockParameterContainer& other);
    wBlockParameterContainer& operator=(const wBlockParameterContainer& other);
    wBlockParameterContainer(wBlockParameterContainer&&) noexcept = default;
    wBlockParameterContainer& operator=(wBlockParameterContainer&&) noexcept = default;
    ~wBlockParameterContainer() = default;

    const zo::string& getName() const { return name_; }
    wBlockParameterProxyBase* getProxy() const { return proxy_.get(); }

    void save(Lua::Loader* loader, std::string_view key) const;
    void load(Lua::Loader* loader, std::string_view key);

private:
    std::unique_ptr<wBlockParameterProxyBase> proxy_;
    zo::string name_;
};

using wParameterList = zo::vector<wBlockParameterContainer>;

// A reference container to a descriptor's own parameter member, for getParametersList.
template <class T>
wBlockParameterContainer parameterRef(const char* name, const wBlockParameterProxy<T>& p) {
    return wBlockParameterContainer(name, p.makeReference());
}

class wParameterCreatorBase {
public:
    virtual ~wParameterCreatorBase() = default;
    // A new owning parameter with the type's default value, defined and required.
    virtual wBlockParameterContainer create(const zo::string& name) const = 0;
};

// Creators indexed by eParameterType code 0..5. Read-only after static initialisation.
extern wParameterCreatorBase* const paramGenerators[kParameterTypeCount];

// paramGenerators[code]->create(name) after checking the code: a code outside 0..5 (for
// instance one read from a file) throws wSimulationException "Invalid parameter type".
wBlockParameterContainer createParameter(int code, const zo::string& name);

// Text of a double that reads back to the same value ("0.1", "1e-300", "-0", "inf").
zo::string doubleToString(double v);
