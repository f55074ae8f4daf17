#include "Foundation/PropertyList.h"

#include <plist/plist.h>

#include <cstdlib>
#include <memory>

namespace Foundation {

namespace {

// Property-list dates count from 2001-01-01 00:00:00 UTC.
constexpr int64_t referenceDateOffset = 978307200;

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

plist_t toNode(const PropertyList& value) {
    struct Visitor {
        plist_t operator()(bool v) const { return plist_new_bool(v ? 1 : 0); }
        plist_t operator()(int64_t v) const { return plist_new_uint(static_cast<uint64_t>(v)); }
        plist_t operator()(double v) const { return plist_new_real(v); }
        plist_t operator()(const std::string& v) const { return plist_new_string(v.c_str()); }
        plist_t operator()(const PropertyList::Data& v) const {
            return plist_new_data(reinterpret_cast<const char*>(v.data()), v.size());
        }
        plist_t operator()(const PropertyList::Date& v) const {
            auto micros =
                std::chrono::duration_cast<std::chrono::microseconds>(v.time_since_epoch()).count() -
                referenceDateOffset * 1000000;
            int64_t sec = micros / 1000000, usec = micros % 1000000;
            if (usec < 0) {
                usec += 1000000;
                sec -= 1;
            }
            return plist_new_date(static_cast<int32_t>(sec), static_cast<int32_t>(usec));
        }
        plist_t operator()(const PropertyList::Array& v) const {
            plist_t array = plist_new_array();
            for (const auto& item : v) plist_array_append_item(array, toNode(item));
            return array;
        }
        plist_t operator()(const PropertyList::Dictionary& v) const {
            plist_t dict = plist_new_dict();
            for (const auto& [key, item] : v) plist_dict_set_item(dict, key.c_str(), toNode(item));
            return dict;
        }
    };
    return std::visit(Visitor{}, value.storage());
}

std::optional<PropertyList> fromNode(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t v = 0;
            plist_get_bool_val(node, &v);
            return PropertyList(v != 0);
        }
        case PLIST_UINT: {
            uint64_t v = 0;
            plist_get_uint_val(node, &v);
            return PropertyList(static_cast<int64_t>(v));
        }
        case PLIST_REAL: {
            double v = 0;
            plist_get_real_val(node, &v);
            return PropertyList(v);
        }
        case PLIST_STRING: {
            uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            return PropertyList(std::string(text ? text : "", text ? length : 0));
        }
        case PLIST_DATA: {
            uint64_t length = 0;
            const char* bytes = plist_get_data_ptr(node, &length);
            const auto* begin = reinterpret_cast<const uint8_t*>(bytes);
            return PropertyList(bytes ? PropertyList::Data(begin, begin + length) : PropertyList::Data{});
        }
        case PLIST_DATE: {
            int32_t sec = 0, usec = 0;
            plist_get_date_val(node, &sec, &usec);
            return PropertyList(PropertyList::Date(std::chrono::microseconds(
                (static_cast<int64_t>(sec) + referenceDateOffset) * 1000000 + usec)));
        }
        case PLIST_ARRAY: {
            PropertyList::Array array;
            uint32_t count = plist_array_get_size(node);
            for (uint32_t i = 0; i < count; ++i) {
                auto item = fromNode(plist_array_get_item(node, i));
                if (!item) return std::nullopt;
                array.push_back(std::move(*item));
            }
            return PropertyList(std::move(array));
        }
        case PLIST_DICT: {
            PropertyList::Dictionary dict;
            plist_dict_iter iter = nullptr;
            plist_dict_new_iter(node, &iter);
            while (iter) {
                char* key = nullptr;
                plist_t item = nullptr;
                plist_dict_next_item(node, iter, &key, &item);
                if (!key) break;
                std::string name(key);
                free(key);
                auto value = fromNode(item);
                if (!value) {
                    free(iter);
                    return std::nullopt;
                }
                dict.emplace(std::move(name), std::move(*value));
            }
            free(iter);
            return std::optional<PropertyList>(std::in_place, std::move(dict));
        }
        default:
            return std::nullopt;
    }
}

}  // namespace

std::optional<PropertyList> PropertyList::fromData(std::string_view bytes) {
    if (bytes.empty()) return std::nullopt;
    plist_t node = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &node);
    if (!node) return std::nullopt;
    PlistPtr owner(node);
    return fromNode(node);
}

std::string PropertyList::data(Format format) const {
    PlistPtr node(toNode(*this));
    char* bytes = nullptr;
    uint32_t length = 0;
    std::string result;
    if (format == Format::xml) {
        plist_to_xml(node.get(), &bytes, &length);
        if (bytes) result.assign(bytes, length);
        plist_to_xml_free(bytes);
    } else {
        plist_to_bin(node.get(), &bytes, &length);
        if (bytes) result.assign(bytes, length);
        plist_to_bin_free(bytes);
    }
    return result;
}

}  // namespace Foundation
