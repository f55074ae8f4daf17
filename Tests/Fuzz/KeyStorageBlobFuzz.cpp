// Fuzzes loading a key storage's blob: the input is what the storage's
// loadData() returns. The storage must hold the blob's top-level dictionary
// (nothing for any other input), and writing it out again must give a blob
// that loads to the same dictionary.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Foundation/PropertyList.h"
#include "Fuzz/FuzzSupport.h"
#include "Fuzz/SameValue.h"
#include "Tovik/KeyStorage.h"

namespace {

using Foundation::PropertyList;
using Tovik::KeyStorageBase;

/// Keeps the blob in memory: loads `blob`, stores into `written`.
class BlobStorage : public KeyStorageBase {
public:
    Data written;

protected:
    explicit BlobStorage(Data blob) : KeyStorageBase("KeyStorageBlobFuzz", 0), blob_(std::move(blob)) {}
    std::optional<Data> loadData() override { return blob_; }
    void storeData(const Data& blob) override { written = blob; }
    void deleteData() override {}

private:
    Data blob_;
};

bool same(const PropertyList::Dictionary& a, const PropertyList::Dictionary& b) {
    return FuzzSupport::same(PropertyList(a), PropertyList(b));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::quietLogs();
    const std::string_view bytes = FuzzSupport::bytesOf(data, size);
    const auto value = PropertyList::fromData(bytes);
    const auto* dictionary = value ? value->get<PropertyList::Dictionary>() : nullptr;
    const PropertyList::Dictionary expected = dictionary ? *dictionary : PropertyList::Dictionary{};

    auto storage = KeyStorageBase::make<BlobStorage>(KeyStorageBase::Data(data, data + size));
    const auto loaded = storage->dictionaryRepresentation();
    FUZZ_CHECK(same(loaded, expected));

    storage->reset(loaded);
    FUZZ_CHECK(!storage->written.empty());
    auto reloaded = KeyStorageBase::make<BlobStorage>(storage->written);
    FUZZ_CHECK(same(reloaded->dictionaryRepresentation(), expected));
    return 0;
}
