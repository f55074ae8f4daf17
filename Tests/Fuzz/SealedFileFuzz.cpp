// Fuzzes opening a sealed storage file. The input's first byte chooses what
// the rest is: odd — a blob, sealed here under the storage's key, so that the
// file opens and the blob is parsed; even — the file's bytes as they are.
// Opening never crashes; the storage holds the blob's top-level dictionary
// when the file opens to one, and nothing otherwise.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>

#include "CryptoKit/AESGCM.h"
#include "Foundation/PropertyList.h"
#include "Fuzz/FuzzSupport.h"
#include "Fuzz/SameValue.h"
#include "Support/MemoryKeyChainData.h"
#include "Tovik/SecureStorage.h"

namespace {

using Foundation::PropertyList;
namespace GCM = CryptoKit::AES::GCM;

bool same(const PropertyList::Dictionary& a, const PropertyList::Dictionary& b) {
    return FuzzSupport::same(PropertyList(a), PropertyList(b));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::quietLogs();
    static const std::filesystem::path url = FuzzSupport::scratchFolder() / "fuzz.sealed";
    static const std::vector<uint8_t> key(32, 0x5e);
    if (size == 0) return 0;
    const bool sealed = data[0] & 1;
    const std::span<const uint8_t> rest(data + 1, size - 1);

    PropertyList::Dictionary expected;
    if (sealed) {
        const auto box = GCM::seal(rest, CryptoKit::SymmetricKey(key));
        const auto& file = box.combined();
        FuzzSupport::writeFile(url, FuzzSupport::bytesOf(file.data(), file.size()), 0600);
        const auto value = PropertyList::fromData(FuzzSupport::bytesOf(rest.data(), rest.size()));
        if (value && value->get<PropertyList::Dictionary>()) expected = *value->get<PropertyList::Dictionary>();
    } else {
        FuzzSupport::writeFile(url, FuzzSupport::bytesOf(rest.data(), rest.size()), 0600);
    }

    auto storage = Tovik::SecureStorage::create(std::make_shared<TestSupport::MemoryKeyChainData>(key), url, 0);
    FUZZ_CHECK(same(storage->dictionaryRepresentation(), expected));
    return 0;
}
