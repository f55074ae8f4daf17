#include "Foundation/PropertyList.h"

#include "Foundation/UTF8.h"

#include <plist/plist.h>

#include <algorithm>
#include <cstdlib>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace Foundation {

namespace {

using Violation = std::optional<std::string>;

std::string tooDeep() {
    return "nesting deeper than " + std::to_string(PropertyList::maxNestingDepth) + " levels";
}
std::string tooManyValues() { return "more than " + std::to_string(PropertyList::maxValueCount) + " values"; }
std::string tooMuchContent() {
    return "more than " + std::to_string(PropertyList::maxContentSize) + " bytes of strings and data";
}
std::string tooManyEntries() {
    return "a dictionary with more than " + std::to_string(PropertyList::maxDictionaryEntries) + " entries";
}

// ---- Binary property lists ("bplist00") ----
//
// Layout: the 8-byte header, the objects, the offset table (one offset per
// object) and a 32-byte trailer: 6 unused bytes, the offset width, the
// reference width, then the object count, the top object and the offset
// table's position as big-endian 64-bit integers. An object starts with a
// marker byte: type in the high nibble, length (or 0xF and an integer object
// holding the length) in the low one. Arrays (0xA), sets (0xC) and
// dictionaries (0xD: all keys, then all values) hold references, which are
// object numbers.

constexpr size_t binaryHeaderSize = 8, binaryTrailerSize = 32;

uint64_t bigEndian(std::string_view bytes, size_t offset, size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) value = value << 8 | static_cast<uint8_t>(bytes[offset + i]);
    return value;
}

struct BinaryObject {
    bool container = false;
    size_t references = 0;     // where the references start
    uint64_t referenceCount = 0;
    uint64_t contentSize = 0;  // what the parser allocates for a string or data
};

class BinaryCheck {
public:
    explicit BinaryCheck(std::string_view bytes) : bytes_(bytes) {}

    Violation run() {
        if (bytes_.size() < binaryHeaderSize + binaryTrailerSize) return "truncated binary property list";
        if (bytes_.substr(0, binaryHeaderSize) != "bplist00") return "unsupported binary property list version";
        const size_t trailer = bytes_.size() - binaryTrailerSize;
        offsetWidth_ = static_cast<uint8_t>(bytes_[trailer + 6]);
        referenceWidth_ = static_cast<uint8_t>(bytes_[trailer + 7]);
        objectCount_ = bigEndian(bytes_, trailer + 8, 8);
        const uint64_t top = bigEndian(bytes_, trailer + 16, 8);
        tableOffset_ = bigEndian(bytes_, trailer + 24, 8);
        if (offsetWidth_ < 1 || offsetWidth_ > 8 || referenceWidth_ < 1 || referenceWidth_ > 8) {
            return "invalid integer width in the trailer";
        }
        if (tableOffset_ < binaryHeaderSize || tableOffset_ > trailer || objectCount_ == 0 ||
            objectCount_ > (trailer - tableOffset_) / offsetWidth_ || top >= objectCount_) {
            return "trailer does not fit the data";
        }
        // Every object of a well-formed list is reachable and so a value.
        if (objectCount_ > PropertyList::maxValueCount) return tooManyValues();
        return walk(top);
    }

private:
    enum State : uint8_t { unseen, onPath, done };

    // Of the tree an object expands to; each stays within one past its bound.
    struct Totals {
        uint32_t height = 0;  // 0 for a leaf
        uint32_t values = 1;
        uint32_t content = 0;
    };

    struct Frame {
        uint64_t index;
        BinaryObject object;
        uint64_t next = 0;
        Totals totals{1, 1, 0};
    };

    // Walks the object graph depth first with an explicit path, computing each
    // object's totals once; a reference to an object still on the path is a
    // cycle.
    Violation walk(uint64_t top) {
        state_.assign(objectCount_, unseen);
        totals_.assign(objectCount_, Totals{});
        std::vector<Frame> path;
        path.reserve(PropertyList::maxNestingDepth);
        if (auto violation = enter(top, path)) return violation;
        while (!path.empty()) {
            Frame& frame = path.back();
            if (frame.next < frame.object.referenceCount) {
                uint64_t child =
                    bigEndian(bytes_, frame.object.references + frame.next * referenceWidth_, referenceWidth_);
                ++frame.next;
                if (child >= objectCount_) return "reference out of range";
                if (state_[child] == onPath) return "reference cycle";
                if (state_[child] == unseen) {
                    if (auto violation = enter(child, path)) return violation;
                    if (state_[child] == onPath) continue;  // a container: its references come first
                }
                if (auto violation = add(path.back().totals, totals_[child])) return violation;
                continue;
            }
            uint64_t index = frame.index;
            totals_[index] = frame.totals;
            state_[index] = done;
            path.pop_back();
            if (!path.empty()) {
                if (auto violation = add(path.back().totals, totals_[index])) return violation;
            }
        }
        return std::nullopt;
    }

    // Decodes object index: a leaf is done at once, a container goes on the path.
    Violation enter(uint64_t index, std::vector<Frame>& path) {
        BinaryObject object;
        if (auto violation = decode(index, object)) return violation;
        if (!object.container) {
            if (object.contentSize > PropertyList::maxContentSize) return tooMuchContent();
            state_[index] = done;
            totals_[index] = Totals{0, 1, static_cast<uint32_t>(object.contentSize)};
            return std::nullopt;
        }
        if (path.size() == PropertyList::maxNestingDepth) return tooDeep();
        state_[index] = onPath;
        path.push_back(Frame{index, object});
        return std::nullopt;
    }

    static Violation add(Totals& parent, const Totals& child) {
        parent.height = std::max(parent.height, child.height + 1);
        parent.values = static_cast<uint32_t>(
            std::min<uint64_t>(uint64_t{parent.values} + child.values, PropertyList::maxValueCount + 1));
        parent.content = static_cast<uint32_t>(
            std::min<uint64_t>(uint64_t{parent.content} + child.content, PropertyList::maxContentSize + 1));
        if (parent.height > PropertyList::maxNestingDepth) return tooDeep();
        if (parent.values > PropertyList::maxValueCount) return tooManyValues();
        if (parent.content > PropertyList::maxContentSize) return tooMuchContent();
        return std::nullopt;
    }

    // Checks that object index lies between the header and the offset table
    // and that everything it holds does too.
    Violation decode(uint64_t index, BinaryObject& object) const {
        const uint64_t offset = bigEndian(bytes_, tableOffset_ + index * offsetWidth_, offsetWidth_);
        if (offset < binaryHeaderSize || offset >= tableOffset_) return "object offset out of range";
        const auto marker = static_cast<uint8_t>(bytes_[offset]);
        const unsigned type = marker >> 4, low = marker & 0xF;
        size_t position = offset + 1;
        const auto left = [&]() -> uint64_t { return tableOffset_ - position; };  // before the offset table
        const auto fits = [&](uint64_t size) -> Violation {
            if (size > left()) return "object runs into the offset table";
            return std::nullopt;
        };

        uint64_t length = low;
        const bool sized = type == 0x4 || type == 0x5 || type == 0x6 || type == 0xA || type == 0xC || type == 0xD;
        if (sized && low == 0xF) {
            if (left() < 1) return "object runs into the offset table";
            const auto lengthMarker = static_cast<uint8_t>(bytes_[position]);
            if (lengthMarker >> 4 != 0x1 || (lengthMarker & 0xF) > 3) return "invalid object length";
            const size_t width = size_t{1} << (lengthMarker & 0xF);
            ++position;
            if (auto violation = fits(width)) return violation;
            length = bigEndian(bytes_, position, width);
            position += width;
        }

        switch (type) {
            case 0x0:  // null, false, true
                if (low != 0x0 && low != 0x8 && low != 0x9) return "unknown object type";
                return std::nullopt;
            case 0x1:  // integer of 1 << low bytes
                return low > 4 ? "invalid integer size" : fits(uint64_t{1} << low);
            case 0x2:  // real
                return low != 2 && low != 3 ? "invalid real size" : fits(uint64_t{1} << low);
            case 0x3:  // date
                return low != 3 ? "invalid date size" : fits(8);
            case 0x4:  // data
            case 0x5:  // ASCII string
                object.contentSize = length;
                return fits(length);
            case 0x6:  // UTF-16 string, converted to UTF-8 in a buffer of 4 bytes a unit
                if (length > left() / 2) return "object runs into the offset table";
                // libplist asserts (aborts) reading a dictionary key that holds U+0000.
                for (uint64_t unit = 0; unit < length; ++unit) {
                    if (bytes_[position + 2 * unit] == 0 && bytes_[position + 2 * unit + 1] == 0) {
                        return "UTF-16 string holding U+0000";
                    }
                }
                object.contentSize = 4 * (length + 1);
                return std::nullopt;
            case 0x8:  // UID
                return fits(low + 1);
            case 0xA:
            case 0xC:
            case 0xD: {
                const uint64_t perEntry = type == 0xD ? 2 : 1;
                if (type == 0xD && length > PropertyList::maxDictionaryEntries) return tooManyEntries();
                if (length > left() / referenceWidth_ / perEntry) {
                    return "references run into the offset table";
                }
                object.container = true;
                object.references = position;
                object.referenceCount = length * perEntry;
                return std::nullopt;
            }
            default:
                return "unknown object type";
        }
    }

    std::string_view bytes_;
    size_t offsetWidth_ = 0, referenceWidth_ = 0;
    uint64_t objectCount_ = 0, tableOffset_ = 0;
    std::vector<State> state_;
    std::vector<Totals> totals_;
};

// ---- XML property lists ----
//
// Tags are followed as libplist reads them: a tag's name runs to white space,
// '<' or '>'; "/>" makes it empty; processing instructions, comments, CDATA
// sections and the DOCTYPE are skipped. libplist skips double-quoted text
// inside processing instructions, the DOCTYPE and tag attributes; a
// terminator inside such quotes is refused, as parsers that do not skip
// quotes would end the construct there. Entities are never expanded (libplist
// knows only the predefined and numeric ones).

// The first position from `from` on where `matches` holds outside double
// quotes; nothing when there is none or when it holds inside quotes first.
template <class Matches>
std::optional<size_t> findUnquoted(std::string_view text, size_t from, Matches matches) {
    bool quoted = false;
    for (size_t i = from; i < text.size(); ++i) {
        if (matches(i)) {
            if (quoted) return std::nullopt;
            return i;
        }
        if (text[i] == '"') quoted = !quoted;
    }
    return std::nullopt;
}

Violation checkXml(std::string_view text) {
    struct Open {
        bool dictionary;
        size_t keys;
    };
    std::vector<Open> open;
    open.reserve(PropertyList::maxNestingDepth);
    size_t values = 0;
    const std::string unterminated = "unterminated or ambiguous markup";
    const auto startsWith = [&](size_t position, std::string_view prefix) {
        return text.compare(position, prefix.size(), prefix) == 0;
    };
    const auto oneOf = [&](std::string_view characters) {
        return [&text, characters](size_t i) { return characters.find(text[i]) != std::string_view::npos; };
    };

    for (size_t position = 0; (position = text.find('<', position)) != std::string_view::npos;) {
        if (startsWith(position, "<?")) {
            auto end = findUnquoted(text, position + 1, [&](size_t i) { return startsWith(i, "?>"); });
            if (!end) return unterminated;
            position = *end + 2;
            continue;
        }
        if (startsWith(position, "<!--") || startsWith(position, "<![CDATA[")) {
            const bool comment = text[position + 2] == '-';
            size_t end = text.find(comment ? "-->" : "]]>", position + (comment ? 4 : 9));
            if (end == std::string_view::npos) return unterminated;
            position = end + 3;
            continue;
        }
        if (startsWith(position, "<!DOCTYPE")) {
            auto stop = findUnquoted(text, position + 9, oneOf("[>"));
            if (stop && text[*stop] == '[') {
                stop = findUnquoted(text, *stop, [&](size_t i) { return startsWith(i, "]>"); });
                if (stop) ++*stop;
            }
            if (!stop) return unterminated;
            position = *stop + 1;
            continue;
        }
        if (startsWith(position, "<!")) return "unknown markup";

        size_t nameEnd = text.find_first_of(" \t\r\n<>", position + 1);
        if (nameEnd == std::string_view::npos) return unterminated;
        std::optional<size_t> close = nameEnd;
        if (text[nameEnd] != '>') close = findUnquoted(text, nameEnd, oneOf("<>"));
        if (!close || text[*close] != '>') return unterminated;
        std::string_view name = text.substr(position + 1, nameEnd - position - 1);
        const bool empty = text[*close - 1] == '/';
        if (empty && *close == nameEnd) name.remove_suffix(1);  // "<dict/>": the slash is no part of the name
        position = *close + 1;

        if (name == "/array" || name == "/dict") {
            if (open.empty()) return "unbalanced closing tag";
            open.pop_back();
            continue;
        }
        if (name.starts_with('/') || name == "plist") continue;
        if (++values > PropertyList::maxValueCount) return tooManyValues();
        if (name == "key" && !open.empty() && open.back().dictionary &&
            ++open.back().keys > PropertyList::maxDictionaryEntries) {
            return tooManyEntries();
        }
        if ((name == "array" || name == "dict") && !empty) {
            if (open.size() == PropertyList::maxNestingDepth) return tooDeep();
            open.push_back(Open{name == "dict", 0});
        }
    }
    return std::nullopt;
}

// Property-list dates count from 2001-01-01 00:00:00 UTC.
constexpr int64_t referenceDateOffset = 978307200;

struct PlistDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

// Dates. The library keeps a date as its seconds since 2001 (a double), but
// its accessors take and give whole seconds as 32-bit numbers (1901...2038
// only) and truncate the fraction, so a date read through them comes back
// wrapped around, or a microsecond early now and then. Dates therefore cross
// the library as the one thing it carries whole: a binary list of a single
// date, whose double this code writes and reads itself.
constexpr size_t dateListSize = 8 + 9 + 1 + 32;  // header, the date object, offset table, trailer

plist_t newDateNode(PropertyList::Date date) {
    const int64_t micros = std::chrono::duration_cast<std::chrono::microseconds>(date.time_since_epoch()).count() -
                           referenceDateOffset * 1000000;
    const double seconds = static_cast<double>(micros) / 1e6;
    uint64_t bits = 0;
    std::memcpy(&bits, &seconds, sizeof bits);
    unsigned char list[dateListSize] = {'b', 'p', 'l', 'i', 's', 't', '0', '0', 0x33};
    for (int i = 0; i < 8; ++i) list[9 + i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
    list[17] = 8;                                   // offset of object 0
    unsigned char* trailer = list + dateListSize - 32;
    trailer[6] = 1;                                 // offset size
    trailer[7] = 1;                                 // reference size
    trailer[15] = 1;                                // one object
    trailer[31] = 17;                               // offset table at byte 17; top object 0
    plist_t node = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(list), dateListSize, &node);
    return node != nullptr ? node : plist_new_date(0, 0);
}

std::optional<PropertyList::Date> dateOfNode(plist_t node) {
    PlistPtr copy(plist_copy(node));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(copy.get(), &bytes, &length);
    std::optional<PropertyList::Date> date;
    if (bytes != nullptr && length >= 17 && static_cast<unsigned char>(bytes[8]) == 0x33) {
        uint64_t bits = 0;
        for (int i = 0; i < 8; ++i) bits = bits << 8 | static_cast<unsigned char>(bytes[9 + i]);
        double seconds = 0;
        std::memcpy(&seconds, &bits, sizeof seconds);
        // Clamped to what the clock's nanoseconds hold (about 1677...2262):
        // the platform's "distant past" and "distant future" stay far away.
        constexpr double limit = 9.2e15;
        const double micros = std::round(seconds * 1e6) + static_cast<double>(referenceDateOffset) * 1e6;
        if (!std::isnan(micros)) {
            date = PropertyList::Date(std::chrono::microseconds(static_cast<int64_t>(std::clamp(micros, -limit, limit))));
        }
    }
    plist_to_bin_free(bytes);
    return date;
}

plist_t toNode(const PropertyList& value) {
    struct Visitor {
        plist_t operator()(bool v) const { return plist_new_bool(v ? 1 : 0); }
        plist_t operator()(int64_t v) const { return plist_new_uint(static_cast<uint64_t>(v)); }
        plist_t operator()(double v) const { return plist_new_real(v); }
        plist_t operator()(const std::string& v) const { return plist_new_string(v.c_str()); }
        plist_t operator()(const PropertyList::Data& v) const {
            return plist_new_data(reinterpret_cast<const char*>(v.data()), v.size());
        }
        plist_t operator()(const PropertyList::Date& v) const { return newDateNode(v); }
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

bool holdsNul(const PropertyList& value) {
    if (const auto* text = value.get<std::string>()) return text->find('\0') != std::string::npos;
    if (const auto* array = value.get<PropertyList::Array>())
        return std::any_of(array->begin(), array->end(), holdsNul);
    if (const auto* dictionary = value.get<PropertyList::Dictionary>()) {
        return std::any_of(dictionary->begin(), dictionary->end(), [](const auto& entry) {
            return entry.first.find('\0') != std::string::npos || holdsNul(entry.second);
        });
    }
    return false;
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
            std::string value(text ? text : "", text ? length : 0);
            // Bytes that are no text (a binary list's 8-bit strings are
            // ASCII) make the list unreadable, as they do on the platform;
            // a NUL could not be written back.
            if (!isValidUTF8(value) || value.find('\0') != std::string::npos) return std::nullopt;
            return PropertyList(std::move(value));
        }
        case PLIST_DATA: {
            uint64_t length = 0;
            const char* bytes = plist_get_data_ptr(node, &length);
            const auto* begin = reinterpret_cast<const uint8_t*>(bytes);
            return PropertyList(bytes ? PropertyList::Data(begin, begin + length) : PropertyList::Data{});
        }
        case PLIST_DATE: {
            auto date = dateOfNode(node);
            if (!date) return std::nullopt;
            return PropertyList(*date);
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
                auto value = isValidUTF8(name) ? fromNode(item) : std::nullopt;
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

std::optional<std::string> PropertyList::boundsViolation(std::string_view bytes) {
    try {
        if (bytes.size() > maxDataSize) return "larger than " + std::to_string(maxDataSize) + " bytes";
        // libplist takes data starting with "bplist00" for binary, anything else for XML.
        if (bytes.starts_with("bplist")) return BinaryCheck(bytes).run();
        return checkXml(bytes);
    } catch (const std::bad_alloc&) {
        return "out of memory";
    }
}

std::optional<PropertyList> PropertyList::fromData(std::string_view bytes) {
    if (bytes.empty() || boundsViolation(bytes)) return std::nullopt;
    try {
        plist_t node = nullptr;
        plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &node);
        if (!node) return std::nullopt;
        PlistPtr owner(node);
        return fromNode(node);
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

std::string PropertyList::data(Format format) const {
    // The library takes strings and keys up to their first NUL: such a value
    // is refused rather than written cut short.
    if (holdsNul(*this)) return {};
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
