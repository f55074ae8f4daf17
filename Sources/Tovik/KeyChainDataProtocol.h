// One byte value kept in the keychain under a key, with an in-memory copy.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tovik {

class KeyChainDataProtocol {
public:
    using Data = std::vector<uint8_t>;

    virtual ~KeyChainDataProtocol() = default;

    /// The item's account name.
    virtual std::string key() const = 0;
    virtual void setKey(std::string key) = 0;
    /// Reads the value from the keychain into the copy; the copy.
    virtual std::optional<Data> load() = 0;
    /// The copy when there is one, else load().
    virtual std::optional<Data> get() = 0;
    /// Makes value the copy and writes it (an absent value deletes the
    /// item); whether the keychain took it.
    virtual bool store(std::optional<Data> value) = 0;
    /// get() as UTF-8 text; absent without bytes or when they are not UTF-8.
    virtual std::optional<std::string> getString() = 0;
    /// store() of the text's UTF-8 bytes (absent deletes).
    virtual bool storeString(std::optional<std::string> value) = 0;
};

}  // namespace Tovik
