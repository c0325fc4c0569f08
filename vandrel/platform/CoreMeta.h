#pragma once
// Nullary creator functors, as the block factory and the solver registry hold them.
#include <functional>
#include <utility>

namespace CoreMeta {

struct NullType {};
template <class A = NullType, class B = NullType>
struct TypeList {};

// A copyable callable with no arguments returning R; Args is kept for the spelling
// Functor<R, TypeList<NullType, NullType>> that names a creator.
template <class R, class Args = TypeList<>>
class Functor {
public:
    Functor() = default;
    template <class F>
    Functor(F f) : fn_(std::move(f)) {}  // NOLINT: implicit from any callable

    R operator()() const { return fn_(); }
    explicit operator bool() const { return static_cast<bool>(fn_); }

private:
    std::function<R()> fn_;
};

}  // namespace CoreMeta
