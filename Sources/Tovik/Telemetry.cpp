#include "Tovik/Telemetry.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <utility>

#include "Foundation/UserDefaults.h"
#include "Tovik/Logger/Logger.h"

namespace Tovik {

std::string_view rawValue(AppType value) {
    switch (value) {
        case AppType::mac: return "MAC";
        case AppType::miniMac: return "MAC_MINI";
        case AppType::vpnMac: return "VPN_MAC";
    }
    return {};
}
std::string_view rawValue(LicenseStatus value) {
    switch (value) {
        case LicenseStatus::free: return "FREE";
        case LicenseStatus::trial: return "TRIAL";
        case LicenseStatus::premium: return "PREMIUM";
        case LicenseStatus::other: return "MOD";
    }
    return {};
}
std::string_view rawValue(Theme value) {
    switch (value) {
        case Theme::light: return "LIGHT";
        case Theme::dark: return "DARK";
        case Theme::systemDark: return "SYSTEM_DARK";
        case Theme::systemLight: return "SYSTEM_LIGHT";
    }
    return {};
}
std::string_view rawValue(SubscriptionDuration value) {
    switch (value) {
        case SubscriptionDuration::annual: return "ANNUAL";
        case SubscriptionDuration::monthly: return "MONTHLY";
        case SubscriptionDuration::lifetime: return "LIFETIME";
        case SubscriptionDuration::other: return "OTHER";
    }
    return {};
}
std::string_view rawValue(WebsiteExclusions value) {
    return value == WebsiteExclusions::general ? "GENERAL" : "SELECTIVE";
}
std::string_view rawValue(AppExclusions value) { return value == AppExclusions::general ? "GENERAL" : "SELECTIVE"; }
std::string_view rawValue(BinaryState value) { return value == BinaryState::on ? "ON" : "OFF"; }
std::string_view rawValue(RetentionCohort value) {
    switch (value) {
        case RetentionCohort::day1: return "DAY_1";
        case RetentionCohort::week1: return "WEEK_1";
        case RetentionCohort::month1: return "MONTH_1";
        case RetentionCohort::longtime: return "LONGTIME";
    }
    return {};
}
std::string_view rawValue(UpdateIntervalSource value) {
    return value == UpdateIntervalSource::systemDefault ? "SYSTEM_DEFAULT" : "CUSTOM";
}
std::string_view rawValue(OperatingMode value) { return value == OperatingMode::vpn ? "VPN" : "INTEGRATED"; }
std::string_view rawValue(Experiment value) {
    switch (value) {
        case Experiment::experiment1: return "experiment_1";
        case Experiment::experiment2: return "experiment_2";
        case Experiment::experiment3: return "experiment_3";
    }
    return {};
}
std::string_view rawValue(ExperimentOption value) { return value == ExperimentOption::optA ? "a_def" : "b"; }

namespace {

using Json = nlohmann::ordered_json;

// Telemetry's error records go straight to the handlers, once the level test passes.
void logError(std::string_view function, const std::string& message) {
    Logger& logger = Logger::shared();
    if (!logger.isEnabled(LogLevel::error)) return;
    std::string text = "E: (Telemetry: ";
    text += function;
    text += ") ";
    text += message;
    const auto date = std::chrono::system_clock::now();
    for (const auto& handler : logger.handlers()) handler->log(LogLevel::error, date, text);
}

template <class Value>
void put(Json& json, const char* key, const std::optional<Value>& value) {
    if (!value) return;
    if constexpr (std::is_enum_v<Value>)
        json[key] = rawValue(*value);
    else
        json[key] = *value;
}

Json userAgentJSON(const Telemetry::UserAgent& agent) {
    Json device{{"brand", agent.device.brand}};
    put(device, "model", agent.device.model);
    Json os{{"name", agent.os.name}};
    put(os, "platform", agent.os.platform);
    os["version"] = agent.os.version;
    return Json{{"device", std::move(device)}, {"os", std::move(os)}};
}

Json eventInfoJSON(const Telemetry::Pageview& pageview) {
    Json json{{"name", pageview.name}};
    put(json, "ref_name", pageview.refName);
    return json;
}

Json eventInfoJSON(const Telemetry::CustomEvent& event) {
    Json json{{"name", event.name}, {"ref_name", event.refName}};
    put(json, "action", event.action);
    put(json, "label", event.label);
    return json;
}

// -- Synthetic ids ---------------------------------------------------------

constexpr std::string_view idAlphabet = "abcdef123456789";

// Swift-style Int(text, radix: 16): optional sign, then at least one hex digit;
// absent on anything else or on overflow of a signed 64-bit integer.
std::optional<int64_t> hexInteger(std::string_view text) {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) return std::nullopt;
    const uint64_t limit = negative ? uint64_t{1} << 63 : static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    uint64_t magnitude = 0;
    for (char c : text) {
        unsigned digit = 0;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (c >= 'a' && c <= 'f')
            digit = static_cast<unsigned>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else
            return std::nullopt;
        if (magnitude > (limit - digit) / 16) return std::nullopt;
        magnitude = magnitude * 16 + digit;
    }
    if (!negative) return static_cast<int64_t>(magnitude);
    return magnitude == (uint64_t{1} << 63) ? std::numeric_limits<int64_t>::min()
                                            : -static_cast<int64_t>(magnitude);
}

// Decimal digits only, as joined from character codes; absent on overflow.
std::optional<int64_t> decimalInteger(std::string_view digits) {
    if (digits.empty()) return std::nullopt;
    int64_t value = 0;
    for (char c : digits) {
        const int digit = c - '0';
        if (value > (std::numeric_limits<int64_t>::max() - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

// The next Unicode scalar of UTF-8 text; a byte that starts no valid sequence
// counts as one scalar of its own (U+FFFD).
char32_t nextScalar(std::string_view text, std::size_t& index) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(index);
    const std::size_t length = lead < 0x80             ? 1
                               : (lead & 0xE0) == 0xC0 ? 2
                               : (lead & 0xF0) == 0xE0 ? 3
                               : (lead & 0xF8) == 0xF0 ? 4
                                                       : 0;
    if (length == 0 || index + length > text.size()) {
        ++index;
        return lead < 0x80 ? lead : 0xFFFD;
    }
    char32_t scalar = length == 1 ? lead : lead & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(index + i) & 0xC0) != 0x80) {
            ++index;
            return 0xFFFD;
        }
        scalar = (scalar << 6) | (byte(index + i) & 0x3F);
    }
    index += length;
    return scalar;
}

// Scalars that extend the character before them: combining marks of the
// common scripts, joiners, variation selectors, emoji modifiers and tags.
bool extendsCharacter(char32_t c) {
    static constexpr std::pair<char32_t, char32_t> ranges[] = {
        {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x0610, 0x061A}, {0x064B, 0x065F},
        {0x0670, 0x0670}, {0x06D6, 0x06DC}, {0x06DF, 0x06E4}, {0x0900, 0x0903}, {0x093A, 0x094F},
        {0x0E31, 0x0E31}, {0x0E34, 0x0E3A}, {0x0E47, 0x0E4E}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF},
        {0x200C, 0x200D}, {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}, {0x1F3FB, 0x1F3FF},
        {0xE0020, 0xE007F}, {0xE0100, 0xE01EF},
    };
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [c](const auto& range) { return c >= range.first && c <= range.second; });
}

bool isRegionalIndicator(char32_t c) { return c >= 0x1F1E6 && c <= 0x1F1FF; }
bool isControl(char32_t c) { return c < 0x20 || c == 0x7F; }

// The ASCII code of every user-perceived character of text (0 for one that is
// not ASCII, 10 for a CR-LF pair). Characters are the extended grapheme
// clusters of the scripts ids plausibly hold; exotic clusters (Hangul jamo,
// prepended marks) may count as more than one.
std::vector<unsigned> characterCodes(std::string_view text) {
    std::vector<unsigned> codes;
    std::vector<char32_t> current;  // scalars of the character being gathered
    auto close = [&] {
        if (current.empty()) return;
        if (current.size() == 1 && current[0] < 0x80)
            codes.push_back(static_cast<unsigned>(current[0]));
        else if (current == std::vector<char32_t>{U'\r', U'\n'})
            codes.push_back(10);
        else
            codes.push_back(0);
        current.clear();
    };
    for (std::size_t index = 0; index < text.size();) {
        const char32_t scalar = nextScalar(text, index);
        bool joins = false;
        if (!current.empty()) {
            const char32_t last = current.back();
            if (current.size() == 1 && last == U'\r')
                joins = scalar == U'\n';
            else if (isControl(last))
                joins = false;
            else if (extendsCharacter(scalar) || last == 0x200D)
                joins = true;
            else if (isRegionalIndicator(scalar) && current.size() == 1 && isRegionalIndicator(last))
                joins = true;
        }
        if (!joins) close();
        current.push_back(scalar);
    }
    close();
    return codes;
}

}  // namespace

void to_json(Json& json, const Telemetry::Props& props) {
    json = Json::object();
    put(json, "subscription_duration", props.subscriptionDuration);
    put(json, "website_exclusions", props.websiteExclusions);
    put(json, "app_exclusions", props.appExclusions);
    json["app_locale"] = props.appLocale;
    json["system_locale"] = props.systemLocale;
    put(json, "logged_in", props.loggedIn);
    put(json, "license_status", props.licenseStatus);
    put(json, "theme", props.theme);
    put(json, "kill_switch", props.killSwitch);
    put(json, "stats", props.stats);
    put(json, "retention_cohort", props.retentionCohort);
    put(json, "update_interval", props.updateInterval);
    put(json, "operating_mode", props.operatingMode);
    put(json, "experiment_1", props.experiment1);
    put(json, "experiment_2", props.experiment2);
    put(json, "experiment_3", props.experiment3);
}

std::string Telemetry::Props::defaultAppLocale(std::string_view applicationLanguage) {
    if (applicationLanguage.find("Hant") != std::string_view::npos) return "zh-TW";
    if (applicationLanguage.find("Hans") != std::string_view::npos) return "zh-CN";
    return std::string(applicationLanguage);
}

std::string Telemetry::Props::defaultSystemLocale() {
    if (const auto global = Foundation::UserDefaults::standard().persistentDomain("NSGlobalDomain")) {
        if (const auto entry = global->find("AppleLanguages"); entry != global->end()) {
            const auto* languages = entry->second.get<Foundation::PropertyList::Array>();
            if (languages && !languages->empty())
                if (const auto* first = languages->front().get<std::string>()) return *first;
        }
    }
    return "en-US";
}

std::optional<std::string> Telemetry::UserAgent::platform(CPUType cpuType) {
    switch (cpuType) {
        case CPUType::arm64: return "arm";
        case CPUType::x86_64: return "x64";
        case CPUType::unknown: break;
    }
    return std::nullopt;
}

Telemetry::UserAgent Telemetry::UserAgent::current() {
    UserAgent agent;
    if (std::string model = SystemInfo::getHardwareModel(); !model.empty()) agent.device.model = std::move(model);
    agent.os.platform = platform(SystemInfo::getCPUType());
    agent.os.version = SystemInfo::getOSVersion();
    return agent;
}

Telemetry::Telemetry(std::string syntheticId, AppType appType, std::string appVersion, UserAgent userAgent)
    : syntheticId_(std::move(syntheticId)),
      appType_(appType),
      appVersion_(std::move(appVersion)),
      userAgent_(std::move(userAgent)) {}

std::string Telemetry::createSyntheticId(std::string_view from) {
    std::optional<int64_t> number = hexInteger(from);
    if (!number || *number == 0) {
        const std::vector<unsigned> codes = characterCodes(from);
        std::string digits;
        for (std::size_t i = codes.size() > 8 ? codes.size() - 8 : 0; i < codes.size(); ++i)
            digits += std::to_string(codes[i]);
        number = decimalInteger(digits);
        if (!number || *number == 0) {
            logError("createSyntheticId(from:)", "Invalid synthetic id");
            return std::string(8, 'a');
        }
    }
    int64_t n = *number;
    std::string id;
    for (int i = 0; i < 8; ++i) {
        id += idAlphabet[static_cast<std::size_t>(std::abs(n % 15))];
        n /= 15;
    }
    return id;
}

std::optional<Telemetry::Data> Telemetry::encodeJSON(const EventInfo* event, Json props,
                                                     const ExperimentVersions* tests) const {
    Json json{{"synthetic_id", syntheticId_},
              {"app_type", rawValue(appType_)},
              {"version", appVersion_},
              {"user_agent", userAgentJSON(userAgent_)}};
    if (event) {
        if (const auto* pageview = std::get_if<Pageview>(event))
            json["pageview"] = eventInfoJSON(*pageview);
        else
            json["event"] = eventInfoJSON(std::get<CustomEvent>(*event));
    }
    json["props"] = std::move(props);
    if (tests) {
        Json names = Json::object();
        for (const auto& [experiment, version] : *tests)
            if (!names.contains(version.experimentName)) names[version.experimentName] = version.versionName;
        json["tests"] = std::move(names);
    }
    // Strict: text that is not UTF-8 throws here.
    const std::string text = json.dump();
    return Data(text.begin(), text.end());
}

void Telemetry::logEncodingFailure(const EventInfo* event, const std::exception& error,
                                   std::string_view function) const {
    std::string description = "Event(synthetic_id: " + syntheticId_ + ", app_type: " +
                              std::string(rawValue(appType_)) + ", version: " + appVersion_;
    if (event) {
        if (const auto* pageview = std::get_if<Pageview>(event))
            description += ", pageview: " + pageview->name;
        else
            description += ", event: " + std::get<CustomEvent>(*event).name;
    }
    description += ")";
    logError(function, "Failed to encode event " + description + ": " + error.what());
}

namespace {

std::optional<Foundation::URLRequest> postRequest(const std::string& url, double timeout,
                                                  std::optional<Telemetry::Data> body) {
    if (!body) return std::nullopt;
    Foundation::URLRequest request(url, Foundation::URLRequest::CachePolicy::useProtocolCachePolicy, timeout);
    request.httpMethod = "POST";
    request.setValue("application/json", "Content-Type");
    request.httpBody = std::move(body);
    return request;
}

Telemetry::ExperimentVersion experimentVersion(const nlohmann::json& json) {
    if (!json.is_object()) throw Telemetry::DecodingError("experiment version is not an object");
    const auto field = [&](const char* key) {
        const auto found = json.find(key);
        if (found == json.end() || !found->is_string())
            throw Telemetry::DecodingError(std::string("\"") + key + "\" is missing or not a string");
        return found->get<std::string>();
    };
    return {field("experiment_name"), field("version_name")};
}

}  // namespace

std::optional<Foundation::URLRequest> Telemetry::eventRequest(const std::string& url, double timeout,
                                                              const EventInfo& event, const Props& props) const {
    return postRequest(url, timeout, eventJSONData(event, props));
}

std::optional<Foundation::URLRequest> Telemetry::startSessionEventRequest(const std::string& url, double timeout,
                                                                          const Props& props,
                                                                          const ExperimentVersions& tests) const {
    return postRequest(url, timeout, startSessionEventJSONData(props, tests));
}

Telemetry::ExperimentVersions Telemetry::decodeStartSessionResponse(const Data& data) {
    nlohmann::json answer;
    try {
        answer = nlohmann::json::parse(data.begin(), data.end());
    } catch (const nlohmann::json::exception& error) {
        throw DecodingError(error.what());
    }
    if (!answer.is_object()) throw DecodingError("start-session answer is not an object");
    const auto versions = answer.find("versions");
    if (versions == answer.end() || !versions->is_object())
        throw DecodingError("\"versions\" is missing or not an object");
    ExperimentVersions result;
    for (Experiment experiment : {Experiment::experiment1, Experiment::experiment2, Experiment::experiment3}) {
        const auto entry = versions->find(std::string(rawValue(experiment)));
        // Absent and null both mean "not in this experiment".
        if (entry == versions->end() || entry->is_null()) continue;
        result.emplace(experiment, experimentVersion(*entry));
    }
    return result;
}

}  // namespace Tovik
