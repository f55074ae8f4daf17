// Product usage events for the statistics service, as JSON and as HTTP POST
// requests, and the service's start-session answer.
//
// A Telemetry knows one anonymous installation (the synthetic id), the
// product type and version, and the machine's user agent (device and OS
// facts, read once at construction). Callers supply the event, the usage
// properties and, for the session start, the experiment variants. Sending the
// requests is the caller's business.
//
// Event JSON: {"synthetic_id", "app_type", "version", "user_agent": {"device":
// {"brand", "model"?}, "os": {"name", "platform"?, "version"}}, "pageview"? |
// "event"?, "props", "tests"?}; absent optional fields are left out, never null.
//
// Members are const and may be called from any thread. Encoding failures
// (text that is not UTF-8) are logged at error and give nothing.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "Tovik/SystemInfo.h"
#include "URLLoading/URLRequest.h"

namespace Tovik {

enum class AppType { mac, miniMac, vpnMac };
enum class LicenseStatus { free, trial, premium, other };
enum class Theme { light, dark, systemDark, systemLight };
enum class SubscriptionDuration { annual, monthly, lifetime, other };
enum class WebsiteExclusions { general, selective };
enum class AppExclusions { general, selective };
enum class BinaryState { on, off };
enum class RetentionCohort { day1, week1, month1, longtime };
enum class UpdateIntervalSource { systemDefault, custom };
enum class OperatingMode { vpn, integrated };
enum class Experiment { experiment1, experiment2, experiment3 };
/// An experiment's variant.
enum class ExperimentOption { optA, optB };

/// The JSON strings: "MAC", "FREE", "SYSTEM_DARK", "experiment_1", "a_def", ...
std::string_view rawValue(AppType value);
std::string_view rawValue(LicenseStatus value);
std::string_view rawValue(Theme value);
std::string_view rawValue(SubscriptionDuration value);
std::string_view rawValue(WebsiteExclusions value);
std::string_view rawValue(AppExclusions value);
std::string_view rawValue(BinaryState value);
std::string_view rawValue(RetentionCohort value);
std::string_view rawValue(UpdateIntervalSource value);
std::string_view rawValue(OperatingMode value);
std::string_view rawValue(Experiment value);
std::string_view rawValue(ExperimentOption value);

class Telemetry {
public:
    using Data = Foundation::URLRequest::Data;

    struct Device {
        /// Always "Apple".
        std::string brand = "Apple";
        std::optional<std::string> model;
    };
    struct OS {
        /// Always "Mac".
        std::string name = "Mac";
        /// "arm", "x64", or absent for an unknown processor.
        std::optional<std::string> platform;
        std::string version;
    };
    struct UserAgent {
        Device device;
        OS os;

        /// This machine's: hardware model (absent when it reports none),
        /// processor family and OS version.
        static UserAgent current();
        /// The "platform" value for a processor family.
        static std::optional<std::string> platform(CPUType cpuType);
    };

    struct Pageview {
        std::string name;
        std::optional<std::string> refName;
    };
    struct CustomEvent {
        std::string name;
        std::string refName;
        std::optional<std::string> action;
        std::optional<std::string> label;
    };
    /// The event part of a call.
    using EventInfo = std::variant<Pageview, CustomEvent>;

    struct ExperimentVersion {
        std::string experimentName;
        std::string versionName;
        friend bool operator==(const ExperimentVersion&, const ExperimentVersion&) = default;
    };
    /// What the start-session answer yields, in experiment order.
    using ExperimentVersions = std::map<Experiment, ExperimentVersion>;

    /// Usage properties; all optional but the two locales.
    struct Props {
        std::optional<SubscriptionDuration> subscriptionDuration;
        std::optional<WebsiteExclusions> websiteExclusions;
        std::optional<AppExclusions> appExclusions;
        std::string appLocale;
        std::string systemLocale;
        std::optional<bool> loggedIn;
        std::optional<LicenseStatus> licenseStatus;
        std::optional<Theme> theme;
        std::optional<BinaryState> killSwitch;
        std::optional<BinaryState> stats;
        std::optional<RetentionCohort> retentionCohort;
        std::optional<UpdateIntervalSource> updateInterval;
        std::optional<OperatingMode> operatingMode;
        std::optional<std::string> experiment1;
        std::optional<std::string> experiment2;
        std::optional<std::string> experiment3;

        /// The application language with a "Hant" script as "zh-TW" and a
        /// "Hans" script as "zh-CN".
        static std::string defaultAppLocale(std::string_view applicationLanguage);
        /// The first "AppleLanguages" entry of the global defaults, else "en-US".
        static std::string defaultSystemLocale();
    };

    /// The start-session answer could not be decoded.
    class DecodingError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    Telemetry(std::string syntheticId, AppType appType, std::string appVersion,
              UserAgent userAgent = UserAgent::current());

    const std::string& syntheticId() const { return syntheticId_; }
    AppType appType() const { return appType_; }
    const std::string& appVersion() const { return appVersion_; }
    const UserAgent& userAgent() const { return userAgent_; }

    /// An 8-character id from an installation identifier (normally a MAC
    /// address); "aaaaaaaa", logged as "Invalid synthetic id", when the input
    /// gives no number.
    static std::string createSyntheticId(std::string_view from);

    /// A page-view or custom event with props; nothing when it cannot be encoded.
    template <class Properties = Props>
    std::optional<Data> eventJSONData(const EventInfo& event, const Properties& props) const {
        return encode(&event, props, nullptr, "eventJSONData(event:props:)");
    }
    /// The session-start event: props and the experiments the user is in
    /// (a repeated experiment name keeps its first version); nothing when it
    /// cannot be encoded.
    template <class Properties = Props>
    std::optional<Data> startSessionEventJSONData(const Properties& props, const ExperimentVersions& tests) const {
        return encode(nullptr, props, &tests, "startSessionEventJSONData(props:tests:)");
    }

    /// POST requests to url with "Content-Type" "application/json", the
    /// event's JSON as body, timeout seconds and the protocol's cache policy;
    /// nothing when the JSON cannot be made.
    std::optional<Foundation::URLRequest> eventRequest(const std::string& url, double timeout,
                                                       const EventInfo& event, const Props& props) const;
    std::optional<Foundation::URLRequest> startSessionEventRequest(const std::string& url, double timeout,
                                                                   const Props& props,
                                                                   const ExperimentVersions& tests) const;

    /// The experiments present in the start-session answer. Throws
    /// DecodingError when the bytes are not such an answer.
    static ExperimentVersions decodeStartSessionResponse(const Data& data);

private:
    template <class Properties>
    std::optional<Data> encode(const EventInfo* event, const Properties& props, const ExperimentVersions* tests,
                               std::string_view function) const {
        try {
            return encodeJSON(event, nlohmann::ordered_json(props), tests);
        } catch (const std::exception& error) {
            logEncodingFailure(event, error, function);
            return std::nullopt;
        }
    }
    std::optional<Data> encodeJSON(const EventInfo* event, nlohmann::ordered_json props,
                                   const ExperimentVersions* tests) const;
    void logEncodingFailure(const EventInfo* event, const std::exception& error, std::string_view function) const;

    std::string syntheticId_;
    AppType appType_;
    std::string appVersion_;
    UserAgent userAgent_;
};

void to_json(nlohmann::ordered_json& json, const Telemetry::Props& props);

}  // namespace Tovik
