// Fuzzes an application's Info.plist (XML or binary) as the workspace reads
// it: the input is "<root>/Fuzz.app/Contents/Info.plist" and goes through
// Workspace::bundleIdentifier, the application lookup, and the property-list
// reader the rest of the daemon uses.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Foundation/PropertyList.h"
#include "Fuzz/FuzzSupport.h"
#include "Workspace/Workspace.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::filesystem::path root = FuzzSupport::scratchFolder() / "Applications";
    static const std::filesystem::path bundle = [] {
        std::filesystem::create_directories(root / "Fuzz.app" / "Contents");
        return root / "Fuzz.app";
    }();
    const std::string_view bytes = FuzzSupport::bytesOf(data, size);
    FuzzSupport::writeFile(bundle / "Contents" / "Info.plist", bytes);

    const auto identifier = Workspace::Workspace::bundleIdentifier(bundle);
    if (identifier) {
        const Workspace::Workspace workspace({root});
        FUZZ_CHECK(workspace.urlForApplication(*identifier) == bundle);
    }

    // Both readers share one parser: when the property-list reader finds a
    // string CFBundleIdentifier, the workspace reports the same one.
    const auto value = Foundation::PropertyList::fromData(bytes);
    if (const auto* dictionary = value ? value->get<Foundation::PropertyList::Dictionary>() : nullptr) {
        auto entry = dictionary->find("CFBundleIdentifier");
        if (entry != dictionary->end()) {
            if (const auto* text = entry->second.get<std::string>()) FUZZ_CHECK(identifier == *text);
        }
    }
    return 0;
}
