#pragma once
// Help for names a user misspelt: "did you mean ...?" from the names that would have been
// accepted, and short lists of those names for messages.
#include <cstddef>
#include <string_view>

#include "vandrel/platform/String.h"

namespace Text {

// Edit distance counting insertions, deletions, substitutions and swaps of two neighbours.
std::size_t editDistance(std::string_view a, std::string_view b);

// The candidate most likely meant by `word`: equal ignoring case; else one that begins
// with the other (both at least 3 long); else the nearest by edit distance when that is at
// most a quarter of the longer name (and at least 1). Empty when nothing is that close, or
// when `word` is itself a candidate.
zo::string closestName(std::string_view word, const zo::vector<zo::string>& candidates);

// "; did you mean X?" for the closest candidate, or empty.
zo::string didYouMean(std::string_view word, const zo::vector<zo::string>& candidates);

// "; is X meant to be `wanted`?" for the entry of `present` closest to a name that is
// missing, or empty.
zo::string meantToBe(std::string_view wanted, const zo::vector<zo::string>& present);

// "a, b, c" with at most `shown` names, then "and N more".
zo::string listNames(const zo::vector<zo::string>& names, std::size_t shown = 12);

}  // namespace Text
