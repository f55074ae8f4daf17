// The D-Bus form of a notify-center post: which names can travel, the signal
// that carries one, the match rule that selects one, and the reading of a
// received signal back into a name. Shared by DarwinNotifyCenter and its fuzz
// entry point.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

struct sd_bus;
struct sd_bus_message;

namespace Notify::NotificationSignal {

inline constexpr const char* path = "/com/velmora/Tovik/DarwinNotify";
inline constexpr const char* interface = "com.velmora.Tovik.DarwinNotify";
inline constexpr const char* member = "Posted";

/// Longest name in bytes. Keeps the match rule of any name within the bus
/// daemon's limit of 1024 bytes.
inline constexpr std::size_t maximumNameLength = 200;

/// Non-empty, at most maximumNameLength bytes, well-formed UTF-8 without NUL
/// and without Unicode noncharacters (the strings a D-Bus string argument may hold).
bool isValidName(std::string_view name);

/// The match rule, in the bus daemon's syntax, for posts of name: this
/// signal's type, path, interface and member, and arg0 equal to name (quoted;
/// apostrophes written as '\'' ). name must be valid.
std::string matchRule(std::string_view name);

/// A new signal on bus carrying name, not yet sent; *message is the caller's
/// to release. 0, or a negative errno (-EINVAL for an invalid name).
int make(sd_bus* bus, const std::string& name, sd_bus_message** message);

/// The name a received message carries when it is a post: a signal with this
/// path, interface and member whose only argument is a valid name. Nothing for
/// any other message. Leaves the message's read position at its start.
std::optional<std::string> name(sd_bus_message* message);

}  // namespace Notify::NotificationSignal
