#include "vandrel/platform/Suggest.h"

#include <algorithm>

namespace Text {

namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return lower(x) == lower(y);
           });
}

}  // namespace

std::size_t editDistance(std::string_view a, std::string_view b) {
    // Three rows of the optimal-string-alignment table: two back for swaps.
    const std::size_t n = b.size();
    zo::vector<std::size_t> before(n + 1), previous(n + 1), current(n + 1);
    for (std::size_t j = 0; j <= n; ++j) previous[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        current[0] = i;
        for (std::size_t j = 1; j <= n; ++j) {
            const std::size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
            current[j] = std::min({previous[j] + 1, current[j - 1] + 1, previous[j - 1] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                current[j] = std::min(current[j], before[j - 2] + 1);
        }
        std::swap(before, previous);
        std::swap(previous, current);
    }
    return previous[n];
}

zo::string closestName(std::string_view word, const zo::vector<zo::string>& candidates) {
    if (std::find(candidates.begin(), candidates.end(), word) != candidates.end()) return {};
    for (const zo::string& c : candidates)
        if (equalIgnoringCase(c, word)) return c;
    // A name cut short or run on ("wSolverExplEuler", "output" for "out").
    if (word.size() >= 3)
        for (const zo::string& c : candidates)
            if (c.size() >= 3 && (c.starts_with(word) || word.starts_with(c))) return c;
    const zo::string* best = nullptr;
    std::size_t bestDistance = 0;
    for (const zo::string& c : candidates) {
        const std::size_t limit = std::max<std::size_t>(1, std::max(c.size(), word.size()) / 4);
        const std::size_t d = editDistance(word, c);
        if (d <= limit && (best == nullptr || d < bestDistance)) {
            best = &c;
            bestDistance = d;
        }
    }
    return best != nullptr ? *best : zo::string();
}

zo::string didYouMean(std::string_view word, const zo::vector<zo::string>& candidates) {
    const zo::string close = closestName(word, candidates);
    return close.empty() ? close : "; did you mean " + close + "?";
}

zo::string meantToBe(std::string_view wanted, const zo::vector<zo::string>& present) {
    const zo::string close = closestName(wanted, present);
    return close.empty() ? close : "; is " + close + " meant to be " + zo::string(wanted) + "?";
}

zo::string listNames(const zo::vector<zo::string>& names, std::size_t shown) {
    zo::string text;
    for (std::size_t i = 0; i < names.size() && i < shown; ++i) text += (i == 0 ? "" : ", ") + names[i];
    if (names.size() > shown) text += " and " + std::to_string(names.size() - shown) + " more";
    return text;
}

}  // namespace Text
