#pragma once
// The platform's standard container types. Every public interface of vandrel speaks
// in these names so that a host built against another allocator can swap them here.
#include <memory>
#include <string>
#include <vector>

namespace zo {

template <class T>
using allocator = std::allocator<T>;

template <class C>
using basic_string = std::basic_string<C, std::char_traits<C>, allocator<C>>;

template <class T>
using vector = std::vector<T, allocator<T>>;

using string = basic_string<char>;

}  // namespace zo
