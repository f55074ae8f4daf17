// One property-list value: a boolean, integer, real, string, data, date,
// array or dictionary, nested to any depth. Values compare by content, as
// property-list objects do (an integer never equals a real or a boolean).
#pragma once

#include <chrono>
#include <concepts>
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

    /// Parses an XML or binary property list; nothing when it is malformed.
    static std::optional<PropertyList> fromData(std::string_view bytes);
    /// The serialised form; empty when the value cannot be serialised.
    std::string data(Format format = Format::xml) const;

private:
    Storage storage_;
};

}  // namespace Foundation
