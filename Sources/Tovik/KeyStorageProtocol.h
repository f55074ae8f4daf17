// A persistent dictionary from string keys to property-list values (strings,
// numbers, booleans, dates, data, and arrays and dictionaries of them).
#pragma once

#include <optional>
#include <string>

#include "Foundation/PropertyList.h"

namespace Tovik {

class KeyStorageProtocol {
public:
    using Value = Foundation::PropertyList;
    using Dictionary = Foundation::PropertyList::Dictionary;

    virtual ~KeyStorageProtocol() = default;

    virtual bool isEmpty() const = 0;
    /// A copy of the whole contents.
    virtual Dictionary dictionaryRepresentation() const = 0;
    /// The value for key; absent when there is none.
    virtual std::optional<Value> object(const std::string& key) const = 0;
    /// Sets key to value; an absent value removes the key.
    virtual void set(std::optional<Value> value, const std::string& key) = 0;
    /// Replaces the whole contents with dictionary and writes them out.
    virtual void reset(const Dictionary& dictionary) = 0;
    /// Writes the contents out if they changed since the last write.
    virtual void store() = 0;
    /// Empties the storage and removes what it wrote.
    virtual void delete_() = 0;
};

}  // namespace Tovik
