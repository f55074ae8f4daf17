#include "Tovik/SecItem.h"

namespace Tovik {

SecItem::OSStatus SecItem::add(const Query& query) { return Security::SecItemAdd(query, nullptr); }

SecItem::OSStatus SecItem::delete_(const Query& query) { return Security::SecItemDelete(query); }

SecItem::OSStatus SecItem::update(const Query& query, const Query& attributes) {
    return Security::SecItemUpdate(query, attributes);
}

SecItem::FindResult SecItem::find(const Query& query) {
    Security::CFTypeRef result;
    const OSStatus status = Security::SecItemCopyMatching(query, &result);
    if (status != Security::errSecSuccess) return FindResult(std::nullopt, status);
    return FindResult(std::move(result), Security::errSecParam);
}

}  // namespace Tovik
