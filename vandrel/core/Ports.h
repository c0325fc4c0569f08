#pragma once
// Ports: values pushed synchronously from an output port to the input ports connected
// to it, in connection order. Input ports keep the last value they received and may call
// back their owning block; proxy ports fan one input-side lead out to several inputs.
//
// Connections are made once, before the first step, and never undone. The push path is
// one virtual call per connected input and allocates nothing (four inputs fit inline).
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

#include <boost/container/small_vector.hpp>

#include "vandrel/core/LeadTypes.h"
#include "vandrel/platform/MailStream.h"
#include "vandrel/runtime/SimulationException.h"

// The lead type carried by a value type.
template <class T>
struct wLeadTypeOf;
template <> struct wLeadTypeOf<int> { static constexpr eLeadType value = LEAD_INT; };
template <> struct wLeadTypeOf<bool> { static constexpr eLeadType value = LEAD_BOOL; };
template <> struct wLeadTypeOf<double> { static constexpr eLeadType value = LEAD_DOUBLE; };
template <> struct wLeadTypeOf<Vec3d> { static constexpr eLeadType value = LEAD_VECTOR; };
template <> struct wLeadTypeOf<Rot3d> { static constexpr eLeadType value = LEAD_QUATERNION; };
template <> struct wLeadTypeOf<unsigned int> { static constexpr eLeadType value = LEAD_OBJECT_ID; };

// The value a new port holds: zero, including all four components of a quaternion.
template <class T>
constexpr T zeroLeadValue() { return T{}; }
template <>
constexpr Rot3d zeroLeadValue<Rot3d>() { return Rot3d{0, 0, 0, 0}; }

class wProxyPortBase;

class wInputPortBase {
public:
    virtual ~wInputPortBase() = default;
    virtual eLeadType getType() const = 0;
    // A new, unconnected fan-out node of this port's type, owned by the caller; null
    // where none can exist.
    virtual wProxyPortBase* createProxyPort() const = 0;
    // Untyped access for code that knows only the lead type: copy a value of the port's
    // type from / to memory. Never calls back the owner. False for object-pointer ports.
    virtual bool setValueFromPtr(const void*) { return false; }
    virtual bool getValueToPtr(void*) const { return false; }
};

class wOutputPortBase {
public:
    virtual ~wOutputPortBase() = default;
    virtual eLeadType getType() const = 0;
    // Appends `in` to the receivers; throws on a type mismatch and then changes nothing.
    virtual void connect(wInputPortBase* in) = 0;
    // A new, unconnected fan-out node of this port's type, owned by the caller.
    virtual wProxyPortBase* createProxyPort() const = 0;
    // Sends a value of the port's type read from memory; object-pointer ports send nothing.
    virtual void sendFromPtr(const void* value) const = 0;
    virtual std::size_t connectionCount() const = 0;
};

class wProxyPortBase {
public:
    virtual ~wProxyPortBase() = default;
    virtual wInputPortBase* getInputPort() = 0;
    virtual wOutputPortBase* getOutputPort() = 0;
};

template <class T>
class wInputPort : public wInputPortBase {
public:
    T value = zeroLeadValue<T>();

    eLeadType getType() const override { return wLeadTypeOf<T>::value; }
    wProxyPortBase* createProxyPort() const override;
    virtual void setValue(const T& v) { value = v; }
    bool setValueFromPtr(const void* p) override {
        if constexpr (std::is_same_v<T, bool>) value = *static_cast<const unsigned char*>(p) != 0;
        else std::memcpy(&value, p, sizeof(T));
        return true;
    }
    bool getValueToPtr(void* p) const override {
        std::memcpy(p, &value, sizeof(T));
        return true;
    }
    const T& getValue() const { return value; }
};

// A callback may send further, so a value can come back around a loop of port connections
// to the port that is still handling it. A loop that settles does so within a few rounds;
// one in which every block sends again (a Delay trigger whose time-out feeds its own
// reset) would recurse until the stack runs out. Past this depth it fails instead.
inline constexpr int kMaxPortReentry = 32;

// Counts how deep the callback of one port is nested for as long as a call runs.
class wPortReentryScope {
public:
    template <class O>
    wPortReentryScope(int& depth, const O* owner) : depth_(depth) {
        if (depth_ >= kMaxPortReentry) throwLoop_(ownerName_(owner));
        ++depth_;
    }
    ~wPortReentryScope() { --depth_; }
    wPortReentryScope(const wPortReentryScope&) = delete;
    wPortReentryScope& operator=(const wPortReentryScope&) = delete;

private:
    int& depth_;

    // " at block <name>" for the ports of runtime blocks; other owners have no name.
    template <class O>
    static zo::string ownerName_(const O* owner) {
        if constexpr (requires { owner->getDescriptor()->getName(); })
            return " at block " + owner->getDescriptor()->getName();
        else
            return {};
    }
    [[noreturn]] static void throwLoop_(const zo::string& where) {
        throw wSimulationException("Endless port loop" + where +
                                   ": a value keeps coming back to the input port it arrived at (" +
                                   std::to_string(kMaxPortReentry) +
                                   " times within one delivery); break the loop of port connections or route it "
                                   "through a wire");
    }
};

// An input port that calls a member function of its owner with every typed write.
template <class T, class O>
class wInputPortImpl : public wInputPort<T> {
public:
    using Callback = void (O::*)(const T&);
    wInputPortImpl(O* owner, Callback callback) : owner_(owner), callback_(callback) {}
    void setValue(const T& v) override {
        this->value = v;
        const wPortReentryScope scope(depth_, owner_);
        (owner_->*callback_)(v);
    }

private:
    O* owner_;
    Callback callback_;
    int depth_ = 0;  // nesting of the callback, see wPortReentryScope
};

template <class T>
class wOutputPort : public wOutputPortBase {
public:
    eLeadType getType() const override { return wLeadTypeOf<T>::value; }
    void connect(wInputPortBase* in) override {
        if (in->getType() != getType())
            throw wSimulationException("Attempt to connect ports of different types");
        // The type matches, so `in` is a wInputPort<T> (or a proxy, which is one too).
        connectedPorts_.push_back(static_cast<wInputPort<T>*>(in));
    }
    wProxyPortBase* createProxyPort() const override;
    void sendFromPtr(const void* p) const override {
        T v;
        if constexpr (std::is_same_v<T, bool>) v = *static_cast<const unsigned char*>(p) != 0;
        else std::memcpy(&v, p, sizeof(T));
        setValue(v);
    }
    std::size_t connectionCount() const override { return connectedPorts_.size(); }

    // Pushes v into every connected input, in the order they were connected.
    void setValue(const T& v) const {
        for (wInputPort<T>* p : connectedPorts_) p->setValue(v);
    }

private:
    boost::container::small_vector<wInputPort<T>*, 4> connectedPorts_;
};

// Fan-out node: an input port whose typed writes go on to every input connected to its
// embedded output. The untyped setValueFromPtr only touches the proxy's own value.
template <class T>
class wProxyPort : public wProxyPortBase, public wInputPort<T> {
public:
    wInputPortBase* getInputPort() override { return this; }
    wOutputPortBase* getOutputPort() override { return &output_; }
    virtual void connect(wInputPortBase* in) { output_.connect(in); }
    eLeadType getType() const override { return output_.getType(); }
    void setValue(const T& v) override { output_.setValue(v); }

private:
    wOutputPort<T> output_;
};

template <class T>
wProxyPortBase* wInputPort<T>::createProxyPort() const {
    return new wProxyPort<T>();
}
template <class T>
wProxyPortBase* wOutputPort<T>::createProxyPort() const {
    return new wProxyPort<T>();
}

// ---- Object-pointer ports (lead type 5): pointers to wWireObjectPtrBase objects.

// The untyped object-pointer input: no value of its own.
template <>
class wInputPort<wWireObjectPtrBase> : public wInputPortBase {
public:
    eLeadType getType() const override { return LEAD_OBJECT_PTR; }
};

// Object-pointer input whose object type is unknown (scheme-level leads): accepts a
// connection, receives nothing, cannot be fanned out.
class wInputPortObjPtrUnknown : public wInputPort<wWireObjectPtrBase> {
public:
    wProxyPortBase* createProxyPort() const override { return nullptr; }
};

template <class X>
class wProxyPortObjPtr;

template <class X>
class wInputPortObjPtrBase : public wInputPort<wWireObjectPtrBase> {
public:
    virtual void setValue(X* p) = 0;
    wProxyPortBase* createProxyPort() const override {
        return new wProxyPortObjPtr<X>();
    }
};

// Keeps the last pointer received.
template <class X>
class wInputPortObjPtr : public wInputPortObjPtrBase<X> {
public:
    void setValue(X* p) override { value_ = p; }
    X* getValue() const { return value_; }

private:
    X* value_ = nullptr;
};

// Calls a member function of its owner with each pointer; stores nothing.
template <class X, class O>
class wInputPortObjPtrCallback : public wInputPortObjPtrBase<X> {
public:
    using Callback = void (O::*)(X*);
    wInputPortObjPtrCallback(O* owner, Callback callback) : owner_(owner), callback_(callback) {}
    void setValue(X* p) override {
        const wPortReentryScope scope(depth_, owner_);
        (owner_->*callback_)(p);
    }

private:
    O* owner_;
    Callback callback_;
    int depth_ = 0;  // nesting of the callback, see wPortReentryScope
};

// The generic object-pointer output; only typed subclasses can be made.
template <>
class wOutputPort<wWireObjectPtrBase> : public wOutputPortBase {
public:
    eLeadType getType() const override { return LEAD_OBJECT_PTR; }
    void sendFromPtr(const void*) const override {}
};

template <class X>
class wOutputPortObjPtr : public wOutputPort<wWireObjectPtrBase> {
public:
    void connect(wInputPortBase* in) override {
        if (auto* typed = dynamic_cast<wInputPortObjPtrBase<X>*>(in)) {
            connectedPorts_.push_back(typed);
            return;
        }
        // A pointer has nowhere to go in an input of unknown object type: accept, drop.
        if (dynamic_cast<wInputPortObjPtrUnknown*>(in)) return;
        throw wSimulationException("Attempt to connect obj ptr ports of different types");
    }
    wProxyPortBase* createProxyPort() const override {
        return new wProxyPortObjPtr<X>();
    }
    std::size_t connectionCount() const override { return connectedPorts_.size(); }

    void setValue(X* p) const {
        for (wInputPortObjPtrBase<X>* in : connectedPorts_) in->setValue(p);
    }

private:
    boost::container::small_vector<wInputPortObjPtrBase<X>*, 4> connectedPorts_;
};

template <class X>
class wProxyPortObjPtr : public wProxyPortBase, public wInputPortObjPtr<X> {
public:
    wInputPortBase* getInputPort() override { return this; }
    wOutputPortBase* getOutputPort() override { return &output_; }
    virtual void connect(wInputPortBase* in) { output_.connect(in); }
    void setValue(X* p) override { output_.setValue(p); }

private:
    wOutputPortObjPtr<X> output_;
};

// The port factory of one lead type: T is the carried value type, Type its eLeadType
// value. Type is held as the enumeration's integer so that both spellings name the same
// class: wConcreteLeadCreator<double, 2> and wConcreteLeadCreator<double, LEAD_DOUBLE>.
// One static instance per type sits behind leadCreator(); hosts may also make their own.
template <class T, std::underlying_type_t<eLeadType> Type>
class wConcreteLeadCreator final : public wLeadCreator {
public:
    static_assert(wLeadTypeOf<T>::value == Type);
    wInputPortBase* createInputPort() const override { return new wInputPort<T>(); }
    wOutputPortBase* createOutputPort() const override { return new wOutputPort<T>(); }
};

// Object pointers: inputs of unknown object type only; outputs exist only as typed ports
// that the owning block makes itself, so a generic one is refused.
template <>
class wConcreteLeadCreator<wWireObjectPtrBase, LEAD_OBJECT_PTR> final : public wLeadCreator {
public:
    wInputPortBase* createInputPort() const override { return new wInputPortObjPtrUnknown(); }
    wOutputPortBase* createOutputPort() const override {
        throw wSimulationException("Cannot create output port of type wWireObjectPtrBase");
    }
};
