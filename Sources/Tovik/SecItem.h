// Thin wrappers over the four Security item calls, for code that builds its
// own query dictionaries (see Security/SecItem.h for the keys).
//
// No state; every member is static, synchronous and callable from any thread.
#pragma once

#include <optional>
#include <utility>

#include "Foundation/PropertyList.h"
#include "Security/SecBase.h"
#include "Security/SecItem.h"

namespace Tovik {

class SecItem {
public:
    using Query = Security::CFDictionary;
    using OSStatus = Security::OSStatus;

    /// The outcome of find(): the returned object, or the non-zero status.
    class FindResult {
    public:
        /// A success with value, or, when value is absent, a failure with error.
        FindResult(std::optional<Foundation::PropertyList> value, OSStatus error)
            : value_(std::move(value)), error_(value_ ? Security::errSecSuccess : error) {}

        bool succeeded() const { return value_.has_value(); }
        /// The object on success, else null.
        const Foundation::PropertyList* value() const { return value_ ? &*value_ : nullptr; }
        /// The status on failure, else 0.
        OSStatus error() const { return error_; }

    private:
        std::optional<Foundation::PropertyList> value_;
        OSStatus error_ = Security::errSecSuccess;
    };

    SecItem() = delete;

    /// SecItemAdd without a result.
    static OSStatus add(const Query& query);
    /// SecItemDelete.
    static OSStatus delete_(const Query& query);
    /// SecItemUpdate of the items query matches with attributes.
    static OSStatus update(const Query& query, const Query& attributes);
    /// SecItemCopyMatching: the returned object, or the failing status. A
    /// success that returns nothing (a query without a kSecReturn... key) is
    /// the failure errSecParam: the query asked for no object.
    static FindResult find(const Query& query);
};

}  // namespace Tovik
