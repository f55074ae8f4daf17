// The keychain file: an SQLite database in WAL mode with a busy timeout, so
// that several processes (and threads) may read and write one file at once;
// every write is a transaction made durable before it returns
// (synchronous=FULL), and deleted secrets are overwritten (secure_delete).
//
// Schema version 2 (PRAGMA user_version), one table per item class, named
// after the class constant, and one of trust settings:
//
//   genp  generic passwords: svce, acct, agrp (TEXT, "" when the item has
//         none; together the item's primary key), labl (TEXT or NULL), data
//         (BLOB or NULL), cdat and mdat (creation and last modification,
//         INTEGER nanoseconds since 1970)
//   cert  certificates: ctyp (the X.509 version), issr (the issuer name's
//         DER), slnr (the serial number's DER), agrp (together the primary
//         key), subj (the subject name's DER), labl, hash (SHA-1 of the
//         certificate's DER), data (that DER), cdat, mdat
//   tset  trust settings: domain (the SecTrustSettingsDomain) and hash (of the
//         certificate, as in cert) are the key; data (the settings array as
//         a binary property list), mdat
//
// A file of version 1, whose cert and tset tables were never written, is
// brought to version 2 when it is opened (those two tables are made anew).
//
// A file is set up when it is first opened empty. An existing file is checked
// once per process (PRAGMA quick_check): one that is not an SQLite database,
// is damaged, or holds tables but no schema version (another program's
// database) is refused with errSecInvalidKeychain, one of another schema
// version with errSecWrongSecVersion. Triggers and views in
// a file never run, and its schema is not trusted to call functions.
//
// Each process keeps one connection per file and effective user, opened on
// first use (when that user may read and write the file) and used until its
// file is removed or replaced by another at the path (it has no link left),
// or a call finds the file damaged; the next call then opens the file that is
// there. (A file moved away, not replaced, stays in use until then.) (Whoever replaces a keychain file removes its "-wal" and
// "-shm" files with it, as for any SQLite database: SQLite would take them
// for the new file's.) A child made by fork() never uses or closes its
// parent's connections. Every member is thread-safe; calls on one file are serialised
// within the process.
//
// Internal to the Security calls (SecItem.cpp); tests and benchmarks may rely
// on the schema above.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Foundation/PropertyList.h"
#include "Security/SecBase.h"

namespace Security {
class SecCertificate;
}

namespace Security::detail {

/// One generic-password item as stored.
struct GenericPassword {
    int64_t rowid = 0;
    std::string service;
    std::string account;
    std::string accessGroup;
    std::optional<std::string> label;
    std::optional<std::vector<uint8_t>> data;
    int64_t created = 0;   // nanoseconds since 1970
    int64_t modified = 0;  // nanoseconds since 1970
};

/// The items whose attributes equal every value given; all items when none is.
struct GenericPasswordFilter {
    std::optional<std::string> service;
    std::optional<std::string> account;
    std::optional<std::string> accessGroup;
    std::optional<std::string> label;
};

/// New values for an update; what is absent stays.
struct GenericPasswordChanges {
    std::optional<std::string> service;
    std::optional<std::string> account;
    std::optional<std::string> accessGroup;
    std::optional<std::string> label;
    std::optional<std::vector<uint8_t>> data;

    bool empty() const { return !service && !account && !accessGroup && !label && !data; }
};

/// One certificate item as stored.
struct CertificateItem {
    int64_t rowid = 0;
    int64_t type = 0;                   // the X.509 version
    std::vector<uint8_t> issuer;        // DER of the issuer name
    std::vector<uint8_t> serialNumber;  // DER of the serial number
    std::string accessGroup;
    std::vector<uint8_t> subject;  // DER of the subject name
    std::optional<std::string> label;
    std::vector<uint8_t> hash;  // SHA-1 of data
    std::vector<uint8_t> data;  // the certificate's DER
    int64_t created = 0;
    int64_t modified = 0;
};

/// The stored form of certificate: its type, issuer, serial number, subject,
/// hash and data (the rest left as they are).
CertificateItem certificateItemOf(const SecCertificate& certificate);

/// The certificates whose attributes equal every value given.
struct CertificateFilter {
    std::optional<std::string> label;
    std::optional<std::string> accessGroup;
    std::optional<std::vector<uint8_t>> hash;
};

/// What an operation makes of a keychain file that is not there.
enum class MissingKeychain {
    isEmpty,    // no items (also when the effective user may not open it)
    isError,    // errSecNoSuchKeychain
    isCreated,  // made, with its folders (SecKeychain::folderMode)
};

class KeychainDatabase {
public:
    KeychainDatabase() = delete;

    /// Appends the matching items to found, ordered by service, account and
    /// access group, at most limit of them (0: all). Without attributes only
    /// their data is read (the other fields stay empty).
    static OSStatus find(const std::filesystem::path& file, MissingKeychain missing,
                         const GenericPasswordFilter& filter, size_t limit, bool attributes,
                         std::vector<GenericPassword>& found);
    /// Adds item (its rowid and times are set here). errSecDuplicateItem when
    /// the file holds an item with its service, account and access group.
    static OSStatus add(const std::filesystem::path& file, MissingKeychain missing, const GenericPassword& item);
    /// Applies changes to every matching item at once and sets their
    /// modification time; adds their number to updated. errSecDuplicateItem,
    /// changing nothing, when the changes would make two items alike.
    static OSStatus update(const std::filesystem::path& file, MissingKeychain missing,
                           const GenericPasswordFilter& filter, const GenericPasswordChanges& changes,
                           int64_t& updated);
    /// Deletes every matching item; adds their number to removed.
    static OSStatus remove(const std::filesystem::path& file, MissingKeychain missing,
                           const GenericPasswordFilter& filter, int64_t& removed);

    /// As find, for certificates (always every column), ordered by type,
    /// issuer, serial number and access group.
    static OSStatus findCertificates(const std::filesystem::path& file, MissingKeychain missing,
                                     const CertificateFilter& filter, size_t limit,
                                     std::vector<CertificateItem>& found);
    /// As add: errSecDuplicateItem for a certificate of the same type, issuer,
    /// serial number and access group.
    static OSStatus addCertificate(const std::filesystem::path& file, MissingKeychain missing,
                                   const CertificateItem& item);
    /// As remove, for certificates.
    static OSStatus removeCertificates(const std::filesystem::path& file, MissingKeychain missing,
                                       const CertificateFilter& filter, int64_t& removed);

    /// The trust settings of the certificate with this hash in domain.
    /// errSecItemNotFound when it has none, errSecInvalidTrustSettings when the
    /// stored value is not an array of dictionaries.
    static OSStatus copyTrustSettings(const std::filesystem::path& file, MissingKeychain missing, int64_t domain,
                                      const std::vector<uint8_t>& hash, Foundation::PropertyList::Array& settings);
    /// Sets (replaces) them.
    static OSStatus setTrustSettings(const std::filesystem::path& file, MissingKeychain missing, int64_t domain,
                                     const std::vector<uint8_t>& hash, const Foundation::PropertyList::Array& settings);
    /// Appends the DER of every certificate of the file that has trust
    /// settings in domain there, in the order of their hashes.
    static OSStatus certificatesWithTrustSettings(const std::filesystem::path& file, MissingKeychain missing,
                                                  int64_t domain, std::vector<std::vector<uint8_t>>& found);
};

}  // namespace Security::detail
