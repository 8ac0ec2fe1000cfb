// Throughput of the block calculation of the reference configuration: three
// phases with star voltages and three currents, line-to-line results,
// interharmonics and THD, fs = 51200 Hz, static 50 Hz, 10-period blocks of
// 10240 samples (FFT length 16384), harmonics up to order 50. Blocks are
// scheduled continuously and collected whenever one is ready, with a few
// blocks in flight.
//
// Measured in the same run: the batched FFTW transforms such a block needs
// (9 channels, real-to-complex 16384, FFTW_MEASURE), alone. After the runs
// the program prints the medians and the ratio block / FFTs alone. The
// repetitions of all benchmarks run in random interleaved order
// (--benchmark_enable_random_interleaving=false runs them one after another).
//
//   ./tarnel_block_benchmark [--paired_rounds=N] [google-benchmark flags]
#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ReferenceModule.h"
#include "tarnel/DeviceBackend.h"
#include "tarnel/PowerModule.h"

using namespace tarnel;

namespace {

constexpr double kSampleRate = bench::kReferenceSampleRate;
constexpr double kFrequency = bench::kReferenceFrequency;
constexpr unsigned kBlock = 10240;                     // 10 periods of 50 Hz
constexpr unsigned long long kRing = 4ull * 51200ull;  // 4 s, a whole number of blocks and periods
constexpr int kFftLength = 16384;
constexpr int kChannels = 9;  // 3 voltages, 3 currents, 3 line-to-line voltages
constexpr int kInFlight = 3;  // blocks scheduled but not yet collected
constexpr int kRepetitions = 7;

// A module of the reference configuration with its whole sample ring filled
// once: 200 periods of a distorted three-phase signal, so that every block
// written later sees a continuous signal.
// What a harness computes besides the reference configuration.
enum class Extras { None, ThreePhase, PeriodValues };

class BlockHarness {
  public:
    BlockHarness(BackendKind kind, Extras extras_) : module(BackendOptions{kind, 0, true}), extras(extras_) {
        module.beginUpdate();
        configureExtras();
        bench::configureReferenceModule(module, kRing);
        module.endUpdate();
        module.reset(0);
        bench::fillReferenceRing(module, kRing);
    }

    // Writes and schedules one block, then collects what is ready; waits
    // while more than kInFlight blocks are outstanding.
    void step() {
        module.writeSamples(kBlock);
        module.scheduleForCalculation(next, static_cast<int>(kBlock), kFrequency);
        next += kBlock;
        ++inFlight;
        while (inFlight > kInFlight || module.isAnyResultReady()) {
            if (!module.isAnyResultReady()) {
                waitBriefly();
                continue;
            }
            collect();
        }
    }

    // Collects every outstanding block.
    void drain() {
        while (inFlight > 0) {
            if (module.isAnyResultReady()) {
                collect();
            } else {
                waitBriefly();
            }
        }
    }

    unsigned long long collected() const { return collectedBlocks; }

    // Period values of the block just collected, one per period from the
    // known zero crossings (1024 samples per period); returns the seconds
    // getPeriodResults took.
    double periodValuesOfLastBlock() {
        drain();
        std::vector<ZeroCrossingInterval> periods;
        for (unsigned long long start = periodsScheduled; start + kPeriod <= next; start += kPeriod) {
            periods.push_back({{start, 0.0}, {start + kPeriod, 0.0}, kFrequency, true});
            periodsScheduled = start + kPeriod;
        }
        module.scheduleForPeriodCalculationFromZeroCrossing(periods);
        const auto begin = std::chrono::steady_clock::now();
        bool more = true;
        while (more) {
            int count = 0;
            PowerResultsPeriod* records = nullptr;
            module.getPeriodResults(&count, &more, &records);
            if (count > 0) benchmark::DoNotOptimize(records[1].rmsU);
        }
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

  private:
    static constexpr unsigned long long kPeriod = 1024;

    void configureExtras() {
        if (extras == Extras::ThreePhase) {
            module.setSymmetricalComponentsEnabled(true);
            module.setClarkeTransformEnabled(true);
            module.setClarkeOrParkVoltagesEnabled(true);
            module.setClarkeOrParkCurrentsEnabled(true);
        }
        if (extras == Extras::PeriodValues) {
            module.setPeriodValuesEnabled(true);
            module.setFundamentalPeriodValuesEnabled(true);
            module.setPeriodSymmetricalComponentsEnabled(true);
            module.setDipSwellEnabled(true);
            module.setRvcEnabled(true);
            module.setNominalVoltage(230.0);
            module.setNominalLineToLineVoltage(400.0);
        }
    }

    // Sleeps rather than spins, leaving the cores to the calculation's threads.
    static void waitBriefly() { std::this_thread::sleep_for(std::chrono::microseconds(200)); }

    void collect() {
        const std::vector<PowerResultsGeneral> results = module.getResults(0);
        inFlight -= static_cast<int>(results.size());
        collectedBlocks += results.size();
        for (const PowerResultsGeneral& r : results) benchmark::DoNotOptimize(r.phases[0].rmsU);
    }

    PowerModule module;
    Extras extras;
    unsigned long long next = 0;
    unsigned long long periodsScheduled = 0;
    int inFlight = 0;
    unsigned long long collectedBlocks = 0;
};

// One harness per backend, kept across the benchmark's runs: the measured
// plans are made once, and the sample index keeps advancing.
BlockHarness& harnessFor(BackendKind kind, Extras extras = Extras::None) {
    static std::map<std::pair<BackendKind, Extras>, std::unique_ptr<BlockHarness>> harnesses;
    auto& h = harnesses[{kind, extras}];
    if (h == nullptr) h = std::make_unique<BlockHarness>(kind, extras);
    return *h;
}

void setBlockCounters(benchmark::State& state) {
    const auto blocks = static_cast<double>(state.iterations());
    state.counters["blocks_per_s"] = benchmark::Counter(blocks, benchmark::Counter::kIsRate);
    state.counters["realtime_factor"] = benchmark::Counter(blocks * kBlock / kSampleRate, benchmark::Counter::kIsRate);
}

void runBlocks(benchmark::State& state, BackendKind kind, Extras extras = Extras::None) {
    BlockHarness& harness = harnessFor(kind, extras);
    for (auto _ : state) harness.step();
    harness.drain();
    setBlockCounters(state);
}

void BM_BlockCpu(benchmark::State& state) { runBlocks(state, BackendKind::Cpu); }

// The same with block symmetrical components and the Clarke transform on.
void BM_BlockCpuThreePhase(benchmark::State& state) { runBlocks(state, BackendKind::Cpu, Extras::ThreePhase); }

// getPeriodResults alone for the ten full-period values of one block, with
// period symmetrical components, dips, swells and rapid voltage changes on.
void BM_PeriodValuesCpu(benchmark::State& state) {
    BlockHarness& harness = harnessFor(BackendKind::Cpu, Extras::PeriodValues);
    for (auto _ : state) {
        harness.step();
        state.SetIterationTime(harness.periodValuesOfLastBlock());
    }
    setBlockCounters(state);
}

void BM_BlockCuda(benchmark::State& state) {
    if (!tarnel::isCudaDeviceAvailable()) {
        state.SkipWithError("no CUDA device available: CUDA variant skipped");
        return;
    }
    runBlocks(state, BackendKind::Cuda);
}

// The batched transforms of one block alone, planned as the CPU backend plans
// them: 9 x real-to-complex 16384, input stride N, output stride N/2+1.
class FftwBatch {
  public:
    FftwBatch() {
        const int n[1] = {kFftLength};
        plan =
            fftwf_plan_many_dft_r2c(1, n, kChannels, in, nullptr, 1, kFftLength, out, nullptr, 1, kBins, FFTW_MEASURE);
        for (int c = 0; c < kChannels; ++c) {
            for (int k = 0; k < kFftLength; ++k)
                in[c * kFftLength + k] =
                    k < static_cast<int>(kBlock)
                        ? static_cast<float>(std::sin(2.0 * M_PI * kFrequency * k / kSampleRate + c))
                        : 0.0f;
        }
    }
    ~FftwBatch() {
        fftwf_destroy_plan(plan);
        fftwf_free(in);
        fftwf_free(out);
    }
    FftwBatch(const FftwBatch&) = delete;
    FftwBatch& operator=(const FftwBatch&) = delete;

    void run() {
        fftwf_execute(plan);
        benchmark::DoNotOptimize(out[1][0]);
    }

  private:
    static constexpr int kBins = kFftLength / 2 + 1;
    float* in = fftwf_alloc_real(static_cast<size_t>(kFftLength) * kChannels);
    fftwf_complex* out = fftwf_alloc_complex(static_cast<size_t>(kBins) * kChannels);
    fftwf_plan plan = nullptr;
};

void BM_FftwAlone(benchmark::State& state) {
    FftwBatch batch;
    for (auto _ : state) batch.run();
    setBlockCounters(state);
}

BENCHMARK(BM_BlockCpu)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_BlockCpuThreePhase)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_PeriodValuesCpu)
    ->Unit(benchmark::kMicrosecond)
    ->UseManualTime()
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_FftwAlone)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true);

// Console output as usual, keeping the median real time per iteration of
// every benchmark for the summary.
class MedianReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
                medianSeconds[run.run_name.function_name] =
                    run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
            else if (run.run_type == Run::RT_Iteration && run.repetitions <= 1)
                medianSeconds.emplace(run.run_name.function_name,
                                      run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit));
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> medianSeconds;
};

void printSummary(const std::map<std::string, double>& medians) {
    const double blockSeconds = kBlock / kSampleRate;
    std::printf("\nSummary (medians of %d repetitions):\n", kRepetitions);
    const auto fft = medians.find("BM_FftwAlone");
    if (fft != medians.end())
        std::printf("  FFTW alone (9 x R2C %d, measured plan): %9.1f us per block\n", kFftLength, fft->second * 1e6);
    for (const char* name : {"BM_BlockCpu", "BM_BlockCpuThreePhase", "BM_BlockCuda"}) {
        const auto it = medians.find(name);
        if (it == medians.end()) {
            std::printf("  %-22s not measured (skipped)\n", name);
            continue;
        }
        std::printf("  %-22s %9.1f us per block, %8.1f blocks/s, real-time factor %7.1f", name, it->second * 1e6,
                    1.0 / it->second, blockSeconds / it->second);
        if (fft != medians.end()) std::printf(", block / FFTs alone = %.2f (target <= 1.5)", it->second / fft->second);
        std::printf("\n");
    }
    const auto block = medians.find("BM_BlockCpu"), threePhase = medians.find("BM_BlockCpuThreePhase");
    const auto periods = medians.find("BM_PeriodValuesCpu");
    if (block != medians.end() && threePhase != medians.end())
        std::printf("  symmetrical components and Clarke on: %+.1f %% per block (target <= +10 %%)\n",
                    100.0 * (threePhase->second / block->second - 1.0));
    if (block != medians.end() && periods != medians.end())
        std::printf("  period values of a block: %.1f us, %.1f %% of the block pipeline (target <= 25 %%)\n",
                    periods->second * 1e6, 100.0 * periods->second / block->second);
}

// Ratios from paired rounds: each round times a run of blocks, a run of
// blocks with symmetrical components and Clarke on, and as many FFT batches
// alone, one right after the other, so that all three see the same state of
// a shared machine; the medians of the rounds' ratios are printed with their
// spread.
void printPairedRatios(int rounds, int blocksPerRound) {
    using Clock = std::chrono::steady_clock;
    BlockHarness& plain = harnessFor(BackendKind::Cpu);
    BlockHarness& threePhase = harnessFor(BackendKind::Cpu, Extras::ThreePhase);
    FftwBatch batch;
    auto secondsPer = [blocksPerRound](const std::function<void()>& step) {
        const auto begin = Clock::now();
        for (int k = 0; k < blocksPerRound; ++k) step();
        return std::chrono::duration<double>(Clock::now() - begin).count() / blocksPerRound;
    };
    auto blocksOf = [&secondsPer](BlockHarness& harness) {
        const double seconds = secondsPer([&harness] { harness.step(); });
        harness.drain();
        return seconds;
    };
    std::vector<double> blocks, ffts, blockRatios, extraRatios;
    for (int round = 0; round < rounds; ++round) {
        const double block = blocksOf(plain), extras = blocksOf(threePhase);
        const double fft = secondsPer([&batch] { batch.run(); });
        blocks.push_back(block);
        ffts.push_back(fft);
        blockRatios.push_back(block / fft);
        extraRatios.push_back(extras / block);
    }
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    auto spread = [](const std::vector<double>& v) { return std::minmax_element(v.begin(), v.end()); };
    const auto [lowRatio, highRatio] = spread(blockRatios);
    const auto [lowExtra, highExtra] = spread(extraRatios);
    std::printf("  paired rounds (%d x %d blocks, the same with the three-phase extras, as many FFT batches alone):\n",
                rounds, blocksPerRound);
    std::printf(
        "    block %.1f us, FFTs alone %.1f us (medians); block / FFTs alone = %.2f (median of the rounds;"
        " lowest %.2f, highest %.2f)\n",
        median(blocks) * 1e6, median(ffts) * 1e6, median(blockRatios), *lowRatio, *highRatio);
    std::printf(
        "    symmetrical components and Clarke on: %+.1f %% per block (median of the rounds; lowest %+.1f %%,"
        " highest %+.1f %%)\n",
        100.0 * (median(extraRatios) - 1.0), 100.0 * (*lowExtra - 1.0), 100.0 * (*highExtra - 1.0));
}

// The repetitions of the benchmarks run in random interleaved order unless
// the command line says otherwise, so that a slow spell of a shared machine
// spreads over all of them instead of falling on one.
std::vector<char*> withInterleaving(int argc, char** argv) {
    static char flag[] = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> args(argv, argv + argc);
    bool given = false;
    for (char* arg : args) given = given || std::string(arg).rfind("--benchmark_enable_random_interleaving", 0) == 0;
    if (!given) args.insert(args.begin() + 1, flag);
    args.push_back(nullptr);
    return args;
}

// --paired_rounds=N (default 15; 0 leaves them out), taken off the command line.
int takePairedRounds(int* argc, char** argv) {
    const std::string prefix = "--paired_rounds=";
    int rounds = 15;
    int kept = 1;
    for (int k = 1; k < *argc; ++k) {
        const std::string arg = argv[k];
        if (arg.rfind(prefix, 0) == 0) {
            rounds = std::max(0, std::atoi(arg.c_str() + prefix.size()));
        } else {
            argv[kept++] = argv[k];
        }
    }
    *argc = kept;
    return rounds;
}

}  // namespace

int main(int argc, char** argv) {
    const int pairedRounds = takePairedRounds(&argc, argv);
    std::vector<char*> args = withInterleaving(argc, argv);
    argc = static_cast<int>(args.size()) - 1;
    argv = args.data();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    // The CUDA variant runs once, to report its skip, when there is no device.
    const bool cuda = tarnel::isCudaDeviceAvailable();
    if (!cuda) std::printf("note: no CUDA device available; the CUDA variant is skipped\n");
    auto* cudaBlocks =
        benchmark::RegisterBenchmark("BM_BlockCuda", BM_BlockCuda)->Unit(benchmark::kMicrosecond)->UseRealTime();
    if (cuda) cudaBlocks->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printSummary(reporter.medianSeconds);
    if (pairedRounds > 0) printPairedRatios(pairedRounds, 400);
    benchmark::Shutdown();
    return 0;
}
