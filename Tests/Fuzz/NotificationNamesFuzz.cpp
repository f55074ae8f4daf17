// Fuzzes what a notify-center listener accepts: the names it lets through and
// the reading of a received signal back into a name, through the functions
// the center itself uses (Notify/NotificationSignal.h).
//
// Input: one byte of flags, then fields separated by '\n': the name, then
// the path, interface and member used when the flags do not ask for the
// center's own. Flags: bit 0 own path, bit 1 own interface, bit 2 own member;
// bits 3-4 the arguments: 0 the name, 1 the name twice, 2 a number, 3 none.
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Fuzz/FuzzSupport.h"
#include "Notify/NotificationSignal.h"

namespace {

namespace Signal = Notify::NotificationSignal;
using Pairs = std::vector<std::pair<std::string, std::string>>;

// A connection that never reaches a bus, for building messages: its peer
// is a socket nobody reads.
sd_bus* messageFactory() {
    static sd_bus* const bus = [] {
        int ends[2];
        sd_bus* made = nullptr;
        FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
        FUZZ_CHECK(sd_bus_new(&made) >= 0);
        FUZZ_CHECK(sd_bus_set_fd(made, ends[0], ends[0]) >= 0);
        FUZZ_CHECK(sd_bus_start(made) >= 0);
        return made;
    }();
    return bus;
}

// A match rule read the way the bus daemon reads it: within quotes every
// character stands for itself; outside them \' is an apostrophe.
std::optional<Pairs> decodeRule(std::string_view rule) {
    Pairs pairs;
    std::size_t i = 0;
    while (i < rule.size()) {
        const std::size_t equals = rule.find('=', i);
        if (equals == std::string_view::npos) return std::nullopt;
        std::string key(rule.substr(i, equals - i)), value;
        char state = 0;  // 0, '\'' inside quotes, '\\' after a backslash
        for (i = equals + 1; i < rule.size(); ++i) {
            const char c = rule[i];
            if (state == '\'') {
                if (c == '\'') state = 0;
                else value += c;
            } else if (state == '\\') {
                if (c != '\'') value += '\\';
                value += c;
                state = 0;
            } else if (c == ',') {
                ++i;
                break;
            } else if (c == '\'' || c == '\\') {
                state = c;
            } else {
                value += c;
            }
        }
        if (state == '\'') return std::nullopt;
        pairs.emplace_back(std::move(key), std::move(value));
    }
    return pairs;
}

// The name read back from a sealed message.
std::optional<std::string> received(sd_bus_message* message) {
    FUZZ_CHECK(sd_bus_message_seal(message, 1, 0) >= 0);
    auto name = Signal::name(message);
    FUZZ_CHECK(Signal::name(message) == name);  // the read position is left at the start
    return name;
}

struct MessageRef {
    sd_bus_message* message = nullptr;
    ~MessageRef() { sd_bus_message_unref(message); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzSupport::quietLogs();
    if (size == 0) return 0;
    const unsigned flags = data[0];
    std::vector<std::string> fields(1);
    for (char c : FuzzSupport::bytesOf(data + 1, size - 1)) {
        if (c == '\n') fields.emplace_back();
        else fields.back() += c;
    }
    fields.resize(4);
    const std::string& name = fields[0];
    const bool valid = Signal::isValidName(name);

    // A name the center accepts travels and is observed exactly; any other is refused.
    {
        MessageRef signal;
        const int status = Signal::make(messageFactory(), name, &signal.message);
        FUZZ_CHECK(valid ? status == 0 : status == -EINVAL);
        if (valid) {
            FUZZ_CHECK(received(signal.message) == name);
            const std::string rule = Signal::matchRule(name);
            FUZZ_CHECK(rule.size() <= 1024);
            FUZZ_CHECK(decodeRule(rule) == Pairs({{"type", "signal"},
                                                  {"path", Signal::path},
                                                  {"interface", Signal::interface},
                                                  {"member", Signal::member},
                                                  {"arg0", name}}));
        }
    }

    // Any other signal: a name comes out only of the center's own kind of
    // signal, and then it is the one carried.
    const bool ownPath = flags & 1, ownInterface = flags & 2, ownMember = flags & 4;
    const unsigned arguments = (flags >> 3) & 3;
    MessageRef signal;
    if (sd_bus_message_new_signal(messageFactory(), &signal.message, ownPath ? Signal::path : fields[1].c_str(),
                                  ownInterface ? Signal::interface : fields[2].c_str(),
                                  ownMember ? Signal::member : fields[3].c_str()) < 0) {
        return 0;
    }
    int status = 0;
    if (arguments == 0) status = sd_bus_message_append(signal.message, "s", name.c_str());
    if (arguments == 1) status = sd_bus_message_append(signal.message, "ss", name.c_str(), name.c_str());
    if (arguments == 2) status = sd_bus_message_append(signal.message, "u", static_cast<uint32_t>(size));
    if (status < 0) return 0;
    const auto result = received(signal.message);
    const bool own = (ownPath || fields[1] == Signal::path) && (ownInterface || fields[2] == Signal::interface) &&
                     (ownMember || fields[3] == Signal::member);
    const std::string carried = name.c_str();  // a C string ends at the first NUL
    FUZZ_CHECK(result.has_value() == (own && arguments == 0 && Signal::isValidName(carried)));
    if (result) FUZZ_CHECK(*result == carried);
    return 0;
}
