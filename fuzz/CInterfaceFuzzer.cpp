// Drives the flat C interface with call sequences decoded from the fuzz input,
// as an embedding application might: settings in any order and with any
// value (NaN, infinities, zero, negative, huge), updates left open, samples
// written and skipped, blocks and period values scheduled over any range,
// results collected with any capacity, null handles and null output pointers.
//
// Every input gets a fresh CPU module whose device memory is capped, so that
// hostile buffer lengths fail as allocations instead of exhausting the
// machine, and whose worker threads end with it. A sequence holds at most
// kMaxCalls calls and at most kMaxFill samples per channel are written per
// call, so one input runs in milliseconds.
//
// Besides the sanitizers, the harness checks what the interface promises:
// a null handle or a null output pointer gives status 1, status 3 reaches the
// reporter, a call that fails leaves its message with the module and the
// thread, getResults never delivers more records than asked for, and a
// module that went through any sequence still computes a correct block once
// it is configured again.
//
// With TARNEL_FUZZ_TRACE set in the environment the harness prints each
// decoded step and the status of each checked call, to read a crashing input.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <vector>

#include "FuzzInput.h"
#include "tarnel/tarnel.h"

using namespace tarnel;

namespace {

using tarnel::fuzz::FuzzInput;

constexpr int kMaxCalls = 48;
constexpr unsigned kMaxFill = 1u << 16;
constexpr unsigned long long kDeviceMemory = 256ull << 20;
constexpr int kResultRoom = 8;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kMaxDouble = std::numeric_limits<double>::max();

// The module of the running input, for the message of a broken promise.
PowerModuleHandle currentModule = nullptr;

const bool tracing = std::getenv("TARNEL_FUZZ_TRACE") != nullptr;

[[noreturn]] void fail(const char* what, int status) {
    std::fprintf(stderr, "C interface broke its promise: %s (status %d)\n", what, status);
    char text[512] = "";
    if (powerModule_getLastErrorMessage(currentModule, text, sizeof text) == TARNEL_SUCCESS)
        std::fprintf(stderr, "last error message: %s\n", text);
    std::abort();
}

// --- The settings, as tables of C functions --------------------------------

struct BoolSetting {
    int (*set)(PowerModuleHandle, bool);
    int (*get)(PowerModuleHandle, bool*);
};
const BoolSetting kBoolSettings[] = {
    {setClarkeOrParkCurrentsEnabled, getClarkeOrParkCurrentsEnabled},
    {setClarkeOrParkVoltagesEnabled, getClarkeOrParkVoltagesEnabled},
    {setClarkeOrParkWaveformsEnabled, getClarkeOrParkWaveformsEnabled},
    {setClarkeTransformEnabled, getClarkeTransformEnabled},
    {setCurrentEnabled, getCurrentEnabled},
    {setDipSwellEnabled, getDipSwellEnabled},
    {setFullFftEnabled, getFullFftEnabled},
    {setFundamentalPeriodValuesEnabled, getFundamentalPeriodValuesEnabled},
    {setInterHarmonicsEnabled, getInterHarmonicsEnabled},
    {setLineToLineResultsEnabled, getLineToLineResultsEnabled},
    {setMechanicalAngleUsed, getMechanicalAngleUsed},
    {setParkTransformEnabled, getParkTransformEnabled},
    {setPeriodSymmetricalComponentsEnabled, getPeriodSymmetricalComponentsEnabled},
    {setPeriodValuesEnabled, getPeriodValuesEnabled},
    {setRvcEnabled, getRvcEnabled},
    {setSymmetricalComponentsEnabled, getSymmetricalComponentsEnabled},
    {setThdEnabled, getThdEnabled},
    {setWaveformsEnabled, getWaveformsEnabled},
};

struct DoubleSetting {
    int (*set)(PowerModuleHandle, double);
    int (*get)(PowerModuleHandle, double*);
};
const DoubleSetting kDoubleSettings[] = {
    {setDipHysteresis, getDipHysteresis},
    {setDipThreshold, getDipThreshold},
    {setSwellHysteresis, getSwellHysteresis},
    {setSwellThreshold, getSwellThreshold},
    {setNominalVoltage, getNominalVoltage},
    {setNominalLineToLineVoltage, getNominalLineToLineVoltage},
    {setMechAngleOffset, getMechAngleOffset},
    {setRvcThresholdInPercentOfAverage, getRvcThresholdInPercentOfAverage},
    {setRvcThresholdHysteresisInPercentOfThreshold, getRvcThresholdHysteresisInPercentOfThreshold},
};

struct IntSetting {
    int (*set)(PowerModuleHandle, int);
    int (*get)(PowerModuleHandle, int*);  // null: the interface has no getter
};
const IntSetting kIntSettings[] = {
    {setHighestRequestedHarmonic, getHighestRequestedHarmonic},
    {setThdHighestHarmonic, getThdHighestHarmonic},
    {setPolePairs, getPolePairs},
    {setRvcSteadyStateLengthInNumberOfPeriodValues, getRvcSteadyStateLengthInNumberOfPeriodValues},
    {setGridConfigType, nullptr},
};

struct UShortSetting {
    int (*set)(PowerModuleHandle, unsigned short);
    int (*get)(PowerModuleHandle, unsigned short*);
};
const UShortSetting kUShortSettings[] = {
    {setHalfPeriodValuesCount, getHalfPeriodValuesCount},
    {setPeriodValuesOverlapInPercent, getPeriodValuesOverlapInPercent},
    {setPeriodCount, nullptr},
};

int (*const kCountGetters[])(PowerModuleHandle, unsigned char*) = {getPhasesCount, getVoltagesCount, getCurrentsCount};

int (*const kWaveformGetters[])(PowerModuleHandle, unsigned char, float**) = {
    getWaveformBufferUInput,  getWaveformBufferUStar,   getWaveformBufferUDelta, getWaveformBufferI,
    getWaveformBufferClarkeU, getWaveformBufferClarkeI, getWaveformBufferParkU,  getWaveformBufferParkI,
};

// --- Values worth trying ---------------------------------------------------

const double kDoubles[] = {0.0,   -0.0, 1.0, -1.0,   2.0,   50.0, 85.0, 100.0, 110.0,      230.0,
                           400.0, 1e-9, 1e9, 1e-300, 1e300, kNaN, kInf, -kInf, kMaxDouble, -230.0};
const int kInts[] = {0, 1, 2, 3, 5, 7, 8, 40, 50, 63, 100, 511, -1, -5, INT_MAX, INT_MIN};
const unsigned short kUShorts[] = {0, 1, 2, 3, 10, 20, 50, 99, 100, 101, 1000, 65535};
// 8 000 000 samples exceed the module's device memory; INT_MAX would too, but
// the sanitizer's bookkeeping of its host rings alone exceeds a fuzz run's memory.
const int kBufferLengths[] = {20480, 10240, 4096, 2048, 65536, 1000, 64, 1, 0, 2048000, -1, -2048, 8000000, INT_MIN};
const double kSampleRates[] = {10240.0, 51200.0, 12800.0, 4000.0, 1.0, 0.0, -10240.0, 1e-300, 1e12, kNaN, kInf};
const int kDividers[] = {1, 1, 2, 4, 0, -1, INT_MAX, INT_MIN};
const double kFrequencies[] = {50.0, 60.0, 49.95, 16.7, 25.0, 400.0, 0.0,  -50.0, 1e-9,
                               1e5,  1e6,  1e9,   kNaN, kInf, -kInf, 5120, 1e300};
const double kTolerances[] = {0.1, 0.001, 0.5, 0.0, -1.0, 2.0, kNaN, kInf};
const int kBlockLengths[] = {2048, 1024, 512, 4096, 10240, 8192, 20480, 1, 0, -1, INT_MAX, INT_MIN};
const unsigned kCounts[] = {2048, 1024, 512, 1, 0, 4096, 20480, 65536, 3000000, UINT_MAX};
const int kResultCapacities[] = {1, 2, 4, kResultRoom, 0, -1, INT_MIN};
const int kPeriodCounts[] = {1, 2, 4, 8, 0, -1};
const unsigned char kChannels[] = {0, 1, 2, 3, 255};
const float kAmplitudes[] = {325.0f,
                             0.0f,
                             1.0f,
                             1e30f,
                             -1e-40f,
                             std::numeric_limits<float>::quiet_NaN(),
                             std::numeric_limits<float>::infinity()};

// --- The reporter ----------------------------------------------------------

unsigned long reports = 0;

void reporter(int code, const char* message) {
    if (code != 1 || message == nullptr) fail("reporter called without code 1 and a message", code);
    reports += std::strlen(message) > 0 ? 1 : 0;
}

// --- One session -----------------------------------------------------------

class Session {
  public:
    Session(PowerModuleHandle handle, FuzzInput& input) : module(handle), in(input) {}

    void run() {
        const bool typical = in.flag(), threePhases = in.flag();
        if (typical) configureTypical(threePhases);
        for (int call = 0; call < kMaxCalls && !in.empty(); ++call) step(in.byte());
        closeUpdates();
        checkStillComputes();
    }

  private:
    // A module as most callers set it up, so that sequences start deep enough.
    void configureTypical(bool threePhases) {
        beginUpdate(module);
        setGridConfigType(module, threePhases ? 1 : 0);
        setSampleRate(module, 10240.0, 1);
        setBufferLength(module, 20480);
        setStaticFrequency(module, 50.0, 0.1);
        if (endUpdate(module) == TARNEL_SUCCESS) ring = 20480;
        reset(module, 0);
        nextSample = 0;
    }

    void step(uint8_t op) {
        static const char* const kNames[] = {"bool setting",
                                             "double setting",
                                             "int setting",
                                             "unsigned short setting",
                                             "channel counts",
                                             "buffer length",
                                             "sample rate",
                                             "frequency",
                                             "beginUpdate",
                                             "endUpdate",
                                             "reset",
                                             "write samples",
                                             "write samples",
                                             "skip samples",
                                             "schedule block",
                                             "schedule block",
                                             "isAnyResultReady",
                                             "getResults",
                                             "getResults",
                                             "period blocks",
                                             "zero crossings",
                                             "getPeriodResults",
                                             "waveform buffer",
                                             "syncCuda",
                                             "null handle",
                                             "reporter and messages"};
        if (tracing) std::fprintf(stderr, "step %s\n", kNames[op % 26]);
        switch (op % 26) {
            case 0:
                return boolSetting();
            case 1:
                return doubleSetting();
            case 2:
                return intSetting();
            case 3:
                return ushortSetting();
            case 4:
                return channelCounts();
            case 5:
                return bufferLength();
            case 6:
                return sampleRateSetting();
            case 7:
                return frequencySetting();
            case 8:
                return begin();
            case 9:
                return end();
            case 10:
                return resetModule();
            case 11:
            case 12:
                return writeSamplesOp();
            case 13:
                return skipSamplesOp();
            case 14:
            case 15:
                return scheduleBlock();
            case 16:
                return resultReady();
            case 17:
            case 18:
                return collectResults();
            case 19:
                return schedulePeriodBlocks();
            case 20:
                return schedulePeriodZeroCrossings();
            case 21:
                return collectPeriodResults();
            case 22:
                return waveformBuffer();
            case 23:
                return sync();
            case 24:
                return nullHandle();
            default:
                return reporterAndMessages();
        }
    }

    void afterCall(int status) {
        if (tracing) std::fprintf(stderr, "  status %d\n", status);
        if (status == TARNEL_GPU_ERROR && reporterRegistered && reports == reportsBefore)
            fail("status 3 without a report", status);
        reportsBefore = reports;
        if (status != TARNEL_SUCCESS) expectReason(status);
    }

    // A null output pointer must be refused with status 1.
    template <typename T>
    T* maybeNull(T* out, bool& isNull) {
        isNull = (in.byte() % 8) == 0;
        return isNull ? nullptr : out;
    }

    // A call that did not succeed leaves its reason with the module and the thread.
    void expectReason(int status) {
        char text[256] = "";
        if (powerModule_getLastErrorMessage(module, text, sizeof text) != TARNEL_SUCCESS || text[0] == '\0')
            fail("a failed call left no message with its module", status);
        char threadText[256] = "";
        if (powerModule_getThreadLastErrorMessage(threadText, sizeof threadText) != TARNEL_SUCCESS ||
            std::strcmp(text, threadText) != 0)
            fail("the thread's last message differs from the module's", status);
    }

    static void expectRefused(bool refused, int status, const char* what) {
        if (refused && status != TARNEL_ERROR) fail(what, status);
    }

    void boolSetting() {
        const size_t index = in.byte() % (sizeof kBoolSettings / sizeof kBoolSettings[0]);
        const bool value = in.flag();
        afterCall(kBoolSettings[index].set(module, value));
        bool out = false, isNull = false;
        const int status = kBoolSettings[index].get(module, maybeNull(&out, isNull));
        expectRefused(isNull, status, "bool getter with a null output");
    }

    void doubleSetting() {
        const size_t index = in.byte() % (sizeof kDoubleSettings / sizeof kDoubleSettings[0]);
        const double value = in.flag() ? in.pick(kDoubles) : in.anyDouble();
        afterCall(kDoubleSettings[index].set(module, value));
        double out = 0.0;
        bool isNull = false;
        const int status = kDoubleSettings[index].get(module, maybeNull(&out, isNull));
        expectRefused(isNull, status, "double getter with a null output");
    }

    void intSetting() {
        const size_t index = in.byte() % (sizeof kIntSettings / sizeof kIntSettings[0]);
        const int value = in.pick(kInts);
        const int status = kIntSettings[index].set(module, value);
        afterCall(status);
        if (kIntSettings[index].get == nullptr) return;
        int out = 0;
        bool isNull = false;
        const int got = kIntSettings[index].get(module, maybeNull(&out, isNull));
        expectRefused(isNull, got, "int getter with a null output");
    }

    void ushortSetting() {
        const size_t index = in.byte() % (sizeof kUShortSettings / sizeof kUShortSettings[0]);
        const unsigned short value = in.pick(kUShorts);
        afterCall(kUShortSettings[index].set(module, value));
        if (kUShortSettings[index].get == nullptr) return;
        unsigned short out = 0;
        bool isNull = false;
        const int status = kUShortSettings[index].get(module, maybeNull(&out, isNull));
        expectRefused(isNull, status, "unsigned short getter with a null output");
    }

    void channelCounts() {
        unsigned char out = 0;
        bool isNull = false;
        const int status = in.pick(kCountGetters)(module, maybeNull(&out, isNull));
        expectRefused(isNull, status, "channel count getter with a null output");
    }

    // The ring length a successful setting gives; inside an update it takes
    // effect with the update.
    void bufferLength() {
        const int length = in.pick(kBufferLengths);
        const int status = setBufferLength(module, length);
        if (status == TARNEL_SUCCESS) {
            if (openUpdates > 0)
                pendingRing = length;
            else
                ring = length;
        }
        afterCall(status);
    }

    void sampleRateSetting() {
        const double rate = in.flag() ? in.pick(kSampleRates) : in.anyDouble();
        const int divider = in.pick(kDividers);
        afterCall(setSampleRate(module, rate, divider));
    }

    void frequencySetting() {
        const bool variable = in.flag();
        const double a = in.pick(kFrequencies);
        const double b = variable ? in.pick(kFrequencies) : in.pick(kTolerances);
        afterCall(variable ? setVariableFrequency(module, a, b) : setStaticFrequency(module, a, b));
    }

    void begin() {
        if (openUpdates >= 4) return;
        const int status = beginUpdate(module);
        if (status == TARNEL_SUCCESS) ++openUpdates;
        afterCall(status);
    }

    void end() {
        const int status = endUpdate(module);
        if (openUpdates > 0 && --openUpdates == 0) {
            // The settings of the update count only when the rebuild succeeded.
            if (status == TARNEL_SUCCESS && pendingRing) ring = *pendingRing;
            pendingRing.reset();
        }
        afterCall(status);
    }

    void closeUpdates() {
        while (openUpdates > 0) end();
    }

    void resetModule() {
        static const unsigned long long kFirst[] = {0, 1, 123456789, 1ull << 63, ULLONG_MAX - 4095, ULLONG_MAX};
        const unsigned long long first = in.flag() ? in.pick(kFirst) : in.u64();
        const int status = reset(module, first);
        if (status == TARNEL_SUCCESS) nextSample = first;
        afterCall(status);
    }

    // Writes a sine into every input ring the module hands out, then
    // announces the samples.
    void writeSamplesOp() {
        const unsigned count = in.pick(kCounts);
        const float amplitude = in.pick(kAmplitudes);
        fillInputs(count, amplitude);
        const int status = writeSamples(module, count);
        if (status == TARNEL_SUCCESS) nextSample += count;
        afterCall(status);
    }

    void fillInputs(unsigned count, float amplitude) {
        if (ring <= 0) return;
        const unsigned long long length = static_cast<unsigned long long>(ring);
        const unsigned long long fill = std::min<unsigned long long>({count, length, kMaxFill});
        for (unsigned char channel = 0; channel < 7; ++channel) {
            float* buffer = nullptr;
            const int status = channel < 3 ? getWaveformBufferUInput(module, channel, &buffer)
                               : channel < 6
                                   ? getWaveformBufferI(module, static_cast<unsigned char>(channel - 3), &buffer)
                                   : getWaveformBufferMechAngles(module, &buffer);
            if (status != TARNEL_SUCCESS || buffer == nullptr) continue;
            for (unsigned long long k = 0; k < fill; ++k) {
                const unsigned long long sample = nextSample + k;
                const double phase = 2.0 * 3.141592653589793 * static_cast<double>(sample % 10240) * 50.0 / 10240.0;
                buffer[sample % length] = amplitude * static_cast<float>(std::sin(phase + channel * 2.0943951));
            }
        }
    }

    void skipSamplesOp() {
        const unsigned count = in.pick(kCounts);
        const int status = skipSamples(module, count);
        if (status == TARNEL_SUCCESS) nextSample += count;
        afterCall(status);
    }

    // Where a request starts: at or just before the samples written last, or anywhere.
    unsigned long long blockStart(long long length) {
        const unsigned long long span = length > 0 ? static_cast<unsigned long long>(length) : 0;
        switch (in.byte() % 6) {
            case 0:
                return nextSample - span;
            case 1:
                return nextSample - 2 * span;
            case 2:
                return nextSample;
            case 3:
                return in.u64();
            case 4:
                return ULLONG_MAX;
            default:
                return 0;
        }
    }

    void scheduleBlock() {
        const int length = in.pick(kBlockLengths);
        const unsigned long long first = blockStart(length);
        const double frequency = in.flag() ? in.pick(kFrequencies) : in.anyDouble();
        afterCall(scheduleForCalculation(module, first, length, frequency));
    }

    void resultReady() {
        bool ready = false, isNull = false;
        const int status = isAnyResultReady(module, maybeNull(&ready, isNull));
        expectRefused(isNull, status, "isAnyResultReady with a null output");
    }

    void collectResults() {
        const int capacity = in.pick(kResultCapacities);
        static PowerResultsGeneral results[kResultRoom + 1];
        const uint64_t guard = 0x5a5a5a5a5a5a5a5aull;
        std::memcpy(&results[kResultRoom], &guard, sizeof guard);
        int count = -7;
        bool countNull = false, resultsNull = false;
        int* countOut = maybeNull(&count, countNull);
        PowerResultsGeneral* resultsOut = maybeNull(results, resultsNull);
        const int status = getResults(module, capacity, countOut, resultsOut);
        if (tracing) std::fprintf(stderr, "  status %d, %d results\n", status, count);
        expectRefused(capacity < 0, status, "getResults with a negative capacity");
        expectRefused(countNull || (resultsNull && capacity > 0), status, "getResults with a null output");
        if (status == TARNEL_SUCCESS && (count < 0 || count > std::max(capacity, 0)))
            fail("getResults delivered more records than asked for", count);
        if (std::memcmp(&results[kResultRoom], &guard, sizeof guard) != 0)
            fail("getResults wrote past the caller's array", status);
        for (int r = 0; status == TARNEL_SUCCESS && r < count; ++r) readResult(results[r]);
    }

    // Reads through the host pointers a record carries, as a caller would.
    static void readResult(const PowerResultsGeneral& result) {
        volatile float sink = 0.0f;
        for (int p = 0; p < 4; ++p) {
            const PowerResultsPhase& phase = result.phases[p];
            if (phase.harmonicsU != nullptr && result.harmonicLength > 0)
                sink = sink + phase.harmonicsU[0] + phase.harmonicsU[result.harmonicLength - 1];
            if (phase.fftU != nullptr && result.fftOutputLength > 0)
                sink = sink + phase.fftU[result.fftOutputLength - 1].x;
        }
    }

    void schedulePeriodBlocks() {
        const int count = in.pick(kPeriodCounts);
        const size_t n = count > 0 ? static_cast<size_t>(count) : 0;
        std::vector<unsigned long long> firstSamples(n + 1);
        std::vector<int> lengths(n + 1);
        std::vector<double> frequencies(n + 1);
        bool valid[16] = {};
        const int length = in.pick(kBlockLengths);
        unsigned long long first = blockStart(static_cast<long long>(length) * count);
        for (size_t k = 0; k < n; ++k) {
            firstSamples[k] = first;
            lengths[k] = length;
            frequencies[k] = in.flag() ? in.pick(kFrequencies) : 50.0;
            valid[k] = in.flag();
            first += static_cast<unsigned long long>(static_cast<long long>(length));
        }
        afterCall(scheduleForPeriodCalculation(module, count, firstSamples.data(), lengths.data(), frequencies.data(),
                                               valid));
    }

    void schedulePeriodZeroCrossings() {
        const int count = in.pick(kPeriodCounts);
        std::vector<ZeroCrossingInterval> intervals(count > 0 ? static_cast<size_t>(count) : 1);
        const double samplesPerPeriod = in.flag() ? 204.8 : in.pick(kDoubles);
        double position = static_cast<double>(in.byte()) * 16.0;
        unsigned long long base = blockStart(4096);
        for (ZeroCrossingInterval& interval : intervals) {
            interval.start.index = base + static_cast<unsigned long long>(position);
            interval.start.fraction = position - std::floor(position);
            position += std::isfinite(samplesPerPeriod) ? std::fabs(std::fmod(samplesPerPeriod, 1e6)) : 1.0;
            interval.end.index = base + static_cast<unsigned long long>(position);
            interval.end.fraction = in.flag() ? in.pick(kDoubles) : position - std::floor(position);
            interval.frequency = in.flag() ? 50.0 : in.pick(kFrequencies);
            interval.valid = in.flag();
        }
        afterCall(scheduleForPeriodCalculationFromZeroCrossing(module, count, intervals.data()));
    }

    void collectPeriodResults() {
        int count = -7;
        bool more = false, countNull = false, moreNull = false, resultsNull = false;
        PowerResultsPeriod* results = nullptr;
        int* countOut = maybeNull(&count, countNull);
        bool* moreOut = maybeNull(&more, moreNull);
        PowerResultsPeriod** resultsOut = maybeNull(&results, resultsNull);
        const int status = getPeriodResults(module, countOut, moreOut, resultsOut);
        if (tracing) std::fprintf(stderr, "  status %d, %d values\n", status, count);
        expectRefused(countNull || moreNull || resultsNull, status, "getPeriodResults with a null output");
        if (status != TARNEL_SUCCESS || count <= 0 || results == nullptr) return;
        unsigned char phases = 1;
        if (getPhasesCount(module, &phases) != TARNEL_SUCCESS) return;
        // Every record handed out must be readable.
        volatile double sink = 0.0;
        const size_t records = static_cast<size_t>(count) * (phases + 1u);
        for (size_t r = 0; r < records; ++r) sink = sink + results[r].rmsU;
    }

    void waveformBuffer() {
        const size_t kind = in.byte() % 9;
        const unsigned char channel = in.pick(kChannels);
        float* buffer = nullptr;
        bool isNull = false;
        float** out = maybeNull(&buffer, isNull);
        const int status =
            kind == 8 ? getWaveformBufferMechAngles(module, out) : kWaveformGetters[kind](module, channel, out);
        expectRefused(isNull, status, "waveform buffer getter with a null output");
        if (status == TARNEL_SUCCESS && buffer != nullptr && ring > 0) {
            volatile float sink = buffer[0] + buffer[ring - 1];
            (void)sink;
        }
    }

    void sync() { afterCall(syncCuda(module)); }

    // Every function given a null handle must refuse it with status 1.
    void nullHandle() {
        bool flagOut = false;
        double doubleOut = 0.0;
        int count = 0;
        float* buffer = nullptr;
        PowerResultsGeneral result[1];
        int status = TARNEL_ERROR;
        switch (in.byte() % 12) {
            case 0:
                status = setThdEnabled(nullptr, true);
                break;
            case 1:
                status = getThdEnabled(nullptr, &flagOut);
                break;
            case 2:
                status = getNominalVoltage(nullptr, &doubleOut);
                break;
            case 3:
                status = setSampleRate(nullptr, 10240.0, 1);
                break;
            case 4:
                status = beginUpdate(nullptr);
                break;
            case 5:
                status = endUpdate(nullptr);
                break;
            case 6:
                status = reset(nullptr, 0);
                break;
            case 7:
                status = writeSamples(nullptr, 1);
                break;
            case 8:
                status = scheduleForCalculation(nullptr, 0, 2048, 50.0);
                break;
            case 9:
                status = getResults(nullptr, 1, &count, result);
                break;
            case 10:
                status = getWaveformBufferUInput(nullptr, 0, &buffer);
                break;
            default:
                status = syncCuda(nullptr);
                break;
        }
        expectRefused(true, status, "a call with a null handle");
        if (powerModule_destroy(nullptr) != TARNEL_SUCCESS) fail("powerModule_destroy(NULL)", 1);
    }

    void reporterAndMessages() {
        reporterRegistered = in.flag();
        registerErrorReporter(reporterRegistered ? reporter : nullptr);
        reportsBefore = reports;
        static const int kSizes[] = {256, 1, 2, 16, 0, -1, INT_MIN};
        char text[257];
        std::memset(text, 'x', sizeof text);
        const int size = in.pick(kSizes);
        const bool nullBuffer = in.byte() % 8 == 0;
        const bool nullModule = in.byte() % 8 == 0;
        const bool perThread = in.flag();
        char* buffer = nullBuffer ? nullptr : text;
        const int status = perThread ? powerModule_getThreadLastErrorMessage(buffer, size)
                                     : powerModule_getLastErrorMessage(nullModule ? nullptr : module, buffer, size);
        expectRefused((nullModule && !perThread) || nullBuffer || size < 1, status,
                      "getLastErrorMessage without a target");
        if (status == TARNEL_SUCCESS && size > 0 && std::memchr(text, '\0', static_cast<size_t>(size)) == nullptr)
            fail("getLastErrorMessage left the text unterminated", status);
    }

    // Whatever came before, a module configured afresh computes a correct block.
    void checkStillComputes() {
        beginUpdate(module);
        setGridConfigType(module, 0);
        setSampleRate(module, 10240.0, 1);
        setBufferLength(module, 20480);
        setStaticFrequency(module, 50.0, 0.1);
        setPeriodCount(module, 10);
        setHighestRequestedHarmonic(module, 1);
        setThdHighestHarmonic(module, 40);
        // A combination of the earlier settings may be refused with a reason.
        if (endUpdate(module) != TARNEL_SUCCESS) return;
        ring = 20480;
        int status = reset(module, 0);
        if (status != TARNEL_SUCCESS) fail("reset after a successful configuration", status);
        nextSample = 0;
        float* u = nullptr;
        status = getWaveformBufferUInput(module, 0, &u);
        if (status != TARNEL_SUCCESS || u == nullptr) fail("no voltage ring after a successful configuration", status);
        for (int k = 0; k < 2048; ++k)
            u[k] = static_cast<float>(325.26911934581187 * std::sin(2.0 * 3.141592653589793 * 50.0 * k / 10240.0));
        if ((status = writeSamples(module, 2048)) != TARNEL_SUCCESS) fail("writeSamples after configuration", status);
        if ((status = scheduleForCalculation(module, 0, 2048, 50.0)) != TARNEL_SUCCESS)
            fail("scheduling a written block after configuration", status);
        if ((status = syncCuda(module)) != TARNEL_SUCCESS) fail("syncCuda after configuration", status);
        PowerResultsGeneral results[2];
        int count = 0;
        if ((status = getResults(module, 2, &count, results)) != TARNEL_SUCCESS || count != 1)
            fail("collecting the one block after configuration", status);
        // 230 V RMS over exactly ten periods.
        if (!(std::fabs(results[0].phases[0].rmsU - 230.0) < 0.01)) {
            std::fprintf(stderr, "rmsU = %.9g\n", results[0].phases[0].rmsU);
            fail("wrong RMS value from a module configured afresh", 0);
        }
    }

    PowerModuleHandle module;
    FuzzInput& in;
    long long ring = 0;  // samples per ring, as the last successful rebuild made it
    std::optional<long long> pendingRing;
    unsigned long long nextSample = 0;
    int openUpdates = 0;
    bool reporterRegistered = false;
    unsigned long reportsBefore = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    registerErrorReporter(nullptr);
    reports = 0;
    PowerModuleHandle module = powerModule_createCpuWithMemoryCapacity(kDeviceMemory);
    if (module == nullptr) fail("powerModule_createCpuWithMemoryCapacity", 0);
    currentModule = module;
    Session(module, in).run();
    if (powerModule_destroy(module) != TARNEL_SUCCESS) fail("powerModule_destroy", 1);
    return 0;
}
