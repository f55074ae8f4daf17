#include "Foundation/PropertyList.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Foundation::PropertyList;
using namespace std::string_literals;

namespace {

void appendBigEndian(std::string& out, uint64_t value, int width) {
    for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<char>(value >> (8 * i)));
}

// A binary property list of the given objects (marker and payload each; one-byte references),
// with 4-byte offsets.
std::string binaryList(const std::vector<std::string>& objects, uint64_t top = 0) {
    std::string out = "bplist00", table;
    for (const auto& object : objects) {
        appendBigEndian(table, out.size(), 4);
        out += object;
    }
    uint64_t tableOffset = out.size();
    out += table + std::string(6, '\0') + "\x04\x01";
    appendBigEndian(out, objects.size(), 8);
    appendBigEndian(out, top, 8);
    appendBigEndian(out, tableOffset, 8);
    return out;
}

// Object i is an array holding object i + 1, twice when `twice`; the last is an empty array.
std::string binaryChain(size_t count, bool twice = false) {
    std::vector<std::string> objects;
    for (size_t i = 0; i + 1 < count; ++i) {
        std::string next(1, static_cast<char>(i + 1));
        objects.push_back(twice ? "\xA2" + next + next : "\xA1" + next);
    }
    objects.push_back("\xA0");
    return binaryList(objects);
}

std::string xmlArrays(size_t levels, const std::string& inside = "") {
    std::string text = "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">";
    for (size_t i = 0; i < levels; ++i) text += "<array>";
    text += inside;
    for (size_t i = 0; i < levels; ++i) text += "</array>";
    return text + "</plist>";
}

PropertyList nestedArrays(size_t levels) {
    PropertyList value = PropertyList::Array{};
    for (size_t i = 1; i < levels; ++i) value = PropertyList::Array{value};
    return value;
}

TEST(PropertyListTests, BinaryGraphsAreCheckedBeforeParsing) {
    EXPECT_EQ(PropertyList::fromData(binaryChain(64)), nestedArrays(64));
    EXPECT_EQ(PropertyList::boundsViolation(binaryChain(65)), "nesting deeper than 64 levels");
    // 40 objects sharing their one child twice expand to 2^40 arrays.
    EXPECT_EQ(PropertyList::boundsViolation(binaryChain(40, true)), "more than 1000000 values");
    EXPECT_EQ(PropertyList::boundsViolation(binaryList({"\xA1\x01"s, "\xA1\x00"s})), "reference cycle");
    EXPECT_EQ(PropertyList::boundsViolation(binaryList({"\xA1\x07"s})), "reference out of range");
    EXPECT_EQ(PropertyList::boundsViolation(binaryList({"\xA1\x01"s, "\x09"s}, 2)), "trailer does not fit the data");
    EXPECT_EQ(PropertyList::boundsViolation(binaryList({"\xAF\x10\xFF"s})), "references run into the offset table");
    // libplist aborts the process reading a UTF-16 dictionary key holding U+0000.
    EXPECT_EQ(PropertyList::fromData(binaryList({"\xD1\x01\x02"s, "\x61\x00\x00"s, "\x09"s})), std::nullopt);
    std::string list = binaryList({"\x09"s});
    EXPECT_EQ(PropertyList::fromData(list), PropertyList(true));
    EXPECT_EQ(PropertyList::boundsViolation(list.substr(0, list.size() - 1)), "invalid integer width in the trailer");
    EXPECT_EQ(PropertyList::boundsViolation(list.substr(0, 39)), "truncated binary property list");
}

TEST(PropertyListTests, XmlNestingIsCountedAsTheParserSeesTags) {
    EXPECT_EQ(PropertyList::fromData(xmlArrays(64)), nestedArrays(64));
    EXPECT_EQ(PropertyList::fromData(nestedArrays(64).data(PropertyList::Format::binary)), nestedArrays(64));
    EXPECT_EQ(PropertyList::boundsViolation(xmlArrays(64, "<!-- </array> --><array/><dict />")), std::nullopt);
    EXPECT_EQ(PropertyList::boundsViolation(xmlArrays(65)), "nesting deeper than 64 levels");
    // Closing tags that the parser skips must not make room for more levels.
    const auto repeat = [](const std::string& text, size_t times) {
        std::string out;
        for (size_t i = 0; i < times; ++i) out += text;
        return out;
    };
    for (const char* skipped : {"<!--%-->", "<?pi %?>", "<![CDATA[%]]>", "<!DOCTYPE x [%]>"}) {
        std::string hidden = skipped;
        hidden.replace(hidden.find('%'), 1, repeat("</array>", 40));
        std::string text = xmlArrays(40, hidden + repeat("<array>", 30) + repeat("</array>", 30));
        EXPECT_EQ(PropertyList::boundsViolation(text), "nesting deeper than 64 levels") << skipped;
    }
    // libplist skips quoted text in processing instructions, the DOCTYPE and
    // attributes, other parsers do not: a terminator in quotes is refused.
    std::string quoted = "<?pi \"?>" + repeat("</array>", 40) + "\" ?>";
    EXPECT_EQ(PropertyList::boundsViolation(xmlArrays(40, quoted + repeat("<array>", 30) + repeat("</array>", 30))),
              "unterminated or ambiguous markup");
}

}  // namespace
