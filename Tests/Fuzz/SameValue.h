// Property-list equality for the fuzz entry points: by content, as
// PropertyList's ==, except that a NaN real equals a NaN real (an input may
// hold one) and, with wholeSeconds, a date in b may be a's without its
// fraction of a second (the XML form writes dates to the second). Serialised forms are no substitute: libplist's binary writer
// shares equal data objects or not depending on where they lie in memory.
#pragma once

#include <chrono>
#include <cmath>
#include <cstddef>

#include "Foundation/PropertyList.h"

namespace FuzzSupport {

inline bool same(const Foundation::PropertyList& a, const Foundation::PropertyList& b, bool wholeSeconds = false) {
    using Foundation::PropertyList;
    if (a.storage().index() != b.storage().index()) return false;
    if (const auto* x = a.get<PropertyList::Date>(); x && wholeSeconds) {
        const auto y = *b.get<PropertyList::Date>();
        return y == *x || y == std::chrono::floor<std::chrono::seconds>(*x);
    }
    if (const auto* x = a.get<double>()) {
        const double y = *b.get<double>();
        return *x == y || (std::isnan(*x) && std::isnan(y));
    }
    if (const auto* x = a.get<PropertyList::Array>()) {
        const auto& y = *b.get<PropertyList::Array>();
        if (x->size() != y.size()) return false;
        for (std::size_t i = 0; i < x->size(); ++i)
            if (!same((*x)[i], y[i], wholeSeconds)) return false;
        return true;
    }
    if (const auto* x = a.get<PropertyList::Dictionary>()) {
        const auto& y = *b.get<PropertyList::Dictionary>();
        if (x->size() != y.size()) return false;
        for (auto i = x->begin(), j = y.begin(); i != x->end(); ++i, ++j)
            if (i->first != j->first || !same(i->second, j->second, wholeSeconds)) return false;
        return true;
    }
    return a == b;
}

}  // namespace FuzzSupport
