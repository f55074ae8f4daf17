// The cost of a log call: a call below the threshold (the message is never
// built) and an accepted call handed to three handlers that do nothing, beside
// spdlog's disabled and accepted calls to a null sink.
#include <benchmark/benchmark.h>

#include <string>

#include "Figures.h"
#include "Tovik/Logger/Logger.h"

#ifdef HAVE_SPDLOG
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

class NoOpHandler : public Tovik::LogHandlerProtocol {
public:
    void log(Tovik::LogLevel, Tovik::Date, std::string_view text) noexcept override {
        benchmark::DoNotOptimize(text.data());
    }
};

// The shared logger at threshold info with three no-op handlers.
void prepareSharedLogger() {
    auto& logger = Tovik::Logger::shared();
    logger.setLogLevel(Tovik::LogLevel::info);
    logger.setHandlers({std::make_shared<NoOpHandler>(), std::make_shared<NoOpHandler>(),
                        std::make_shared<NoOpHandler>()});
}

void TovikDisabledCall(benchmark::State& state) {
    prepareSharedLogger();
    int value = 0;
    for (auto _ : state) {
        TLOG_DEBUG("bench(iteration:)", "iteration " + std::to_string(value));
        benchmark::DoNotOptimize(++value);
    }
}
BENCHMARK(TovikDisabledCall);

void TovikAcceptedCallThreeHandlers(benchmark::State& state) {
    prepareSharedLogger();
    int value = 0;
    for (auto _ : state) {
        TLOG_INFO("bench(iteration:)", "iteration " + std::to_string(value));
        benchmark::DoNotOptimize(++value);
    }
}
BENCHMARK(TovikAcceptedCallThreeHandlers);

#ifdef HAVE_SPDLOG
std::shared_ptr<spdlog::logger> makeSpdlogger() {
    auto logger = std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger->set_level(spdlog::level::info);
    return logger;
}

void SpdlogDisabledCall(benchmark::State& state) {
    auto logger = makeSpdlogger();
    int value = 0;
    for (auto _ : state) {
        logger->debug("iteration {}", value);
        benchmark::DoNotOptimize(++value);
    }
}
BENCHMARK(SpdlogDisabledCall);

void SpdlogAcceptedCallNullSink(benchmark::State& state) {
    auto logger = makeSpdlogger();
    int value = 0;
    for (auto _ : state) {
        logger->info("iteration {}", value);
        benchmark::DoNotOptimize(++value);
    }
}
BENCHMARK(SpdlogAcceptedCallNullSink);
#endif

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Figures::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    // CPU time: what the calling thread spends.
    const double disabled = reporter.cpuNs("TovikDisabledCall"), accepted = reporter.cpuNs("TovikAcceptedCallThreeHandlers");
    const double spdlogDisabled = reporter.cpuNs("SpdlogDisabledCall"), spdlogAccepted = reporter.cpuNs("SpdlogAcceptedCallNullSink");
    if (disabled > 0 && spdlogDisabled > 0) {
        Figures::report("logger: disabled call vs spdlog's",
                        Figures::text("%.2f ns vs %.2f ns, %.1fx faster", disabled, spdlogDisabled, spdlogDisabled / disabled),
                        ">= 10x faster", spdlogDisabled / disabled >= 10);
    }
    if (accepted > 0 && spdlogAccepted > 0) {
        Figures::report("logger: accepted call, 3 no-op handlers vs spdlog null sink",
                        Figures::text("%.1f ns vs %.1f ns, %.2fx", accepted, spdlogAccepted, accepted / spdlogAccepted),
                        "<= 1.0x", accepted <= spdlogAccepted);
    }
    return 0;
}
