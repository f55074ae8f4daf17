// One property-list value: a boolean, integer, real, string, data, date,
// array or dictionary. Values compare by content, as property-list objects do
// (an integer never equals a real or a boolean).
//
// Parsed property lists come from files anyone may have written (the
// Info.plist of any bundle, a defaults file), so fromData() first checks the
// raw bytes against the bounds below, without recursion and in time linear
// in their size, and refuses data that would take the parser (or the tree it
// builds) past them, or that is known to make libplist abort (a binary
// UTF-16 string holding U+0000). A binary list may share one object among
// many references; the parser copies it for each, so counts are of the tree
// after that copying.
#pragma once

#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Foundation {

class PropertyList {
public:
    using Data = std::vector<uint8_t>;
    using Date = std::chrono::system_clock::time_point;
    using Array = std::vector<PropertyList>;
    using Dictionary = std::map<std::string, PropertyList>;
    using Storage = std::variant<bool, int64_t, double, std::string, Data, Date, Array, Dictionary>;

    enum class Format { xml, binary };

    PropertyList() : storage_(Dictionary{}) {}
    PropertyList(bool value) : storage_(value) {}
    template <std::integral T>
        requires(!std::same_as<T, bool>)
    PropertyList(T value) : storage_(static_cast<int64_t>(value)) {}
    PropertyList(double value) : storage_(value) {}
    PropertyList(std::string value) : storage_(std::move(value)) {}
    PropertyList(std::string_view value) : storage_(std::string(value)) {}
    PropertyList(const char* value) : storage_(std::string(value)) {}
    PropertyList(Data value) : storage_(std::move(value)) {}
    PropertyList(Date value) : storage_(value) {}
    PropertyList(Array value) : storage_(std::move(value)) {}
    PropertyList(Dictionary value) : storage_(std::move(value)) {}

    const Storage& storage() const { return storage_; }

    template <class T>
    bool is() const { return std::holds_alternative<T>(storage_); }
    /// The value when it has type T, else nullptr.
    template <class T>
    const T* get() const { return std::get_if<T>(&storage_); }

    friend bool operator==(const PropertyList& a, const PropertyList& b) { return a.storage_ == b.storage_; }

    /// Largest data accepted, in bytes.
    static constexpr size_t maxDataSize = 8 * 1024 * 1024;
    /// Deepest nesting of arrays and dictionaries; the outermost is level 1.
    static constexpr size_t maxNestingDepth = 64;
    /// Most values in the parsed tree, dictionary keys included.
    static constexpr size_t maxValueCount = 1'000'000;
    /// Most bytes of strings and data in the parsed tree.
    static constexpr size_t maxContentSize = 64 * 1024 * 1024;
    /// Most entries in one dictionary (libplist adds each XML key in time
    /// linear in the entries already there).
    static constexpr size_t maxDictionaryEntries = 100'000;

    /// Why fromData() refuses bytes without parsing them: a short reason
    /// ("nesting deeper than 64 levels", "reference cycle", ...), or nothing
    /// when they are within the bounds above (they may still be malformed).
    /// Never throws; thread-safe.
    static std::optional<std::string> boundsViolation(std::string_view bytes);

    /// Parses an XML or binary property list; nothing when it is malformed,
    /// holds a string or key that is not UTF-8 (or a string with a NUL), breaks a bound (see
    /// boundsViolation()), or when memory runs out. Never
    /// throws; thread-safe.
    static std::optional<PropertyList> fromData(std::string_view bytes);
    /// The serialised form; empty when the value cannot be serialised (a
    /// string or key holding a NUL).
    std::string data(Format format = Format::xml) const;

private:
    Storage storage_;
};

}  // namespace Foundation
