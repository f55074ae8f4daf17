#include "Notify/NotificationSignal.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstring>

#include "Foundation/UTF8.h"

namespace Notify::NotificationSignal {

namespace {

// The code point of the well-formed sequence of length `length` at text[i].
char32_t codePoint(std::string_view text, std::size_t i, std::size_t length) {
    const auto byte = [&](std::size_t k) { return static_cast<char32_t>(static_cast<unsigned char>(text[i + k])); };
    switch (length) {
        case 1: return byte(0);
        case 2: return ((byte(0) & 0x1F) << 6) | (byte(1) & 0x3F);
        case 3: return ((byte(0) & 0x0F) << 12) | ((byte(1) & 0x3F) << 6) | (byte(2) & 0x3F);
        default: return ((byte(0) & 0x07) << 18) | ((byte(1) & 0x3F) << 12) | ((byte(2) & 0x3F) << 6) | (byte(3) & 0x3F);
    }
}

bool isNoncharacter(char32_t c) { return (c >= 0xFDD0 && c <= 0xFDEF) || (c & 0xFFFE) == 0xFFFE; }

}  // namespace

bool isValidName(std::string_view name) {
    if (name.empty() || name.size() > maximumNameLength) return false;
    for (std::size_t i = 0; i < name.size();) {
        const std::size_t length = Foundation::utf8SequenceLength(name, i);
        if (length == 0) return false;
        const char32_t c = codePoint(name, i, length);
        if (c == 0 || isNoncharacter(c)) return false;
        i += length;
    }
    return true;
}

std::string matchRule(std::string_view name) {
    std::string rule = std::string("type='signal',path='") + path + "',interface='" + interface + "',member='" +
                       member + "',arg0='";
    for (char c : name) {
        if (c == '\'') rule += "'\\''";  // close the quote, an escaped apostrophe, reopen
        else rule += c;
    }
    rule += '\'';
    return rule;
}

int make(sd_bus* bus, const std::string& name, sd_bus_message** message) {
    *message = nullptr;
    if (!isValidName(name)) return -EINVAL;
    sd_bus_message* signal = nullptr;
    int status = sd_bus_message_new_signal(bus, &signal, path, interface, member);
    if (status >= 0) status = sd_bus_message_append(signal, "s", name.c_str());
    if (status < 0) {
        sd_bus_message_unref(signal);
        return status;
    }
    *message = signal;
    return 0;
}

std::optional<std::string> name(sd_bus_message* message) {
    if (sd_bus_message_is_signal(message, interface, member) <= 0) return std::nullopt;
    const char* signalPath = sd_bus_message_get_path(message);
    if (!signalPath || std::strcmp(signalPath, path) != 0) return std::nullopt;
    if (sd_bus_message_has_signature(message, "s") <= 0) return std::nullopt;
    if (sd_bus_message_rewind(message, true) < 0) return std::nullopt;
    const char* text = nullptr;
    const int status = sd_bus_message_read(message, "s", &text);
    std::optional<std::string> result;
    if (status > 0 && text && isValidName(text)) result = std::string(text);
    (void)sd_bus_message_rewind(message, true);
    return result;
}

}  // namespace Notify::NotificationSignal
