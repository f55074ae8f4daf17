// The cost of a SecureStorage write: store() of a dictionary whose binary
// property list is 1 KiB, beside the bare floor of the same bytes: AES-256-GCM
// under a fresh key and nonce, write of a temporary file, fsync, rename and
// fsync of the folder (what a durable replacement takes). Target: the storage
// with its key in memory <= 1.3x the floor, by the medians of
// --benchmark_repetitions=5. With its key in the keychain the storage is set
// beside the floor plus a bare prepared UPSERT of the 32-byte key into the
// keychain file.
//
// And write coalescing: 1,000 set() calls within one write delay, counted
// in file writes per round (must be exactly 1).
//
// Run as root, the keychain is the system keychain, so the program runs
// itself again inside scripts/sandbox.sh over a temporary folder: the real
// /Library is never touched. A summary with the ratios follows Google
// Benchmark's table.
// GCC 12 at -O1 with the sanitizers warns of a "maybe uninitialized" member
// of the property-list variant that is always set; the warning is false.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Security/SecKeychain.h"
#include "Tovik/KeyChain.h"
#include "Tovik/KeyChainData.h"
#include "Tovik/Logger/Logger.h"
#include "Tovik/SecureStorage.h"
#include "Figures.h"
#include "RunInSandbox.h"
#include "Support/MemoryKeyChainData.h"

namespace {

namespace fs = std::filesystem;
using Foundation::PropertyList;
using Tovik::SecureStorage;
using Data = std::vector<uint8_t>;

fs::path folder;           // the files' folder (in /tmp, as the storages' of the tests)
PropertyList::Dictionary dictionaries[2];  // two of 1 KiB as a binary property list
sqlite3* bare = nullptr;   // the bare UPSERT's connection to the keychain file
const std::string keyName = "benchmark-key";

/// A key kept in memory: the storage's own cost, without the keychain.

PropertyList::Dictionary dictionaryOf(char fill, size_t payload) {
    PropertyList::Dictionary dictionary;
    for (int i = 0; i < 8; ++i) dictionary.emplace("key" + std::to_string(i), std::string(40, char(fill + i)));
    dictionary.emplace("payload", Data(payload, uint8_t(fill)));
    return dictionary;
}

std::string blobOf(const PropertyList::Dictionary& dictionary) {
    return PropertyList(dictionary).data(PropertyList::Format::binary);
}

void storeEachTime(benchmark::State& state, std::shared_ptr<Tovik::KeyChainDataProtocol> key, const char* name) {
    auto storage = SecureStorage::create(std::move(key), folder / name, 0);
    size_t round = 0;
    for (auto _ : state) storage->reset(dictionaries[++round % 2]);
    if (storage->dictionaryRepresentation() != dictionaries[round % 2]) state.SkipWithError("not stored");
}

void BM_SecureStorageStore_MemoryKey(benchmark::State& state) {
    storeEachTime(state, std::make_shared<TestSupport::MemoryKeyChainData>(), "memory.sealed");
}
BENCHMARK(BM_SecureStorageStore_MemoryKey);

void BM_SecureStorageStore_Keychain(benchmark::State& state) {
    storeEachTime(state, std::make_shared<Tovik::KeyChainData>(keyName), "keychain.sealed");
}
BENCHMARK(BM_SecureStorageStore_Keychain);

bool sealDurably(const std::string& blob, const fs::path& file, Data& key) {
    // AES-256-GCM, fresh key and nonce, combined form.
    uint8_t nonce[12];
    RAND_bytes(key.data(), int(key.size()));
    RAND_bytes(nonce, sizeof nonce);
    std::vector<uint8_t> sealed(12 + blob.size() + 16);
    std::copy(nonce, nonce + 12, sealed.begin());
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    int written = 0;
    bool ok = EVP_EncryptInit_ex(context, EVP_aes_256_gcm(), nullptr, key.data(), nonce) == 1 &&
              EVP_EncryptUpdate(context, sealed.data() + 12, &written, reinterpret_cast<const uint8_t*>(blob.data()),
                                int(blob.size())) == 1 &&
              EVP_EncryptFinal_ex(context, sealed.data() + 12 + written, &written) == 1 &&
              EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, 16, sealed.data() + 12 + blob.size()) == 1;
    EVP_CIPHER_CTX_free(context);
    // Temporary file, fsync, rename, fsync of the folder.
    const std::string temporary = file.string() + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ok = ok && fd >= 0 && ::write(fd, sealed.data(), sealed.size()) == ssize_t(sealed.size()) && ::fsync(fd) == 0;
    if (fd >= 0) ::close(fd);
    ok = ok && ::rename(temporary.c_str(), file.c_str()) == 0;
    const int directory = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ok = ok && directory >= 0 && ::fsync(directory) == 0;
    if (directory >= 0) ::close(directory);
    return ok;
}

void BM_BareFloor(benchmark::State& state) {
    const std::string blobs[2] = {blobOf(dictionaries[0]), blobOf(dictionaries[1])};
    Data key(32);
    size_t round = 0;
    for (auto _ : state) {
        if (!sealDurably(blobs[++round % 2], folder / "bare.sealed", key)) state.SkipWithError("write failed");
    }
}
BENCHMARK(BM_BareFloor);

void BM_BareFloorWithKeyUpsert(benchmark::State& state) {
    const std::string blobs[2] = {blobOf(dictionaries[0]), blobOf(dictionaries[1])};
    sqlite3_stmt* upsert = nullptr;
    sqlite3_prepare_v3(bare,
                       "INSERT INTO genp (svce, acct, agrp, data, cdat, mdat) VALUES (?1, ?2, '', ?3, ?4, ?4) "
                       "ON CONFLICT (svce, acct, agrp) DO UPDATE SET data = excluded.data, mdat = excluded.mdat",
                       -1, SQLITE_PREPARE_PERSISTENT, &upsert, nullptr);
    const std::string& service = Tovik::KeyChain::defaultService();
    const std::string account = "bare-" + keyName;
    Data key(32);
    size_t round = 0;
    for (auto _ : state) {
        // As the storage: seal and write first, store the key, then rename.
        if (!sealDurably(blobs[++round % 2], folder / "bare-keychain.sealed", key)) state.SkipWithError("write failed");
        sqlite3_bind_text(upsert, 1, service.data(), int(service.size()), SQLITE_STATIC);
        sqlite3_bind_text(upsert, 2, account.data(), int(account.size()), SQLITE_STATIC);
        sqlite3_bind_blob(upsert, 3, key.data(), int(key.size()), SQLITE_STATIC);
        sqlite3_bind_int64(upsert, 4, std::chrono::system_clock::now().time_since_epoch().count());
        if (sqlite3_step(upsert) != SQLITE_DONE) state.SkipWithError(sqlite3_errmsg(bare));
        sqlite3_reset(upsert);
    }
    sqlite3_finalize(upsert);
}
BENCHMARK(BM_BareFloorWithKeyUpsert);

/// Counts the storage's file writes by their "Write to" log line.
class WriteCounter : public Tovik::LogHandlerProtocol {
public:
    void log(Tovik::LogLevel, Tovik::Date, std::string_view text) noexcept override {
        if (text.find(") Write to ") != std::string_view::npos) ++writes;
    }
    std::atomic<int> writes = 0;
};

// One round: 1,000 set() calls on a storage with a 0.25 s delay, then the
// storage is released and the round waits until every scheduled write has
// run (the last one frees the storage).
void BM_ThousandSetsWithinOneDelay(benchmark::State& state) {
    auto counter = std::make_shared<WriteCounter>();
    const auto handlers = Tovik::Logger::shared().handlers();
    Tovik::Logger::shared().setHandlers({counter});
    Tovik::Logger::shared().setLogLevel(Tovik::LogLevel::debug);
    int rounds = 0;
    bool exact = true;
    for (auto _ : state) {
        const int before = counter->writes;
        auto storage =
            SecureStorage::create(std::make_shared<Tovik::KeyChainData>(keyName), folder / "sets.sealed", 0.25);
        for (int i = 0; i < 1000; ++i) storage->set(PropertyList(i), std::to_string(i % 100));
        std::weak_ptr<SecureStorage> watched = storage;
        storage.reset();
        while (!watched.expired()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        exact = exact && counter->writes - before == 1;
        ++rounds;
    }
    Tovik::Logger::shared().setHandlers(handlers);
    Tovik::Logger::shared().setLogLevel(Tovik::LogLevel::info);
    state.counters["file_writes_per_1000_sets"] = double(counter->writes) / rounds;
    if (!exact) state.SkipWithError("a round wrote more or less than once");
}
BENCHMARK(BM_ThousandSetsWithinOneDelay)->Iterations(5)->Unit(benchmark::kMillisecond);

void printSummary(const Figures::MedianReporter& reporter) {
    std::printf("\nSecureStorage store of a %zu-byte blob, medians\n", blobOf(dictionaries[0]).size());
    auto line = [&](const char* label, const char* call, const char* bareLabel, const char* bareCall, bool target) {
        const double calls = reporter.realNs(call), bareTime = reporter.realNs(bareCall);
        if (calls == 0 || bareTime == 0) return;
        Figures::report(std::string("secure storage: ") + label + " vs " + bareLabel,
                        Figures::text("%.2f us vs %.2f us, %.2fx", calls / 1e3, bareTime / 1e3, calls / bareTime),
                        target ? "<= 1.3x" : "", calls / bareTime <= 1.3);
    };
    line("store(), key in memory", "BM_SecureStorageStore_MemoryKey", "bare floor", "BM_BareFloor", false);
    line("store(), key in keychain", "BM_SecureStorageStore_Keychain", "bare floor + key UPSERT",
         "BM_BareFloorWithKeyUpsert", false);
    line("store(), key in keychain", "BM_SecureStorageStore_Keychain", "bare AES-GCM + write + fsync + rename",
         "BM_BareFloor", true);
    const double writes = reporter.counter("BM_ThousandSetsWithinOneDelay", "file_writes_per_1000_sets");
    Figures::report("secure storage: file writes for 1,000 set() calls within one write delay",
                    Figures::text("%.2f", writes), "exactly 1", writes == 1);
}

}  // namespace

int main(int argc, char** argv) {
    if (!std::getenv("TOVIK_IN_SANDBOX")) return runInSandbox(argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Tovik::Logger::shared().setHandlers({});

    char files[] = "/tmp/secure-storage-files.XXXXXX";
    if (::mkdtemp(files) == nullptr) return 1;
    folder = files;
    // The payload that makes the binary property list exactly 1 KiB.
    for (size_t payload = 0; payload < 1024; ++payload) {
        if (blobOf(dictionaryOf('a', payload)).size() == 1024) {
            dictionaries[0] = dictionaryOf('a', payload);
            dictionaries[1] = dictionaryOf('b', payload);
            break;
        }
    }
    if (blobOf(dictionaries[0]).size() != 1024 || blobOf(dictionaries[1]).size() != 1024) {
        std::fprintf(stderr, "no 1 KiB dictionary\n");
        return 1;
    }
    if (Tovik::KeyChain::save("bare-" + keyName, Data(32, 0)) != 0) {
        std::fprintf(stderr, "cannot save the benchmark's item\n");
        return 1;
    }
    const std::string keychain = Security::SecKeychain::defaultKeychainPath()->string();
    if (sqlite3_open_v2(keychain.c_str(), &bare, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_exec(bare, "PRAGMA busy_timeout = 10000; PRAGMA synchronous = FULL; PRAGMA secure_delete = ON",
                     nullptr, nullptr, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "cannot open %s\n", keychain.c_str());
        return 1;
    }
    std::printf("files in %s, keychain file %s\n", files, keychain.c_str());

    Figures::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    sqlite3_close(bare);
    std::error_code ignored;
    fs::remove_all(folder, ignored);
    printSummary(reporter);
    return 0;
}
