#include "Tovik/SecureDefaults.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <system_error>

#include "Tovik/Logger/Logger.h"
#include "Tovik/ThreadLocal.h"

namespace Tovik {

namespace {

using Value = SecureDefaults::Value;

// Present on a thread while it reads or writes through a SecureDefaults: the
// user defaults' notifications it causes are its own.
const ThreadLocal<bool> silent("SecureDefaults:silent");

class Silenced {
public:
    Silenced() { silent.setValue(true); }
    ~Silenced() { silent.setValue(std::nullopt); }
    Silenced(const Silenced&) = delete;
    Silenced& operator=(const Silenced&) = delete;
};

// The read under way on this thread: shouldValidate() takes whether the key
// is forced or a launch argument from the lookup that produced the value,
// instead of asking the user defaults (and their files) once more.
struct Read {
    const SecureDefaults* owner;
    const std::string& key;
    Foundation::UserDefaults::Source source = Foundation::UserDefaults::Source::none;
};
thread_local const Read* currentRead = nullptr;

class ReadScope {
public:
    explicit ReadScope(const Read& read) : previous_(currentRead) { currentRead = &read; }
    ~ReadScope() { currentRead = previous_; }
    ReadScope(const ReadScope&) = delete;
    ReadScope& operator=(const ReadScope&) = delete;

private:
    const Read* previous_;
};

// A number's value as the widest type that holds it exactly.
std::optional<long double> numberOf(const Value& value) {
    if (const auto* flag = value.get<bool>()) return *flag ? 1 : 0;
    if (const auto* integer = value.get<int64_t>()) return static_cast<long double>(*integer);
    if (const auto* real = value.get<double>()) return *real;
    return std::nullopt;
}

// Object equality: numbers (booleans included) by value, collections
// element by element, everything else by content and type.
bool isEqual(const Value& a, const Value& b) {
    const auto numberA = numberOf(a), numberB = numberOf(b);
    if (numberA || numberB) return numberA && numberB && *numberA == *numberB;
    if (const auto* arrayA = a.get<Value::Array>()) {
        const auto* arrayB = b.get<Value::Array>();
        if (!arrayB || arrayA->size() != arrayB->size()) return false;
        for (size_t i = 0; i < arrayA->size(); ++i) {
            if (!isEqual((*arrayA)[i], (*arrayB)[i])) return false;
        }
        return true;
    }
    if (const auto* dictionaryA = a.get<Value::Dictionary>()) {
        const auto* dictionaryB = b.get<Value::Dictionary>();
        if (!dictionaryB || dictionaryA->size() != dictionaryB->size()) return false;
        for (auto itA = dictionaryA->begin(), itB = dictionaryB->begin(); itA != dictionaryA->end(); ++itA, ++itB) {
            if (itA->first != itB->first || !isEqual(itA->second, itB->second)) return false;
        }
        return true;
    }
    return a == b;
}

// Both absent, or both present and equal.
bool same(const std::optional<Value>& a, const std::optional<Value>& b) {
    return a ? b && isEqual(*a, *b) : !b;
}

// The decimal number text begins with, after blanks; 0 when there is none.
// Integers stop at the first character that is not a digit and saturate.
int64_t integerOf(std::string_view text) {
    size_t start = 0;
    while (start < text.size() && std::isspace(static_cast<unsigned char>(text[start]))) ++start;
    if (start < text.size() && text[start] == '+') ++start;
    int64_t result = 0;
    const auto [end, error] = std::from_chars(text.data() + start, text.data() + text.size(), result);
    if (error == std::errc::result_out_of_range) {
        return text[start] == '-' ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    }
    return error == std::errc() ? result : 0;
}

double realOf(std::string_view text) {
    size_t start = 0;
    while (start < text.size() && std::isspace(static_cast<unsigned char>(text[start]))) ++start;
    if (start < text.size() && text[start] == '+') ++start;
    double result = 0;
    const auto [end, error] = std::from_chars(text.data() + start, text.data() + text.size(), result);
    // Beyond a double's range: the C library's infinity or tiny value.
    if (error == std::errc::result_out_of_range) return std::strtod(std::string(text.substr(start)).c_str(), nullptr);
    return error == std::errc() ? result : 0;
}

std::string textOf(double real) {
    char buffer[64];
    const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, real);
    return error == std::errc() ? std::string(buffer, end) : std::string();
}

[[noreturn]] void mustBeOverwritten() {
    std::fputs("Fatal error: Must be overwritten in subclass\n", stderr);
    std::abort();
}

}  // namespace

std::optional<DefaultsCorruptionReason> defaultsCorruptionReason(int64_t rawValue) {
    switch (rawValue) {
        case 1:
            return DefaultsCorruptionReason::unspecified;
        case 2:
            return DefaultsCorruptionReason::changedInDefaults;
        default:
            return std::nullopt;
    }
}

SecureDefaults::SecureDefaults(Foundation::UserDefaults& defaults, std::string domainName,
                               std::shared_ptr<KeyStorageProtocol> cacheStorage)
    : defs_(defaults), domainName_(std::move(domainName)), cache_(std::move(cacheStorage)) {}

void SecureDefaults::startObserving() {
    for (const auto& name : allDefaultNames()) {
        observations_.push_back(defs_.addObserver(
            name, Foundation::observeNew | Foundation::observeOld | Foundation::observePrior,
            [this](const std::string& keyPath, const void* object, const Foundation::KeyValueChange& change) {
                observeValue(keyPath, object, change, nullptr);
            }));
    }
}

void SecureDefaults::stopObserving() { observations_.clear(); }

bool SecureDefaults::shouldValidate(const std::string& key) const {
    using Source = Foundation::UserDefaults::Source;
    if (skipValidating_) return false;
    if (currentRead && currentRead->owner == this && currentRead->key == key) {
        // Forced values come first in the search order, launch arguments next.
        if (currentRead->source == Source::forced || currentRead->source == Source::argument) return false;
    } else {
        if (defs_.objectIsForced(key)) return false;
        if (argumentDomain().contains(key)) return false;
    }
    return allDefaultNames().contains(key);
}

const std::set<std::string>& SecureDefaults::allDefaultNames() const { mustBeOverwritten(); }

void SecureDefaults::setCorruptionHandler(CorruptionHandler handler) {
    std::lock_guard guard(handlerMutex_);
    corruptionHandler_ = std::move(handler);
}

SecureDefaults::Dictionary SecureDefaults::argumentDomain() const {
    return defs_.volatileDomain(Foundation::UserDefaults::argumentDomain);
}

SecureDefaults::Dictionary SecureDefaults::persistentDomain() const {
    return defs_.persistentDomain(domainName_).value_or(Dictionary{});
}

bool SecureDefaults::setPersistentDomain(const Dictionary& domain) {
    return defs_.setPersistentDomain(domain, domainName_);
}

std::optional<Value> SecureDefaults::object(const std::string& key) {
    std::lock_guard guard(lock_);
    Silenced silenced;
    Read read{this, key};
    ReadScope scope(read);
    return validate(key, [&] { return defs_.object(key, &read.source); });
}

std::optional<Value> SecureDefaults::validate(const std::string& key,
                                              const std::function<std::optional<Value>()>& block) {
    auto current = block();
    if (!shouldValidate(key)) return current;
    const auto shadow = cache_->object(key);
    if (same(current, shadow)) return current;
    // Another domain may account for the difference.
    const Dictionary stored = persistentDomain();
    const auto found = stored.find(key);
    if (same(found == stored.end() ? std::nullopt : std::optional(found->second), shadow)) return current;

    TLOG_ERROR("validate(key:block:)", "Default " + key + " was changed in defaults.plist");
    loadCache();
    CorruptionHandler handler;
    {
        std::lock_guard guard(handlerMutex_);
        handler = corruptionHandler_;
    }
    if (handler) handler(DefaultsCorruptionReason::changedInDefaults);
    return block();
}

std::optional<std::string> SecureDefaults::string(const std::string& key) {
    const auto value = object(key);
    if (!value) return std::nullopt;
    if (const auto* text = value->get<std::string>()) return *text;
    if (const auto* flag = value->get<bool>()) return *flag ? "1" : "0";
    if (const auto* integer = value->get<int64_t>()) return std::to_string(*integer);
    if (const auto* real = value->get<double>()) return textOf(*real);
    return std::nullopt;
}

std::optional<Value::Array> SecureDefaults::array(const std::string& key) {
    const auto value = object(key);
    const auto* array = value ? value->get<Value::Array>() : nullptr;
    return array ? std::optional(*array) : std::nullopt;
}

std::optional<SecureDefaults::Dictionary> SecureDefaults::dictionary(const std::string& key) {
    const auto value = object(key);
    const auto* dictionary = value ? value->get<Dictionary>() : nullptr;
    return dictionary ? std::optional(*dictionary) : std::nullopt;
}

std::optional<Value::Data> SecureDefaults::data(const std::string& key) {
    const auto value = object(key);
    const auto* data = value ? value->get<Value::Data>() : nullptr;
    return data ? std::optional(*data) : std::nullopt;
}

std::optional<std::vector<std::string>> SecureDefaults::stringArray(const std::string& key) {
    const auto value = object(key);
    const auto* array = value ? value->get<Value::Array>() : nullptr;
    if (!array) return std::nullopt;
    std::vector<std::string> strings;
    for (const auto& element : *array) {
        const auto* text = element.get<std::string>();
        if (!text) return std::nullopt;
        strings.push_back(*text);
    }
    return strings;
}

int64_t SecureDefaults::integer(const std::string& key) {
    const auto value = object(key);
    if (!value) return 0;
    if (const auto* text = value->get<std::string>()) return integerOf(*text);
    if (const auto* real = value->get<double>()) {
        // Truncated; saturated outside the range, 0 for NaN.
        if (std::isnan(*real)) return 0;
        if (*real >= 0x1p63) return std::numeric_limits<int64_t>::max();
        if (*real < -0x1p63) return std::numeric_limits<int64_t>::min();
        return static_cast<int64_t>(*real);
    }
    const auto number = numberOf(*value);
    return number ? static_cast<int64_t>(*number) : 0;
}

double SecureDefaults::double_(const std::string& key) {
    const auto value = object(key);
    if (!value) return 0;
    if (const auto* text = value->get<std::string>()) return realOf(*text);
    const auto number = numberOf(*value);
    return number ? static_cast<double>(*number) : 0;
}

float SecureDefaults::float_(const std::string& key) { return static_cast<float>(double_(key)); }

bool SecureDefaults::bool_(const std::string& key) {
    const auto value = object(key);
    if (!value) return false;
    if (const auto* text = value->get<std::string>()) return *text == "YES" || *text == "1";
    const auto number = numberOf(*value);
    return number && *number != 0;
}

void SecureDefaults::set(std::optional<Value> value, const std::string& key) {
    willChangeValue(key);
    {
        std::lock_guard guard(lock_);
        Silenced silenced;
        const bool validated = shouldValidate(key);
        if (validated) cache_->set(value, key);
        if (!defs_.set(std::move(value), key)) {
            const int error = errno;
            TLOG_ERROR("set(_:forKey:)", "Failed to write " + key + " to " + domainName_ + ": " +
                                             std::system_category().message(error));
            // The shadow copy keeps what the file still holds, or the next
            // read would take the file for edited.
            if (validated) {
                const Dictionary stored = persistentDomain();
                const auto found = stored.find(key);
                cache_->set(found == stored.end() ? std::nullopt : std::optional(found->second), key);
            }
        }
    }
    didChangeValue(key);
}

void SecureDefaults::reset(const Dictionary& dictionary) {
    std::lock_guard guard(lock_);
    Silenced silenced;
    cache_->reset(dictionary);
    (void)setPersistentDomain(dictionary);
    synchronize();
}

bool SecureDefaults::synchronize() {
    cache_->store();
    return defs_.synchronize();
}

void SecureDefaults::loadCache() {
    const Dictionary stored = persistentDomain();
    Dictionary protectedValues;
    for (const auto& name : allDefaultNames()) {
        if (auto found = stored.find(name); found != stored.end()) protectedValues.insert(*found);
    }
    cache_->reset(protectedValues);
}

void SecureDefaults::delete_() { cache_->delete_(); }

bool SecureDefaults::keyExists(const std::string& key) const { return defs_.object(key).has_value(); }

void SecureDefaults::handleCorruption(DefaultsCorruptionReason reason) {
    loadCache();
    CorruptionHandler handler;
    {
        std::lock_guard guard(handlerMutex_);
        handler = corruptionHandler_;
    }
    if (handler) handler(reason);
}

SecureDefaults::Dictionary SecureDefaults::dictionaryRepresentation() const { return cache_->dictionaryRepresentation(); }

void SecureDefaults::observeValue(const std::optional<std::string>& keyPath, const void* object,
                                  const Foundation::KeyValueChange& change, void*) {
    if (!keyPath) return;
    if (currentThreadDictionary().contains(silent.key())) return;
    if (object != &defs_) return;
    if (!allDefaultNames().contains(*keyPath)) return;
    if (change.isPrior) {
        willChangeValue(*keyPath);
    } else {
        didChangeValue(*keyPath);
    }
}

Foundation::KeyValueObservation SecureDefaults::addObserver(std::string key, unsigned options,
                                                            Foundation::KeyValueObserver observer) {
    return observers_.add(std::move(key), options, std::move(observer));
}

void SecureDefaults::willChangeValue(const std::string& key) const { observers_.notify(key, {}, {}, true); }

void SecureDefaults::didChangeValue(const std::string& key) const { observers_.notify(key, {}, {}, false); }

}  // namespace Tovik
