#include "Security/SecBase.h"

#include <utility>

namespace Security {

std::optional<std::string> SecCopyErrorMessageString(OSStatus status, void*) {
    static constexpr std::pair<OSStatus, const char*> texts[] = {
        {errSecSuccess, "No error."},
        {errSecUnimplemented, "Function or operation not implemented."},
        {errSecDiskFull, "The disk is full."},
        {errSecIO, "I/O error."},
        {errSecParam, "One or more parameters passed to a function were not valid."},
        {errSecWrPerm, "Write permissions error."},
        {errSecAllocate, "Failed to allocate memory."},
        {errSecNotAvailable, "No keychain is available. You may need to restart your computer."},
        {errSecReadOnly, "This keychain cannot be modified."},
        {errSecAuthFailed, "The user name or passphrase you entered is not correct."},
        {errSecNoSuchKeychain, "The specified keychain could not be found."},
        {errSecInvalidKeychain, "The specified keychain is not a valid keychain file."},
        {errSecDuplicateKeychain, "A keychain with the same name already exists."},
        {errSecDuplicateItem, "The specified item already exists in the keychain."},
        {errSecItemNotFound, "The specified item could not be found in the keychain."},
        {errSecDataTooLarge,
         "This item contains information which is too large or in a format that cannot be displayed."},
        {errSecNoSuchClass, "The specified item does not appear to be a valid keychain item."},
        {errSecInteractionNotAllowed, "User interaction is not allowed."},
        {errSecWrongSecVersion,
         "This keychain was created by a different version of the system software and cannot be opened."},
        {errSecInvalidPrefsDomain, "The specified preferences domain is not valid."},
        {errSecInvalidTrustSettings, "The Trust Settings Record was corrupted."},
        {errSecNoTrustSettings, "No Trust Settings were found."},
        {errSecDecode, "Unable to decode the provided data."},
        {errSecMissingEntitlement, "A required entitlement isn't present."},
        {errSecInvalidData, "Invalid data was encountered."},
    };
    for (const auto& [code, text] : texts)
        if (code == status) return text;
    return std::nullopt;
}

}  // namespace Security
