// Many modules in one process: 1, 4, 16, 64 and 256 modules of the reference
// configuration (three phases with star voltages and three currents,
// line-to-line results, interharmonics and THD, fs = 51200 Hz, static 50 Hz,
// 10-period blocks of 10240 samples, harmonics up to order 50; CPU backend,
// measured FFTW plans), each driven by a control thread of its own that
// writes, schedules and collects blocks with up to three in flight.
//
// For every module count it prints the aggregate wall time per block (the
// measuring window divided by the blocks all modules completed in it), blocks
// per second, and real-time streams (how many modules of 0.2 s blocks the
// process keeps up with), beside the single-core FFTW floor measured right
// before (the nine 16384-point transforms of a block, FFTW_MEASURE, median of
// single runs). Then the latency of one block of a lone module when its
// caller waits for it. The sweep is repeated and the medians are printed.
//
// On a shared machine the wall time per block follows the processor share
// the process gets from other tenants; the processor time the process spends
// per block does not, so it is printed too, with half of it (the wall time
// two dedicated cores would need) against the floor.
//
//   ./tarnel_module_scaling_benchmark [sweeps [seconds per window [threads (0: as set) [one module count]]]]
#include <fftw3.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "ReferenceModule.h"
#include "tarnel/DeviceBackend.h"
#include "tarnel/PowerModule.h"

using namespace tarnel;

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kSampleRate = bench::kReferenceSampleRate;
constexpr double kFrequency = bench::kReferenceFrequency;
constexpr unsigned kBlock = 10240;           // 10 periods of 50 Hz
constexpr unsigned long long kRing = 51200;  // 1 s: five blocks, a whole number of periods
constexpr double kBlockSeconds = kBlock / kSampleRate;
constexpr int kInFlight = 3;
const std::vector<int> kAllModuleCounts{1, 4, 16, 64, 256};

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

// A module of the reference configuration whose sample ring holds a distorted
// three-phase signal that continues across the ring's end.
class ModuleHarness {
  public:
    ModuleHarness() : module(BackendOptions{BackendKind::Cpu, 0, true}) {
        module.beginUpdate();
        bench::configureReferenceModule(module, kRing);
        module.endUpdate();
        module.reset(0);
        bench::fillReferenceRing(module, kRing);
    }

    // The control thread's loop: write and schedule a block, collect what is
    // ready, wait while more than kInFlight blocks are outstanding.
    void drive(const std::atomic<bool>& stop, std::atomic<long>& collected) {
        lastCollection = Clock::now();
        blockInterval = std::chrono::microseconds(0);
        while (!stop.load(std::memory_order_relaxed)) {
            module.writeSamples(kBlock);
            module.scheduleForCalculation(next, static_cast<int>(kBlock), kFrequency);
            next += kBlock;
            ++inFlight;
            collectWhile([this] { return inFlight > kInFlight; }, collected);
        }
        collectWhile([this] { return inFlight > 0; }, collected);
    }

    // Wall time of one block when the caller waits for it: write, schedule,
    // wait for the device, collect.
    double waitedBlockSeconds() {
        const auto begin = Clock::now();
        module.writeSamples(kBlock);
        module.scheduleForCalculation(next, static_cast<int>(kBlock), kFrequency);
        next += kBlock;
        module.sync();
        const std::vector<PowerResultsGeneral> results = module.getResults(0);
        const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        if (results.size() != 1 || !(results[0].phases[0].rmsU > 200.0)) std::abort();
        return seconds;
    }

  private:
    // Polls for results, sleeping in between: first a quarter of the time the
    // last blocks took to come, at least 200 us, then twice as long each time
    // up to half of it (at least 1.6 ms). A thread per module that polled every
    // 200 us would take the cores from the calculations once hundreds of
    // modules share them and each block of a module takes milliseconds to come.
    template <typename Condition>
    void collectWhile(Condition outstanding, std::atomic<long>& collected) {
        using std::chrono::microseconds;
        auto pause = std::max(microseconds(200), blockInterval / 4);
        for (;;) {
            if (module.isAnyResultReady()) {
                const std::vector<PowerResultsGeneral> results = module.getResults(0);
                for (const PowerResultsGeneral& r : results) {
                    if (!(r.phases[0].rmsU > 200.0)) std::abort();  // a wrong result ends the run
                }
                const auto now = Clock::now();
                const auto interval =
                    std::chrono::duration_cast<microseconds>(now - lastCollection) / static_cast<long>(results.size());
                blockInterval = blockInterval.count() == 0 ? interval : (3 * blockInterval + interval) / 4;
                lastCollection = now;
                inFlight -= static_cast<int>(results.size());
                collected.fetch_add(static_cast<long>(results.size()), std::memory_order_relaxed);
                own.fetch_add(static_cast<long>(results.size()), std::memory_order_relaxed);
                pause = std::max(microseconds(200), blockInterval / 4);
                continue;
            }
            if (!outstanding()) return;
            std::this_thread::sleep_for(pause);
            pause = std::min(pause * 2, std::max(microseconds(1600), blockInterval / 2));
        }
    }

    PowerModule module;
    unsigned long long next = 0;
    int inFlight = 0;

  public:
    std::atomic<long> own{0};  // blocks this module has collected

  private:
    Clock::time_point lastCollection;
    std::chrono::microseconds blockInterval{0};  // between this module's results, smoothed
};

// The single-core FFTW floor, as fft_floor.c of the shared benchmarks measures
// it: 9 x real-to-complex 16384, FFTW_MEASURE, median of single executions
// (first), and the mean of the same executions back to back (second), which a
// loaded machine slows as it slows the modules' throughput.
std::pair<double, double> fftFloorSeconds(int repetitions) {
    int n = 16384;
    const int batch = 9;
    float* in = fftwf_alloc_real(static_cast<size_t>(n) * batch);
    fftwf_complex* out = fftwf_alloc_complex(static_cast<size_t>(n / 2 + 1) * batch);
    fftwf_plan plan =
        fftwf_plan_many_dft_r2c(1, &n, batch, in, nullptr, 1, n, out, nullptr, 1, n / 2 + 1, FFTW_MEASURE);
    for (int i = 0; i < n * batch; i++) in[i] = static_cast<float>((i * 7919) % 1000) / 1000.0f;
    std::vector<double> times;
    const auto start = Clock::now();
    for (int r = 0; r < repetitions; ++r) {
        const auto begin = Clock::now();
        fftwf_execute(plan);
        times.push_back(std::chrono::duration<double>(Clock::now() - begin).count());
    }
    const double mean = std::chrono::duration<double>(Clock::now() - start).count() / repetitions;
    fftwf_destroy_plan(plan);
    fftwf_free(in);
    fftwf_free(out);
    return {median(times), mean};
}

// Processor time of the whole process (every thread, user and system) so far.
double processorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Throughput {
    double wallPerBlock;       // seconds of the window per block completed
    double processorPerBlock;  // processor seconds of the process per block
    double fewestToMost;       // blocks of the slowest module / blocks of the fastest, in the window
};

// Aggregate cost per block of `modules` modules, each on a control thread of
// its own, over a window of `seconds` after a warm-up in which every module
// has computed at least eight blocks (its memory is touched, its polling pace
// settled).
Throughput aggregateCostPerBlock(std::vector<std::unique_ptr<ModuleHarness>>& modules, double seconds) {
    std::atomic<bool> stop{false};
    std::atomic<long> collected{0};
    std::vector<std::thread> controls;
    for (auto& module : modules) controls.emplace_back([&] { module->drive(stop, collected); });
    const auto warmUpEnd = Clock::now() + std::chrono::milliseconds(500);
    auto slowest = [&modules] {
        long fewest = -1;
        for (auto& m : modules) fewest = fewest < 0 ? m->own.load() : std::min(fewest, m->own.load());
        return fewest;
    };
    while (Clock::now() < warmUpEnd || slowest() < 8) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::vector<long> ownBefore;
    for (auto& m : modules) ownBefore.push_back(m->own.load());
    const long before = collected.load();
    const auto begin = Clock::now();
    const double processorBefore = processorSeconds();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const double blocks = static_cast<double>(std::max(collected.load() - before, 1l));
    const double window = std::chrono::duration<double>(Clock::now() - begin).count();
    const double processor = processorSeconds() - processorBefore;
    long fewest = -1, most = 0;
    for (size_t m = 0; m < modules.size(); ++m) {
        const long own = modules[m]->own.load() - ownBefore[m];
        fewest = fewest < 0 ? own : std::min(fewest, own);
        most = std::max(most, own);
    }
    stop = true;
    for (auto& control : controls) control.join();
    return {window / blocks, processor / blocks, most > 0 ? static_cast<double>(fewest) / most : 0.0};
}

}  // namespace

int main(int argc, char** argv) {
    const int sweeps = argc > 1 ? std::atoi(argv[1]) : 3;
    const double seconds = argc > 2 ? std::atof(argv[2]) : 3.0;
    if (argc > 3 && std::atoi(argv[3]) > 0) tarnel::setCpuWorkerThreadCount(std::atoi(argv[3]));
    const std::vector<int> kModuleCounts = argc > 4 ? std::vector<int>{std::atoi(argv[4])} : kAllModuleCounts;
    std::printf("CPU worker threads: %d; %d sweeps, %.1f s per window\n", tarnel::cpuWorkerThreadCount(), sweeps,
                seconds);
    std::vector<std::unique_ptr<ModuleHarness>> modules;
    std::map<int, std::vector<double>> perBlock, processorPerBlock, floorBeside, floorMean;
    std::vector<double> latency;
    for (int sweep = 0; sweep < sweeps; ++sweep) {
        for (int count : kModuleCounts) {
            while (static_cast<int>(modules.size()) < count) modules.push_back(std::make_unique<ModuleHarness>());
            std::vector<std::unique_ptr<ModuleHarness>> used(count);
            std::move(modules.begin(), modules.begin() + count, used.begin());
            const auto floor = fftFloorSeconds(400);
            floorBeside[count].push_back(floor.first);
            floorMean[count].push_back(floor.second);
            const Throughput cost = aggregateCostPerBlock(used, seconds);
            perBlock[count].push_back(cost.wallPerBlock);
            processorPerBlock[count].push_back(cost.processorPerBlock);
            std::move(used.begin(), used.end(), modules.begin());
            const double block = perBlock[count].back(), fft = floorBeside[count].back();
            std::printf(
                "sweep %d, %3d modules: %7.1f us per block (aggregate), processor %7.1f us per block, FFTW floor"
                " %6.1f us (back to back %6.1f us), ratio %.2f; blocks of the slowest / fastest module %.2f\n",
                sweep + 1, count, block * 1e6, processorPerBlock[count].back() * 1e6, fft * 1e6,
                floorMean[count].back() * 1e6, block / fft, cost.fewestToMost);
            std::fflush(stdout);
        }
        for (int k = 0; k < 200; ++k) latency.push_back(modules[0]->waitedBlockSeconds());
    }
    std::printf("\nMedians of %d sweeps:\n", sweeps);
    std::printf("%8s %10s %10s %10s %12s %12s %12s %9s\n", "modules", "us/block", "blocks/s", "real-time", "FFTW floor",
                "back to back", "block/floor", "vs best");
    double best = 1e9;
    for (int count : kModuleCounts) best = std::min(best, median(perBlock[count]));
    for (int count : kModuleCounts) {
        const double block = median(perBlock[count]), fft = median(floorBeside[count]);
        const double processor = median(processorPerBlock[count]);
        std::printf("%8d %10.1f %10.1f %10.1f %9.1f us %9.1f us %12.2f %+7.1f %% %14.1f %12.2f\n", count, block * 1e6,
                    1.0 / block, kBlockSeconds / block, fft * 1e6, median(floorMean[count]) * 1e6, block / fft,
                    100.0 * (block / best - 1.0), processor * 1e6, processor / 2.0 / fft);
    }
    std::printf("one module, caller waiting for each block: %.1f us (median of %zu)\n", median(latency) * 1e6,
                latency.size());
    return 0;
}
