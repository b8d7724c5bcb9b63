#pragma once
// Small list helpers shared across the system.
#include <algorithm>
#include <vector>

namespace qv {

// Adds `item` as soon as at least one element satisfies `test` (not "all", in
// spite of the name); an empty list gets nothing. Returns whether it added.
// Folder Sets rely on this exact rule for their duplicate check.
template <class T, class Pred> bool addIfAllSatisfy(std::vector<T>& list, const T& item, Pred test) {
    for (const auto& existing : list) {
        if (test(existing)) {
            list.push_back(item);
            return true;
        }
    }
    return false;
}

template <class T, class Pred> T firstObjectSatisfyingBlock(const std::vector<T>& list, Pred test) {
    for (const auto& item : list)
        if (test(item)) return item;
    return T{};
}

template <class T, class Pred> std::vector<T> filterWithBlock(const std::vector<T>& list, Pred test) {
    std::vector<T> out;
    std::copy_if(list.begin(), list.end(), std::back_inserter(out), test);
    return out;
}

template <class T, class F> auto mapUsingBlock(const std::vector<T>& list, F f) {
    std::vector<decltype(f(list.front()))> out;
    out.reserve(list.size());
    for (const auto& item : list) out.push_back(f(item));
    return out;
}

// Removes every element satisfying `test`; returns whether any was removed.
template <class T, class Pred> bool removeIfAny(std::vector<T>& list, Pred test) {
    auto it = std::remove_if(list.begin(), list.end(), test);
    bool removed = it != list.end();
    list.erase(it, list.end());
    return removed;
}

} // namespace qv
