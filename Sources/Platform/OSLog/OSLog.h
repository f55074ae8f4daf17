// The unified system log.
//
// On Linux an entry goes to the systemd journal over its native protocol:
// MESSAGE = the text, PRIORITY from the type (default -> notice, info -> info,
// debug -> debug, error -> err, fault -> crit), SUBSYSTEM and CATEGORY fields,
// and SYSLOG_IDENTIFIER = the program name (so `journalctl -t vpn_helper`
// finds the daemon's entries). Without a journal socket, entries go to syslog
// with the same priority and the text as the message.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace OSLog {

enum class OSLogType : uint8_t { default_ = 0x00, info = 0x01, debug = 0x02, error = 0x10, fault = 0x11 };

/// A handle for one subsystem and category. Immutable; thread-safe.
class OSLog {
public:
    OSLog(std::string subsystem, std::string category);

    const std::string& subsystem() const { return subsystem_; }
    const std::string& category() const { return category_; }

    /// Emits one entry with the text verbatim (never used as a format),
    /// synchronously on the calling thread. An empty text gives an entry with
    /// an empty MESSAGE. Entries too large for one datagram are passed to the
    /// journal in a sealed memory file, as the journal's own client does.
    /// When the journal cannot be reached the entry goes to syslog; other
    /// failures are swallowed.
    void log(OSLogType type, std::string_view text) const noexcept;

    /// The syslog priority (0...7) an entry of this type is written with.
    static int priority(OSLogType type) noexcept;

    /// Where entries are sent; the default is "/run/systemd/journal/socket".
    /// Tests point it at a datagram socket of their own to capture entries.
    /// Takes effect for entries logged after the call; callable from any thread.
    static void setJournalSocketPath(std::string path);

private:
    std::string subsystem_;
    std::string category_;
};

}  // namespace OSLog
