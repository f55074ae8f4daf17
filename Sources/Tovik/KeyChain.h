// Generic-password items in the keychain: opaque bytes stored under a key
// (the item's account), a service and an optional access group, and a typed
// layer that stores values as JSON.
//
// Every item operation builds the same base query: kSecClass =
// kSecClassGenericPassword, kSecAttrService = the service, kSecAttrAccount =
// the key and, only with an access group, kSecAttrAccessGroup = the group and
// kSecUseDataProtectionKeychain = true. Items without an access group live in
// the file keychain (login, or system for root), items with one in the
// data-protection keychain.
//
// The service, when not given, is defaultService(). No state: every member is
// static and callable from any thread; the operations block on the keychain.
// Failures are statuses (Security's OSStatus, 0 for success) or absent
// results, logged as each operation says; nothing throws.
#pragma once

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "Security/SecBase.h"
#include "Security/SecItem.h"
#include "Security/SecKeychain.h"

namespace Tovik {

class KeyChain {
public:
    using Data = std::vector<uint8_t>;
    using OSStatus = Security::OSStatus;

    /// What saveObject() returns when the value cannot be encoded
    /// (errSecInvalidData).
    static constexpr OSStatus encodingFailedStatus = Security::errSecInvalidData;

    KeyChain() = delete;

    /// The main bundle's identifier: CFBundleIdentifier of the bundle whose
    /// "Contents/MacOS" holds the executable. A process outside a bundle (the
    /// daemon, tools, tests) uses its executable's file name, as its user
    /// defaults do. Settled once.
    static const std::string& defaultService();

    /// The base query above, with the service settled.
    static Security::CFDictionary baseQuery(const std::string& key, const std::optional<std::string>& service,
                                            const std::optional<std::string>& accessGroup);

    /// The item's bytes; absent when there is none (silently) or the search
    /// fails (logged at error: "Failed to find <key> in Keychain. <reason>",
    /// the reason being the status's text, or its number when it has none).
    static std::optional<Data> load(const std::string& key, const std::optional<std::string>& service = std::nullopt,
                                    const std::optional<std::string>& accessGroup = std::nullopt);

    /// Stores value: when the item exists (logged at debug "Keychain value for
    /// key <key> exists - updating") its data is replaced unless it already
    /// equals value (then nothing is written); otherwise (debug "Keychain
    /// value for key <key> doesn't exist - adding") the item is added. The
    /// status of the last Security call; a failed search's status is
    /// returned as it is, without writing or logging.
    static OSStatus save(const std::string& key, const Data& value,
                         const std::optional<std::string>& service = std::nullopt,
                         const std::optional<std::string>& accessGroup = std::nullopt);

    /// Deletes the item; errSecItemNotFound (-25300) when there is none. No log.
    static OSStatus delete_(const std::string& key, const std::optional<std::string>& service = std::nullopt,
                            const std::optional<std::string>& accessGroup = std::nullopt);

    /// The same, run as one work item on the global user-initiated queue,
    /// which then calls completion there with the result. Return at once.
    static void load(const std::string& key, const std::optional<std::string>& service,
                     const std::optional<std::string>& accessGroup,
                     std::function<void(std::optional<Data>)> completion);
    static void save(const std::string& key, const Data& value, const std::optional<std::string>& service,
                     const std::optional<std::string>& accessGroup, std::function<void(OSStatus)> completion);
    static void delete_(const std::string& key, const std::optional<std::string>& service,
                        const std::optional<std::string>& accessGroup, std::function<void(OSStatus)> completion);

    /// The item's bytes decoded as JSON into T (through nlohmann::json's
    /// from_json). Absent when there are no bytes, or, logged at error
    /// "Failed to decode data for key '<key>'. <error>", when they do not
    /// decode; the item is left as it is.
    template <class T>
    static std::optional<T> loadObject(const std::string& key,
                                       const std::optional<std::string>& service = std::nullopt,
                                       const std::optional<std::string>& accessGroup = std::nullopt) {
        auto bytes = load(key, service, accessGroup);
        if (!bytes) return std::nullopt;
        try {
            return nlohmann::json::parse(bytes->begin(), bytes->end()).template get<T>();
        } catch (const std::exception& error) {
            logDecodingFailure(key, error.what());
        } catch (...) {
            logDecodingFailure(key, "unknown error");
        }
        return std::nullopt;
    }

    /// Saves value's JSON: compact, members in the order to_json sets them
    /// (an nlohmann::ordered_json when T converts to one, else nlohmann::json,
    /// whose objects are sorted). When it does not encode, logs at error
    /// "Failed to encode value <value> for key '<key>'. <error>" and returns
    /// encodingFailedStatus without touching the keychain.
    template <class T>
    static OSStatus saveObject(const T& value, const std::string& key,
                               const std::optional<std::string>& service = std::nullopt,
                               const std::optional<std::string>& accessGroup = std::nullopt) {
        using Json = std::conditional_t<std::is_constructible_v<nlohmann::ordered_json, const T&>,
                                        nlohmann::ordered_json, nlohmann::json>;
        std::optional<Json> json;
        std::string encoded;
        try {
            json.emplace(value);
            encoded = json->dump();
        } catch (const std::exception& error) {
            logEncodingFailure(describe(value, json), key, error.what());
            return encodingFailedStatus;
        } catch (...) {
            logEncodingFailure(describe(value, json), key, "unknown error");
            return encodingFailedStatus;
        }
        return save(key, Data(encoded.begin(), encoded.end()), service, accessGroup);
    }

    /// The first keychain of the domain's search list; null when the list is
    /// empty (silently) or cannot be had (logged at error "Failed searching
    /// for keychain in <domain>. <reason>", the domain as a number).
    static Security::SecKeychainRef keychain(Security::SecPreferencesDomain domain);

    /// The text the logs give for a status: Security's message for it, or the
    /// number in decimal.
    static std::string reason(OSStatus status);

private:
    static void logDecodingFailure(const std::string& key, const std::string& error);
    static void logEncodingFailure(const std::string& value, const std::string& key, const std::string& error);

    /// <value> of the encoding message: the value as fmt formats it, else its
    /// JSON with invalid text replaced, else the type's name.
    template <class T, class Json>
    static std::string describe(const T& value, const std::optional<Json>& json) {
        try {
            if constexpr (fmt::is_formattable<T>::value) {
                return fmt::format("{}", value);
            } else {
                if (json) return json->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
            }
        } catch (...) {
        }
        return typeid(T).name();
    }
};

}  // namespace Tovik
