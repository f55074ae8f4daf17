// Keychain items: SecItemAdd, SecItemCopyMatching, SecItemUpdate and
// SecItemDelete over query dictionaries, as the platform's.
//
// A dictionary maps the kSec* key constants below (strings) to property-list
// values: strings, data, booleans, integers, arrays, and the value constants
// (kSecClassGenericPassword, kSecMatchLimitOne, ...). Keys a call does not
// take, and values of the wrong type, give errSecParam.
//
// Item classes: generic passwords (kSecClassGenericPassword) and
// certificates (kSecClassCertificate). The other classes give
// errSecUnimplemented, an unknown class errSecNoSuchClass, a missing kSecClass
// errSecParam.
//
// Generic-password attributes (strings): kSecAttrService, kSecAttrAccount,
// kSecAttrAccessGroup, kSecAttrLabel. An item is identified by its service,
// account and access group (an attribute it was added without counts as ""):
// adding a second item with the same three gives errSecDuplicateItem. An
// attribute in a query matches the items whose attribute equals it; an
// attribute left out matches any value (a query without kSecAttrAccessGroup
// finds items of every access group).
//
// Certificates are added from kSecValueRef (the certificate, as
// SecCertificate.h says) with kSecAttrLabel (default: the certificate's
// subject summary) and kSecAttrAccessGroup. A certificate is identified by its
// type, issuer, serial number and access group: adding it again, under any
// label, gives errSecDuplicateItem. Queries match kSecAttrLabel,
// kSecAttrAccessGroup and kSecValueRef (that certificate). SecItemUpdate of
// certificates gives errSecUnimplemented.
//
// Which keychains a call uses (see SecKeychain.h for the files):
//   kSecUseDataProtectionKeychain = true: the data-protection keychain only;
//   add: kSecUseKeychain (a keychain's path), else the default keychain;
//   the others: kSecMatchSearchList (an array of keychain paths, each
//   searched in order), else the user domain's then the system domain's
//   search list (once each), skipping files the effective user may not open.
// Keychains named in a query must exist unless they are one of the files of
// SecKeychain.h. A keychain file that is not a keychain or is damaged gives
// errSecInvalidKeychain, one of another version errSecWrongSecVersion.
//
// Search: kSecMatchLimit is kSecMatchLimitOne (the default), kSecMatchLimitAll
// or a number of items >= 1; items are found keychain by keychain, within one
// ordered by service, account and access group (certificates: by type, issuer,
// serial number and access group). The result: with kSecReturnData the
// item's data (a certificate's DER), with kSecReturnRef a certificate's DER,
// with kSecReturnAttributes a dictionary of its attributes (kSecClass;
// service and account always, access group and label when it has them;
// a certificate's type, issuer, serial number and subject always, access
// group and label when it has them; kSecAttrCreationDate,
// kSecAttrModificationDate) holding kSecValueData and kSecValueRef too when
// they are asked for; with a limit other than one an array of those, one per
// item. Without a kSecReturn... key nothing is returned.
//
// Every call is synchronous, may block on a keychain file another process is
// writing (up to a busy timeout, then errSecInteractionNotAllowed), and is
// thread-safe.
#pragma once

#include <optional>

#include "Foundation/PropertyList.h"
#include "Security/SecBase.h"

namespace Security {

/// A query or attribute dictionary.
using CFDictionary = Foundation::PropertyList::Dictionary;
/// What a call returns: nothing, data, an attribute dictionary or an array.
using CFTypeRef = std::optional<Foundation::PropertyList>;

inline constexpr const char* kSecClass = "class";
inline constexpr const char* kSecClassGenericPassword = "genp";
inline constexpr const char* kSecClassInternetPassword = "inet";
inline constexpr const char* kSecClassCertificate = "cert";
inline constexpr const char* kSecClassKey = "keys";
inline constexpr const char* kSecClassIdentity = "idnt";

inline constexpr const char* kSecAttrService = "svce";
inline constexpr const char* kSecAttrAccount = "acct";
inline constexpr const char* kSecAttrAccessGroup = "agrp";
inline constexpr const char* kSecAttrLabel = "labl";
inline constexpr const char* kSecAttrCertificateType = "ctyp";   // returned only: the X.509 version
inline constexpr const char* kSecAttrIssuer = "issr";            // returned only: DER of the name
inline constexpr const char* kSecAttrSerialNumber = "slnr";      // returned only: DER of the number
inline constexpr const char* kSecAttrSubject = "subj";           // returned only: DER of the name
inline constexpr const char* kSecAttrCreationDate = "cdat";      // returned only
inline constexpr const char* kSecAttrModificationDate = "mdat";  // returned only

inline constexpr const char* kSecValueData = "v_Data";
inline constexpr const char* kSecValueRef = "v_Ref";
inline constexpr const char* kSecReturnData = "r_Data";
inline constexpr const char* kSecReturnRef = "r_Ref";
inline constexpr const char* kSecReturnAttributes = "r_Attributes";

inline constexpr const char* kSecMatchLimit = "m_Limit";
inline constexpr const char* kSecMatchLimitOne = "m_LimitOne";
inline constexpr const char* kSecMatchLimitAll = "m_LimitAll";
inline constexpr const char* kSecMatchSearchList = "m_SearchList";

inline constexpr const char* kSecUseKeychain = "u_Keychain";
inline constexpr const char* kSecUseDataProtectionKeychain = "nleg";

/// Adds the item the dictionary describes: kSecClass, the attributes,
/// kSecValueData (its data, may be left out), the keychain keys above, and
/// kSecReturn... keys when result is given (filled as a search's result).
OSStatus SecItemAdd(const CFDictionary& attributes, CFTypeRef* result);

/// Finds items: kSecClass, attributes to match, kSecMatchLimit, the
/// kSecReturn... keys and the keychain keys. result (may be null) receives
/// the result on success and is left as it was otherwise.
/// errSecItemNotFound when nothing matches.
OSStatus SecItemCopyMatching(const CFDictionary& query, CFTypeRef* result);

/// Changes every item the query matches (kSecClass, attributes, keychain
/// keys; kSecMatchLimit is accepted and every match changed) to the
/// attributes and kSecValueData in attributesToUpdate, and sets their
/// modification date. errSecItemNotFound when nothing matches, errSecParam
/// for nothing to update, errSecDuplicateItem (changing nothing in that
/// keychain) when two items would become alike.
OSStatus SecItemUpdate(const CFDictionary& query, const CFDictionary& attributesToUpdate);

/// Deletes every item the query matches (as for SecItemUpdate).
/// errSecItemNotFound when nothing matches.
OSStatus SecItemDelete(const CFDictionary& query);

}  // namespace Security
