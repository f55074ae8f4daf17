// The cost of the keychain calls: KeyChain::load and KeyChain::save of a
// 64-byte item beside bare prepared SQLite statements on the same keychain
// file (a connection of their own, with the keychain's pragmas): a SELECT of
// the item's data, and an UPSERT of it. Saving unchanged bytes searches only
// and is set beside the SELECT; saving changed bytes searches and updates
// and is set beside the UPSERT. Target: each KeyChain call <= 2x its bare
// statement, by the medians of --benchmark_repetitions=5.
//
// Run as root, the calls use the system keychain, so the program runs itself
// again inside scripts/sandbox.sh over a temporary folder: the real /Library
// is never touched. A summary with the ratios follows Google Benchmark's
// table.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Security/SecKeychain.h"
#include "Tovik/KeyChain.h"
#include "Tovik/Logger/Logger.h"
#include "Figures.h"
#include "RunInSandbox.h"

namespace {

using Tovik::KeyChain;

const std::string key = "benchmark";
const KeyChain::Data first(64, 0x41), second(64, 0x42);

sqlite3* bare = nullptr;  // the bare statements' connection

int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void BM_KeyChainLoad(benchmark::State& state) {
    for (auto _ : state) {
        auto data = KeyChain::load(key);
        if (!data || data->size() != 64) state.SkipWithError("no item");
        benchmark::DoNotOptimize(data);
    }
}
BENCHMARK(BM_KeyChainLoad);

void BM_BareSelect(benchmark::State& state) {
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v3(bare, "SELECT data FROM genp WHERE svce = ?1 AND acct = ?2 AND agrp = ''", -1,
                       SQLITE_PREPARE_PERSISTENT, &select, nullptr);
    const std::string& service = KeyChain::defaultService();
    for (auto _ : state) {
        sqlite3_bind_text(select, 1, service.data(), int(service.size()), SQLITE_STATIC);
        sqlite3_bind_text(select, 2, key.data(), int(key.size()), SQLITE_STATIC);
        if (sqlite3_step(select) != SQLITE_ROW) state.SkipWithError("no row");
        const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(select, 0));
        KeyChain::Data data(bytes, bytes + sqlite3_column_bytes(select, 0));
        benchmark::DoNotOptimize(data);
        sqlite3_reset(select);
    }
    sqlite3_finalize(select);
}
BENCHMARK(BM_BareSelect);

void BM_KeyChainSaveUnchanged(benchmark::State& state) {
    for (auto _ : state) {
        if (KeyChain::save(key, first) != 0) state.SkipWithError("save failed");
    }
}
BENCHMARK(BM_KeyChainSaveUnchanged);

void BM_KeyChainSaveChanged(benchmark::State& state) {
    bool flip = false;
    for (auto _ : state) {
        if (KeyChain::save(key, (flip = !flip) ? second : first) != 0) state.SkipWithError("save failed");
    }
    KeyChain::save(key, first);
}
BENCHMARK(BM_KeyChainSaveChanged);

void BM_BareUpsert(benchmark::State& state) {
    sqlite3_stmt* upsert = nullptr;
    sqlite3_prepare_v3(bare,
                       "INSERT INTO genp (svce, acct, agrp, data, cdat, mdat) VALUES (?1, ?2, '', ?3, ?4, ?4) "
                       "ON CONFLICT (svce, acct, agrp) DO UPDATE SET data = excluded.data, mdat = excluded.mdat",
                       -1, SQLITE_PREPARE_PERSISTENT, &upsert, nullptr);
    const std::string& service = KeyChain::defaultService();
    bool flip = false;
    for (auto _ : state) {
        const KeyChain::Data& value = (flip = !flip) ? second : first;
        sqlite3_bind_text(upsert, 1, service.data(), int(service.size()), SQLITE_STATIC);
        sqlite3_bind_text(upsert, 2, key.data(), int(key.size()), SQLITE_STATIC);
        sqlite3_bind_blob(upsert, 3, value.data(), int(value.size()), SQLITE_STATIC);
        sqlite3_bind_int64(upsert, 4, now());
        if (sqlite3_step(upsert) != SQLITE_DONE) state.SkipWithError(sqlite3_errmsg(bare));
        sqlite3_reset(upsert);
    }
    sqlite3_finalize(upsert);
    KeyChain::save(key, first);
}
BENCHMARK(BM_BareUpsert);

void printSummary(const Figures::MedianReporter& reporter) {
    std::printf("\nKeychain item calls, %zu-byte item, medians\n", first.size());
    auto line = [&](const char* label, const char* call, const char* bareLabel, const char* bareCall) {
        const double calls = reporter.realNs(call), bareTime = reporter.realNs(bareCall);
        if (calls == 0 || bareTime == 0) return;
        Figures::report(std::string("keychain: ") + label + " vs " + bareLabel,
                        Figures::text("%.2f us vs %.2f us, %.2fx", calls / 1e3, bareTime / 1e3, calls / bareTime),
                        "<= 2x", calls / bareTime <= 2);
    };
    line("KeyChain.load", "BM_KeyChainLoad", "bare SELECT", "BM_BareSelect");
    line("KeyChain.save, same bytes", "BM_KeyChainSaveUnchanged", "bare SELECT", "BM_BareSelect");
    line("KeyChain.save, new bytes", "BM_KeyChainSaveChanged", "bare UPSERT", "BM_BareUpsert");
}

}  // namespace

int main(int argc, char** argv) {
    if (!std::getenv("TOVIK_IN_SANDBOX")) return runInSandbox(argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Tovik::Logger::shared().setHandlers({});

    if (KeyChain::save(key, first) != 0) {
        std::fprintf(stderr, "cannot save the benchmark's item\n");
        return 1;
    }
    const std::string file = Security::SecKeychain::defaultKeychainPath()->string();
    if (sqlite3_open_v2(file.c_str(), &bare, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_exec(bare, "PRAGMA busy_timeout = 10000; PRAGMA synchronous = FULL; PRAGMA secure_delete = ON",
                     nullptr, nullptr, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "cannot open %s\n", file.c_str());
        return 1;
    }
    std::printf("keychain file %s\n", file.c_str());

    Figures::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    sqlite3_close(bare);
    printSummary(reporter);
    return 0;
}
