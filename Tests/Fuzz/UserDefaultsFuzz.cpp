// Fuzzes the user defaults' persistent domains: the input is a domain's file
// "<folder>/com.velmora.fuzz.plist" (XML or binary property list), read
// through the domain lookups. Every value that parses must also serialise, in
// both formats, and read back equal (in XML, dates to the second).
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include "Foundation/PropertyList.h"
#include "Foundation/UserDefaults.h"
#include "Fuzz/FuzzSupport.h"
#include "Fuzz/SameValue.h"

namespace {

using Foundation::PropertyList;
using FuzzSupport::same;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string name = "com.velmora.fuzz";
    static const std::filesystem::path folder = [] {
        std::filesystem::create_directories(FuzzSupport::scratchFolder() / "Preferences");
        return FuzzSupport::scratchFolder() / "Preferences";
    }();
    const std::string_view bytes = FuzzSupport::bytesOf(data, size);
    FuzzSupport::writeFile(folder / (name + ".plist"), bytes, 0600);

    // A fresh object, so nothing cached from the previous input answers.
    Foundation::UserDefaults defaults(name, folder);
    defaults.setVolatileDomain({}, Foundation::UserDefaults::argumentDomain);  // not the fuzzer's own options

    // The domain holds the file's top-level dictionary; any other file reads as empty.
    const auto value = PropertyList::fromData(bytes);
    const auto* fileDictionary = value ? value->get<PropertyList::Dictionary>() : nullptr;
    const PropertyList::Dictionary expected = fileDictionary ? *fileDictionary : PropertyList::Dictionary{};

    const auto domain = defaults.persistentDomain(name);
    FUZZ_CHECK(domain && same(PropertyList(*domain), PropertyList(expected)));
    FUZZ_CHECK(same(PropertyList(defaults.dictionaryRepresentation()), PropertyList(expected)));
    size_t looked = 0;
    for (const auto& [key, item] : expected) {
        if (++looked > 8) break;
        const auto found = defaults.object(key);
        FUZZ_CHECK(found && same(*found, item));
        FUZZ_CHECK(defaults.string(key) == (item.get<std::string>() ? std::optional(*item.get<std::string>())
                                                                    : std::nullopt));
    }

    if (!value) return 0;
    for (auto format : {PropertyList::Format::xml, PropertyList::Format::binary}) {
        const std::string written = value->data(format);
        FUZZ_CHECK(!written.empty());
        const auto reread = PropertyList::fromData(written);
        FUZZ_CHECK(reread && same(*value, *reread, format == PropertyList::Format::xml));
    }
    return 0;
}
