// Misuse of the C interface as an embedding application might commit it: each
// call of the table, made on a freshly configured module, must give its status
// and a message that names the cause, and leave a module that still computes
// a correct block.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "tarnel/tarnel.h"

using namespace tarnel;

namespace {

constexpr double kRate = 10240.0;
constexpr int kRing = 20480;
constexpr int kBlock = 2048;  // ten periods at 50 Hz
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kPi = 3.141592653589793;

// A configured three-phase module and the next sample index to write.
struct Session {
    PowerModuleHandle handle = powerModule_createWithBackend(TARNEL_BACKEND_CPU);
    unsigned long long next = 0;

    Session() {
        beginUpdate(handle);
        setGridConfigType(handle, 1);
        setSampleRate(handle, kRate, 1);
        setBufferLength(handle, kRing);
        setStaticFrequency(handle, 50.0, 0.1);
        EXPECT_EQ(endUpdate(handle), TARNEL_SUCCESS);
        EXPECT_EQ(reset(handle, 0), TARNEL_SUCCESS);
    }
    // Takes over a module configured by the caller.
    explicit Session(PowerModuleHandle configured) : handle(configured) { EXPECT_EQ(reset(handle, 0), TARNEL_SUCCESS); }
    ~Session() { powerModule_destroy(handle); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Writes `count` samples of balanced sines (100 V, 5 A peak) from `next` on.
    int write(int count) {
        for (unsigned char p = 0; p < 3; ++p) {
            float* u = nullptr;
            float* i = nullptr;
            if (getWaveformBufferUInput(handle, p, &u) != 0 || getWaveformBufferI(handle, p, &i) != 0 || u == nullptr ||
                i == nullptr)
                return -1;
            for (int k = 0; k < count; ++k) {
                const unsigned long long s = next + static_cast<unsigned long long>(k);
                const double angle = 2.0 * kPi * 50.0 * static_cast<double>(s - next) / kRate - p * 2.0 * kPi / 3.0;
                u[s % kRing] = static_cast<float>(100.0 * std::sin(angle));
                i[s % kRing] = static_cast<float>(5.0 * std::sin(angle));
            }
        }
        return writeSamples(handle, static_cast<unsigned>(count));
    }

    // Collects everything finished so far.
    void drain() {
        syncCuda(handle);
        PowerResultsGeneral results[16];
        int n = 0;
        while (getResults(handle, 16, &n, results) == TARNEL_SUCCESS && n > 0) {
        }
    }
};

std::string threadMessage() {
    char text[512];
    return powerModule_getThreadLastErrorMessage(text, sizeof text) == TARNEL_SUCCESS ? text : "";
}

// The block after the misuse: its RMS values must be those of the sines written.
void expectCorrectBlock(Session& s) {
    const unsigned long long first = s.next;
    ASSERT_EQ(s.write(kBlock), TARNEL_SUCCESS) << threadMessage();
    s.next += kBlock;
    ASSERT_EQ(scheduleForCalculation(s.handle, first, kBlock, 50.0), TARNEL_SUCCESS) << threadMessage();
    ASSERT_EQ(syncCuda(s.handle), TARNEL_SUCCESS);
    PowerResultsGeneral results[4];
    int n = 0;
    ASSERT_EQ(getResults(s.handle, 4, &n, results), TARNEL_SUCCESS) << threadMessage();
    ASSERT_EQ(n, 1);
    EXPECT_EQ(results[0].firstSampleIndex, first);
    for (int p = 0; p < 3; ++p) {
        EXPECT_NEAR(results[0].phases[p].rmsU, 100.0 / std::sqrt(2.0), 1e-3);
        EXPECT_NEAR(results[0].phases[p].rmsI, 5.0 / std::sqrt(2.0), 1e-4);
    }
}

struct Misuse {
    const char* name;
    std::function<int(Session&)> call;
    int status;
    const char* fragment;                   // in the message of a failed call
    std::function<void(Session&)> cleanup;  // undoes what the call set up, not the misuse
};

// Schedules `count` short blocks over samples written for them, without collecting.
int scheduleShortBlocks(Session& s, int count) {
    const unsigned long long first = s.next;
    if (s.write(kBlock) != 0) return -1;
    s.next += kBlock;
    int status = 0;
    for (int k = 0; k < count && status == 0; ++k)
        status = scheduleForCalculation(s.handle, first + static_cast<unsigned long long>(k) * 128, 128, 50.0);
    return status;
}

std::vector<Misuse> misuseTable() {
    PowerModuleHandle null = nullptr;
    static bool flag;
    static double value;
    static int number;
    static unsigned short shortValue;
    static unsigned char count;
    static float* buffer;
    static PowerResultsGeneral results[4];
    static PowerResultsPeriod* periods;
    static char text[64];
    auto endTheUpdate = [](Session& s) { endUpdate(s.handle); };
    auto drain = [](Session& s) { s.drain(); };
    const char* noHandle = "handle is null";
    const char* noPointer = "is null";
    return {
        // Calls without a module.
        {"setSampleRate(null)", [=](Session&) { return setSampleRate(null, kRate, 1); }, 1, noHandle, {}},
        {"getThdEnabled(null)", [=](Session&) { return getThdEnabled(null, &flag); }, 1, noHandle, {}},
        {"getPhasesCount(null)", [=](Session&) { return getPhasesCount(null, &count); }, 1, noHandle, {}},
        {"beginUpdate(null)", [=](Session&) { return beginUpdate(null); }, 1, noHandle, {}},
        {"endUpdate(null)", [=](Session&) { return endUpdate(null); }, 1, noHandle, {}},
        {"reset(null)", [=](Session&) { return reset(null, 0); }, 1, noHandle, {}},
        {"syncCuda(null)", [=](Session&) { return syncCuda(null); }, 1, noHandle, {}},
        {"writeSamples(null)", [=](Session&) { return writeSamples(null, 10); }, 1, noHandle, {}},
        {"skipSamples(null)", [=](Session&) { return skipSamples(null, 10); }, 1, noHandle, {}},
        {"scheduleForCalculation(null)",
         [=](Session&) { return scheduleForCalculation(null, 0, kBlock, 50.0); },
         1,
         noHandle,
         {}},
        {"isAnyResultReady(null)", [=](Session&) { return isAnyResultReady(null, &flag); }, 1, noHandle, {}},
        {"getResults(null)", [=](Session&) { return getResults(null, 4, &number, results); }, 1, noHandle, {}},
        {"getPeriodResults(null)",
         [=](Session&) { return getPeriodResults(null, &number, &flag, &periods); },
         1,
         noHandle,
         {}},
        {"scheduleForPeriodCalculationFromZeroCrossing(null)",
         [=](Session&) { return scheduleForPeriodCalculationFromZeroCrossing(null, 0, nullptr); },
         1,
         noHandle,
         {}},
        {"getWaveformBufferUInput(null)",
         [=](Session&) { return getWaveformBufferUInput(null, 0, &buffer); },
         1,
         noHandle,
         {}},
        {"getWaveformBufferMechAngles(null)",
         [=](Session&) { return getWaveformBufferMechAngles(null, &buffer); },
         1,
         noHandle,
         {}},
        {"getLastErrorMessage(null)",
         [=](Session&) { return powerModule_getLastErrorMessage(null, text, 64); },
         1,
         noHandle,
         {}},
        {"createWithBackend(99)",
         [](Session&) { return powerModule_createWithBackend(99) == nullptr ? 1 : 0; },
         1,
         "no backend kind 99",
         {}},

        // Null output pointers.
        {"getThdEnabled(out null)", [](Session& s) { return getThdEnabled(s.handle, nullptr); }, 1, noPointer, {}},
        {"getNominalVoltage(out null)",
         [](Session& s) { return getNominalVoltage(s.handle, nullptr); },
         1,
         noPointer,
         {}},
        {"getPhasesCount(out null)", [](Session& s) { return getPhasesCount(s.handle, nullptr); }, 1, noPointer, {}},
        {"getRvcSteadyStateLength(out null)",
         [](Session& s) { return getRvcSteadyStateLengthInNumberOfPeriodValues(s.handle, nullptr); },
         1,
         noPointer,
         {}},
        {"isAnyResultReady(out null)",
         [](Session& s) { return isAnyResultReady(s.handle, nullptr); },
         1,
         noPointer,
         {}},
        {"getResults(count null)",
         [](Session& s) { return getResults(s.handle, 4, nullptr, results); },
         1,
         noPointer,
         {}},
        {"getResults(results null)",
         [](Session& s) { return getResults(s.handle, 4, &number, nullptr); },
         1,
         noPointer,
         {}},
        {"getPeriodResults(count null)",
         [](Session& s) { return getPeriodResults(s.handle, nullptr, &flag, &periods); },
         1,
         noPointer,
         {}},
        {"getPeriodResults(results null)",
         [](Session& s) { return getPeriodResults(s.handle, &number, &flag, nullptr); },
         1,
         noPointer,
         {}},
        {"getWaveformBufferUInput(out null)",
         [](Session& s) { return getWaveformBufferUInput(s.handle, 0, nullptr); },
         1,
         noPointer,
         {}},
        {"getWaveformBufferMechAngles(out null)",
         [](Session& s) { return getWaveformBufferMechAngles(s.handle, nullptr); },
         1,
         noPointer,
         {}},
        {"getLastErrorMessage(buffer null)",
         [](Session& s) { return powerModule_getLastErrorMessage(s.handle, nullptr, 64); },
         1,
         "no room",
         {}},
        {"getLastErrorMessage(size 0)",
         [](Session& s) { return powerModule_getLastErrorMessage(s.handle, text, 0); },
         1,
         "no room",
         {}},
        {"scheduleForPeriodCalculationFromZeroCrossing(intervals null)",
         [](Session& s) { return scheduleForPeriodCalculationFromZeroCrossing(s.handle, 2, nullptr); },
         1,
         "null",
         {}},
        {"scheduleForPeriodCalculationFromZeroCrossing(count -1)",
         [](Session& s) { return scheduleForPeriodCalculationFromZeroCrossing(s.handle, -1, nullptr); },
         1,
         "negative",
         {}},

        // Settings that can never work.
        {"setSampleRate(0)", [](Session& s) { return setSampleRate(s.handle, 0.0, 1); }, 1, "setSampleRate(0, 1)", {}},
        {"setSampleRate(-1)", [](Session& s) { return setSampleRate(s.handle, -1.0, 1); }, 1, "positive", {}},
        {"setSampleRate(NaN)", [](Session& s) { return setSampleRate(s.handle, kNaN, 1); }, 1, "positive", {}},
        {"setSampleRate(inf)", [](Session& s) { return setSampleRate(s.handle, kInf, 1); }, 1, "positive", {}},
        {"setSampleRate(1e12)", [](Session& s) { return setSampleRate(s.handle, 1e12, 1); }, 1, "largest FFT", {}},
        {"setSampleRate(1e-300)", [](Session& s) { return setSampleRate(s.handle, 1e-300, 1); }, 1, "fewer than", {}},
        {"setSampleRate(divider 0)", [](Session& s) { return setSampleRate(s.handle, kRate, 0); }, 1, "divider", {}},
        {"setBufferLength(0)", [](Session& s) { return setBufferLength(s.handle, 0); }, 1, "at least 1", {}},
        {"setBufferLength(-1)", [](Session& s) { return setBufferLength(s.handle, -1); }, 1, "at most", {}},
        {"setBufferLength(INT_MIN)", [](Session& s) { return setBufferLength(s.handle, INT_MIN); }, 1, "at most", {}},
        {"setHighestRequestedHarmonic(-1)",
         [](Session& s) { return setHighestRequestedHarmonic(s.handle, -1); },
         1,
         "negative",
         {}},
        {"setHighestRequestedHarmonic(INT_MAX)",
         [](Session& s) { return setHighestRequestedHarmonic(s.handle, INT_MAX); },
         1,
         "frequency bins",
         {}},
        {"setThdHighestHarmonic(-5)",
         [](Session& s) { return setThdHighestHarmonic(s.handle, -5); },
         1,
         "negative",
         {}},
        {"THD up to INT_MAX",
         [](Session& s) {
             setThdHighestHarmonic(s.handle, INT_MAX);  // stored: THD is off
             return setThdEnabled(s.handle, true);
         },
         1, "setThdEnabled(true) refused", [](Session& s) { setThdHighestHarmonic(s.handle, 40); }},
        {"setStaticFrequency(0)",
         [](Session& s) { return setStaticFrequency(s.handle, 0.0, 0.1); },
         1,
         "frequency",
         {}},
        {"setStaticFrequency(NaN)",
         [](Session& s) { return setStaticFrequency(s.handle, kNaN, 0.1); },
         1,
         "frequency",
         {}},
        {"setStaticFrequency(inf)",
         [](Session& s) { return setStaticFrequency(s.handle, kInf, 0.1); },
         1,
         "frequency",
         {}},
        {"setStaticFrequency(tolerance NaN)",
         [](Session& s) { return setStaticFrequency(s.handle, 50.0, kNaN); },
         1,
         "tolerance",
         {}},
        {"setVariableFrequency(60, 40)",
         [](Session& s) { return setVariableFrequency(s.handle, 60.0, 40.0); },
         1,
         "above the maximum",
         {}},
        {"setVariableFrequency(0, 50)",
         [](Session& s) { return setVariableFrequency(s.handle, 0.0, 50.0); },
         1,
         "minimum frequency",
         {}},
        {"setVariableFrequency(45, inf)",
         [](Session& s) { return setVariableFrequency(s.handle, 45.0, kInf); },
         1,
         "maximum frequency",
         {}},
        {"setVariableFrequency(50, 1e300)",
         [](Session& s) { return setVariableFrequency(s.handle, 50.0, 1e300); },
         1,
         "fewer than",
         {}},
        {"setVariableFrequency(0.001, 65)",
         [](Session& s) { return setVariableFrequency(s.handle, 0.001, 65.0); },
         1,
         "largest FFT",
         {}},
        {"setPeriodCount(0)", [](Session& s) { return setPeriodCount(s.handle, 0); }, 1, "period count", {}},
        {"setHalfPeriodValuesCount(0)",
         [](Session& s) { return setHalfPeriodValuesCount(s.handle, 0); },
         1,
         "half-period",
         {}},
        {"setPeriodValuesOverlapInPercent(100)",
         [](Session& s) { return setPeriodValuesOverlapInPercent(s.handle, 100); },
         1,
         "below 100",
         {}},
        {"setRvcSteadyStateLength(-1)",
         [](Session& s) { return setRvcSteadyStateLengthInNumberOfPeriodValues(s.handle, -1); },
         1,
         "at least 1",
         {}},
        {"setRvcThreshold(NaN)",
         [](Session& s) { return setRvcThresholdInPercentOfAverage(s.handle, kNaN); },
         1,
         "threshold",
         {}},
        {"setRvcThresholdHysteresis(-1)",
         [](Session& s) { return setRvcThresholdHysteresisInPercentOfThreshold(s.handle, -1.0); },
         1,
         "hysteresis",
         {}},
        {"setDipThreshold(NaN)", [](Session& s) { return setDipThreshold(s.handle, kNaN); }, 1, "threshold", {}},
        {"setSwellThreshold(inf)", [](Session& s) { return setSwellThreshold(s.handle, kInf); }, 1, "threshold", {}},
        {"setDipHysteresis(-2)", [](Session& s) { return setDipHysteresis(s.handle, -2.0); }, 1, "hysteresis", {}},
        {"setNominalVoltage(NaN)",
         [](Session& s) { return setNominalVoltage(s.handle, kNaN); },
         1,
         "setNominalVoltage(nan)",
         {}},
        {"setNominalVoltage(0)", [](Session& s) { return setNominalVoltage(s.handle, 0.0); }, 1, "nominal voltage", {}},
        {"setNominalLineToLineVoltage(-400)",
         [](Session& s) { return setNominalLineToLineVoltage(s.handle, -400.0); },
         1,
         "nominal voltage",
         {}},
        {"setMechAngleOffset(NaN)", [](Session& s) { return setMechAngleOffset(s.handle, kNaN); }, 1, "finite", {}},
        {"setGridConfigType(8)", [](Session& s) { return setGridConfigType(s.handle, 8); }, 1, "grid type", {}},
        {"setGridConfigType(-1)", [](Session& s) { return setGridConfigType(s.handle, -1); }, 1, "grid type", {}},
        {"setPolePairs(-1)", [](Session& s) { return setPolePairs(s.handle, -1); }, 1, "pole pair", {}},
        {"setPolePairs(0) with the Park transform from the angle",
         [](Session& s) {
             setPolePairs(s.handle, 2);
             setParkTransformEnabled(s.handle, true);
             setClarkeOrParkVoltagesEnabled(s.handle, true);
             setMechanicalAngleUsed(s.handle, true);
             return setPolePairs(s.handle, 0);
         },
         1, "pole pair",
         [](Session& s) {
             setParkTransformEnabled(s.handle, false);
             setMechanicalAngleUsed(s.handle, false);
         }},

        // Updates.
        {"endUpdate without beginUpdate",
         [](Session& s) { return endUpdate(s.handle); },
         1,
         "matching beginUpdate",
         {}},
        {"setSampleRate(0) inside an update",
         [](Session& s) {
             beginUpdate(s.handle);
             return setSampleRate(s.handle, 0.0, 1);
         },
         1, "setSampleRate(0, 1)", endTheUpdate},
        {"an update whose harmonics exceed the FFT",
         [](Session& s) {
             beginUpdate(s.handle);
             setHighestRequestedHarmonic(s.handle, 5000);
             return endUpdate(s.handle);
         },
         1,
         "endUpdate refused",
         {}},
        {"scheduleForCalculation inside an update",
         [](Session& s) {
             beginUpdate(s.handle);
             return scheduleForCalculation(s.handle, 0, kBlock, 50.0);
         },
         1, "update is open", endTheUpdate},
        {"writeSamples inside an update",
         [](Session& s) {
             beginUpdate(s.handle);
             return writeSamples(s.handle, 10);
         },
         1, "update is open", endTheUpdate},
        {"reset inside an update",
         [](Session& s) {
             beginUpdate(s.handle);
             return reset(s.handle, 0);
         },
         1, "update is open", endTheUpdate},

        // Samples and blocks.
        {"writeSamples beyond the ring",
         [](Session& s) { return writeSamples(s.handle, kRing + 1); },
         1,
         "do not fit",
         {}},
        {"a block of unwritten samples",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, kBlock, 50.0); },
         1,
         "have not been written",
         {}},
        {"a block at 2^64 - 1",
         [](Session& s) {
             s.write(2 * kBlock);
             s.next += 2 * kBlock;
             return scheduleForCalculation(s.handle, ULLONG_MAX, kBlock, 50.0);
         },
         1,
         "have not been written",
         {}},
        {"a block of length 0",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, 0, 50.0); },
         1,
         "at least 1",
         {}},
        {"a block of length -1",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, -1, 50.0); },
         1,
         "does not fit",
         {}},
        {"a block longer than the ring",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, kRing + 1, 50.0); },
         1,
         "does not fit",
         {}},
        {"a block longer than its FFT",
         [](Session& s) {
             s.write(8192);
             s.next += 8192;
             return scheduleForCalculation(s.handle, 0, 8192, 50.0);
         },
         1,
         "longer than its FFT",
         {}},
        {"frequency 0", [](Session& s) { return scheduleForCalculation(s.handle, 0, kBlock, 0.0); }, 1, "positive", {}},
        {"frequency -50",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, kBlock, -50.0); },
         1,
         "positive",
         {}},
        {"frequency NaN",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, kBlock, kNaN); },
         1,
         "positive",
         {}},
        {"frequency inf",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, kBlock, kInf); },
         1,
         "positive",
         {}},
        {"frequency fs / 2",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, kBlock, kRate / 2); },
         1,
         "half the sample rate",
         {}},
        {"frequency 1e5",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, kBlock, 1e5); },
         1,
         "half the sample rate",
         {}},
        {"frequency 1e6",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, kBlock, 1e6); },
         1,
         "half the sample rate",
         {}},
        {"frequency 1e9",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, kBlock, 1e9); },
         1,
         "half the sample rate",
         {}},
        {"frequency 1e-9",
         [](Session& s) { return scheduleForCalculation(s.handle, 0, kBlock, 1e-9); },
         1,
         "resolution",
         {}},
        {"more calculations than result rows", [](Session& s) { return scheduleShortBlocks(s, 13); }, 1, "collect them",
         drain},
        {"getResults with no room and a result ready",
         [](Session& s) {
             scheduleShortBlocks(s, 1);
             syncCuda(s.handle);
             return getResults(s.handle, 0, &number, results);
         },
         2, "Too many results", drain},
        {"getResults(-1)", [](Session& s) { return getResults(s.handle, -1, &number, results); }, 1, "negative", {}},
        {"period values while they are off",
         [](Session& s) { return scheduleForPeriodCalculationFromZeroCrossing(s.handle, 0, nullptr); },
         1,
         "not enabled",
         {}},
        {"period blocks while they are off",
         [](Session& s) { return scheduleForPeriodCalculation(s.handle, -1, nullptr, nullptr, nullptr, nullptr); },
         1,
         "not enabled",
         {}},

        // Accepted: answers rather than refusals.
        {"waveform channel 200", [](Session& s) { return getWaveformBufferUInput(s.handle, 200, &buffer); }, 0, "", {}},
        {"getResults(0) with nothing ready",
         [](Session& s) { return getResults(s.handle, 0, &number, results); },
         0,
         "",
         {}},
        {"getPeriodResults while they are off",
         [](Session& s) { return getPeriodResults(s.handle, &number, &flag, &periods); },
         0,
         "",
         {}},
        {"powerModule_destroy(null)", [=](Session&) { return powerModule_destroy(null); }, 0, "", {}},
        {"a frequency outside the configured range",
         [](Session& s) {
             s.write(kBlock);
             s.next += kBlock;
             return scheduleForCalculation(s.handle, s.next - kBlock, kBlock, 200.0);
         },
         0, "", drain},
        {"getHalfPeriodValuesCount",
         [](Session& s) { return getHalfPeriodValuesCount(s.handle, &shortValue); },
         0,
         "",
         {}},
        {"getNominalVoltage", [](Session& s) { return getNominalVoltage(s.handle, &value); }, 0, "", {}},
    };
}

}  // namespace

TEST(MisuseTest, EveryMisuseIsRefusedWithItsCauseAndTheModuleKeepsWorking) {
    std::map<int, int> outcomes;
    const std::vector<Misuse> table = misuseTable();
    for (const Misuse& m : table) {
        SCOPED_TRACE(m.name);
        Session s;
        ASSERT_NE(s.handle, nullptr);
        const int status = m.call(s);
        outcomes[status] += 1;
        EXPECT_EQ(status, m.status);
        if (status != TARNEL_SUCCESS) {
            const std::string message = threadMessage();
            EXPECT_NE(message.find(m.fragment), std::string::npos) << message;
            EXPECT_FALSE(message.empty());
        }
        if (m.cleanup) m.cleanup(s);
        expectCorrectBlock(s);
    }
    // The counts that the reliability notes quote.
    EXPECT_EQ(table.size(), 107u);
    EXPECT_EQ(outcomes[TARNEL_SUCCESS], 7);
    EXPECT_EQ(outcomes[TARNEL_ERROR], 99);
    EXPECT_EQ(outcomes[TARNEL_TOO_MANY_RESULTS], 1);
}

// The text of a failure stays with its module and with the calling thread; a
// short buffer gets as much as fits, terminated.
TEST(MisuseTest, LastErrorMessagesPerModuleAndPerThread) {
    Session s;
    char text[256] = "untouched";
    ASSERT_EQ(powerModule_getLastErrorMessage(s.handle, text, sizeof text), TARNEL_SUCCESS);
    EXPECT_STREQ(text, "");
    ASSERT_EQ(setSampleRate(s.handle, -5.0, 1), TARNEL_ERROR);
    const std::string expected = "setSampleRate(-5, 1) refused: the sample rate must be positive and finite";
    ASSERT_EQ(powerModule_getLastErrorMessage(s.handle, text, sizeof text), TARNEL_SUCCESS);
    EXPECT_EQ(text, expected);
    EXPECT_EQ(threadMessage(), expected);
    ASSERT_EQ(setSampleRate(s.handle, kRate, 1), TARNEL_SUCCESS);
    ASSERT_EQ(powerModule_getLastErrorMessage(s.handle, text, 14), TARNEL_SUCCESS);
    EXPECT_STREQ(text, "setSampleRate") << "the last failure stays until the next one";

    Session other;
    ASSERT_EQ(reset(nullptr, 0), TARNEL_ERROR);
    ASSERT_EQ(powerModule_getLastErrorMessage(other.handle, text, sizeof text), TARNEL_SUCCESS);
    EXPECT_STREQ(text, "") << "a failure without a module is the thread's only";
    EXPECT_EQ(threadMessage(), "the module handle is null");
}

// Settings of a new module one at a time, the ring before the rate: the 1 Hz
// default rate sizes nothing, so a ring set first neither sizes hours of
// result rows nor fails, and hostile values are refused before anything is
// sized from them.
TEST(MisuseTest, NewModuleTakesTheRingBeforeTheRate) {
    PowerModuleHandle m = powerModule_createWithBackend(TARNEL_BACKEND_CPU);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(setBufferLength(m, INT_MIN), TARNEL_ERROR);
    EXPECT_NE(threadMessage().find("setBufferLength(18446744071562067968) refused"), std::string::npos)
        << threadMessage();
    EXPECT_EQ(setBufferLength(m, kRing), TARNEL_SUCCESS) << threadMessage();
    EXPECT_EQ(reset(m, 0), TARNEL_ERROR) << "a module without a sample rate is not built";
    EXPECT_EQ(setGridConfigType(m, 1), TARNEL_SUCCESS);
    EXPECT_EQ(setSampleRate(m, kRate, 1), TARNEL_SUCCESS) << threadMessage();
    // Now that the module is sized, a range whose blocks would span no samples is refused.
    EXPECT_EQ(setVariableFrequency(m, 50.0, 1e300), TARNEL_ERROR);
    EXPECT_NE(threadMessage().find("fewer than"), std::string::npos) << threadMessage();
    EXPECT_EQ(setStaticFrequency(m, 50.0, 0.1), TARNEL_SUCCESS) << threadMessage();
    Session s(m);
    expectCorrectBlock(s);
}
