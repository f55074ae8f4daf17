// The cost of SecureDefaults over the plain user defaults it guards.
//
// Read: object(forKey:) of a protected key that is in step with its shadow
// copy (validation included) beside UserDefaults::object() of the same key in
// a domain of the same contents. Target <= 1.5x, by the medians of
// --benchmark_repetitions=5.
//
// Write: set(_:forKey:) of a protected key, which also writes the shadow copy
// (a SecureStorage without write delay, its key in memory: every write is
// sealed and stored at once), beside UserDefaults::set() of the same key.
//
// Files live in a temporary folder; a summary with the ratios follows Google
// Benchmark's table.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"  // GCC 12 at -O1 on the property-list variant
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "Figures.h"
#include "Foundation/UserDefaults.h"
#include "Support/MemoryKeyChainData.h"
#include "Tovik/KeyChainDataProtocol.h"
#include "Tovik/Logger/Logger.h"
#include "Tovik/SecureDefaults.h"
#include "Tovik/SecureStorage.h"

namespace {

namespace fs = std::filesystem;
using Foundation::PropertyList;
using Foundation::UserDefaults;

const std::string key = "Token";
const PropertyList values[2] = {PropertyList(std::string(40, 'a')), PropertyList(std::string(40, 'b'))};

class ProtectedDefaults : public Tovik::SecureDefaults {
protected:
    using SecureDefaults::SecureDefaults;
    const std::set<std::string>& allDefaultNames() const override {
        static const std::set<std::string> names{"Token", "Enabled", "Count", "LastCheck"};
        return names;
    }
};

/// The sealed storage's key, kept in memory.

fs::path folder;
std::unique_ptr<UserDefaults> plain, guarded;
std::unique_ptr<ProtectedDefaults> secure;

// Ten other keys beside the measured one, in both domains.
void fill(UserDefaults& defaults) {
    for (int i = 0; i < 10; ++i) (void)defaults.set(PropertyList("value " + std::to_string(i)), "key" + std::to_string(i));
    (void)defaults.set(values[0], key);
}

void BM_UserDefaultsRead(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(plain->object(key));
}
BENCHMARK(BM_UserDefaultsRead);

void BM_SecureDefaultsRead(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(secure->object(key));
}
BENCHMARK(BM_SecureDefaultsRead);

void BM_UserDefaultsWrite(benchmark::State& state) {
    size_t round = 0;
    for (auto _ : state) {
        if (!plain->set(values[++round % 2], key)) state.SkipWithError("write failed");
    }
}
BENCHMARK(BM_UserDefaultsWrite);

void BM_SecureDefaultsWrite(benchmark::State& state) {
    size_t round = 0;
    for (auto _ : state) secure->set(values[++round % 2], key);
    if (secure->dictionaryRepresentation().at(key) != values[round % 2]) state.SkipWithError("not shadowed");
}
BENCHMARK(BM_SecureDefaultsWrite);

void printSummary(const Figures::MedianReporter& reporter) {
    auto line = [&](const char* label, const char* call, const char* bare, const char* target, double limit) {
        const double calls = reporter.realNs(call), bareTime = reporter.realNs(bare);
        if (calls == 0 || bareTime == 0) return;
        Figures::report(std::string("secure defaults: ") + label + " of a protected key vs a plain UserDefaults " + label,
                        Figures::text("%.2f us vs %.2f us, %.2fx", calls / 1e3, bareTime / 1e3, calls / bareTime),
                        target, calls / bareTime <= limit);
    };
    std::printf("\nSecureDefaults beside UserDefaults, one protected key, medians\n");
    line("read", "BM_SecureDefaultsRead", "BM_UserDefaultsRead", "<= 1.5x", 1.5);
    line("write", "BM_SecureDefaultsWrite", "BM_UserDefaultsWrite", "", 0);  // the shadow is sealed and stored on every write
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Tovik::Logger::shared().setHandlers({});

    char files[] = "/tmp/secure-defaults.XXXXXX";
    if (::mkdtemp(files) == nullptr) return 1;
    folder = files;
    // The managed folder does not exist, as on most machines.
    plain = std::make_unique<UserDefaults>("com.velmora.plain", folder / "Preferences", folder / "Managed Preferences");
    guarded = std::make_unique<UserDefaults>("com.velmora.secure", folder / "Preferences",
                                             folder / "Managed Preferences");
    plain->setVolatileDomain({}, UserDefaults::argumentDomain);
    guarded->setVolatileDomain({}, UserDefaults::argumentDomain);
    fill(*plain);
    fill(*guarded);
    secure = Tovik::SecureDefaults::make<ProtectedDefaults>(
        *guarded, "com.velmora.secure", Tovik::SecureStorage::create(std::make_shared<TestSupport::MemoryKeyChainData>(), folder / "shadow", 0));
    secure->loadCache();

    Figures::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    secure.reset();
    guarded.reset();
    plain.reset();
    std::error_code ignored;
    fs::remove_all(folder, ignored);
    printSummary(reporter);
    return 0;
}
