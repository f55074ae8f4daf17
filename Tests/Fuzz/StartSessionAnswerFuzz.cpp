// Fuzzes the decoding of the statistics service's start-session answer, and
// the session-start event built from what it yields, as a client would use
// the two in turn.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "Fuzz/FuzzSupport.h"
#include "Tovik/Telemetry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using Tovik::Telemetry;

    FuzzSupport::quietLogs();
    static const Telemetry telemetry("acbaaaaa", Tovik::AppType::vpnMac, "2.11.0", Telemetry::UserAgent{});

    Telemetry::ExperimentVersions versions;
    try {
        versions = Telemetry::decodeStartSessionResponse(Telemetry::Data(data, data + size));
    } catch (const Telemetry::DecodingError&) {
        return 0;  // the one failure decoding may report
    }

    // Every entry came from its own key of a "versions" object.
    const auto answer = nlohmann::json::parse(data, data + size);
    for (const auto& [experiment, version] : versions) {
        const auto& entry = answer.at("versions").at(std::string(Tovik::rawValue(experiment)));
        FUZZ_CHECK(entry.at("experiment_name") == version.experimentName);
        FUZZ_CHECK(entry.at("version_name") == version.versionName);
    }

    // Decoded text is UTF-8, so the event always encodes; "tests" holds each
    // experiment name once, with the version of its first experiment.
    Telemetry::Props props;
    props.appLocale = "en";
    props.systemLocale = "en-US";
    const auto event = telemetry.startSessionEventJSONData(props, versions);
    FUZZ_CHECK(event);
    const auto tests = nlohmann::json::parse(event->begin(), event->end()).at("tests");
    std::set<std::string> seen;
    for (const auto& [experiment, version] : versions) {
        if (!seen.insert(version.experimentName).second) continue;
        FUZZ_CHECK(tests.at(version.experimentName) == version.versionName);
    }
    FUZZ_CHECK(tests.size() == seen.size());
    return 0;
}
