/* Drives the C interface from a C program on the CPU backend: settings, a
 * three-phase measurement with closed-form sine signals, period values from
 * zero crossings, and the status codes of refused calls, overflowing result
 * arrays and device allocation failures. */
#include <math.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

#include "tarnel/tarnel.h"

#define PI 3.14159265358979323846

static int passedCount;
static int failedCount;

static bool check(bool ok, int line, const char* what) {
    passedCount += ok;
    failedCount += !ok;
    if (!ok) fprintf(stderr, "line %d: check failed: %s\n", line, what);
    return ok;
}

static void checkStatus(int expected, int actual, int line, const char* call) {
    if (!check(expected == actual, line, call)) fprintf(stderr, "  returned %d, expected %d\n", actual, expected);
}

static void checkNear(double expected, double actual, double relativeTolerance, int line, const char* what) {
    if (!check(fabs(actual - expected) <= relativeTolerance * fabs(expected), line, what))
        fprintf(stderr, "  is %.9g, expected %.9g\n", actual, expected);
}

#define CHECK(condition) check((condition), __LINE__, #condition)
#define CHECK_STATUS(expected, call) checkStatus((expected), (call), __LINE__, #call)
#define CHECK_NEAR(expected, actual, tolerance) checkNear((expected), (actual), (tolerance), __LINE__, #actual)

/* The reporter records what it was given; the message is copied because it is
 * valid only during the call. */
static int reportCount;
static int reportedCode;
static char reportedMessage[512];

static void recordReport(int code, const char* message) {
    ++reportCount;
    reportedCode = code;
    snprintf(reportedMessage, sizeof reportedMessage, "%s", message);
}

/* The measured system: 50 Hz, three phases 120 degrees apart, each current
 * lagging its voltage by 30 degrees; amplitudes differ per phase so that a
 * mixed-up phase shows. */
enum { kSampleRate = 10240, kRingLength = 20480, kBlockLength = 2048, kMaxResults = 4 };
static const double kFrequency = 50.0;
static const double kVoltageAmplitude[3] = {325.0, 320.0, 330.0};
static const double kCurrentAmplitude[3] = {10.0, 12.0, 8.0};
static const double kCurrentLag = 30.0 * PI / 180.0;

/* Writes two blocks from `first` into the rings, schedules both and waits:
 * results must then be ready. */
static void calculateTwoBlocks(PowerModuleHandle m, float* const u[3], float* const i[3], unsigned long long first) {
    for (unsigned long long s = first; s < first + 2 * kBlockLength; ++s)
        for (int p = 0; p < 3; ++p) {
            const double angle = 2.0 * PI * kFrequency * (double)s / kSampleRate - p * 2.0 * PI / 3.0;
            u[p][s % kRingLength] = (float)(kVoltageAmplitude[p] * sin(angle));
            i[p][s % kRingLength] = (float)(kCurrentAmplitude[p] * sin(angle - kCurrentLag));
        }
    CHECK_STATUS(TARNEL_SUCCESS, writeSamples(m, 2 * kBlockLength));
    CHECK_STATUS(TARNEL_SUCCESS, scheduleForCalculation(m, first, kBlockLength, kFrequency));
    CHECK_STATUS(TARNEL_SUCCESS, scheduleForCalculation(m, first + kBlockLength, kBlockLength, kFrequency));
    CHECK_STATUS(TARNEL_SUCCESS, syncCuda(m));
    bool ready = false;
    CHECK_STATUS(TARNEL_SUCCESS, isAnyResultReady(m, &ready));
    CHECK(ready);
}

/* RMS values and active power of one block, which covers whole periods. */
static void checkBlockResult(const PowerResultsGeneral* r, unsigned long long first) {
    CHECK(r->firstSampleIndex == first);
    CHECK(r->length == kBlockLength);
    CHECK(r->phasesCount == 3);
    CHECK_NEAR(kFrequency, r->frequency, 1e-12);
    CHECK_NEAR((double)(first + kBlockLength) / kSampleRate, r->endTime, 1e-12);
    double totalPower = 0.0;
    for (int p = 0; p < 3; ++p) {
        const double power = kVoltageAmplitude[p] * kCurrentAmplitude[p] * cos(kCurrentLag) / 2.0;
        CHECK_NEAR(kVoltageAmplitude[p] / sqrt(2.0), r->phases[p].rmsU, 1e-5);
        CHECK_NEAR(kCurrentAmplitude[p] / sqrt(2.0), r->phases[p].rmsI, 1e-5);
        CHECK_NEAR(power, r->phases[p].activePower, 1e-4);
        totalPower += power;
    }
    CHECK_NEAR(totalPower, r->phases[3].activePower, 1e-4);
}

/* Opens an update that sets up the measured system; the caller closes it. */
static void beginMeasuredSystemUpdate(PowerModuleHandle m) {
    CHECK_STATUS(TARNEL_SUCCESS, beginUpdate(m));
    CHECK_STATUS(TARNEL_SUCCESS, setGridConfigType(m, 1));
    CHECK_STATUS(TARNEL_SUCCESS, setSampleRate(m, kSampleRate, 1));
    CHECK_STATUS(TARNEL_SUCCESS, setBufferLength(m, kRingLength));
    CHECK_STATUS(TARNEL_SUCCESS, setStaticFrequency(m, kFrequency, 0.1));
}

typedef int (*BoolGetter)(PowerModuleHandle, bool*);
typedef int (*BoolSetter)(PowerModuleHandle, bool);

/* Every on/off setting, by the name its setter and getter share. */
#define FLAG_SETTINGS(X)                                                                             \
    X(ClarkeOrParkCurrentsEnabled), X(ClarkeOrParkVoltagesEnabled), X(ClarkeOrParkWaveformsEnabled), \
        X(ClarkeTransformEnabled), X(CurrentEnabled), X(DipSwellEnabled), X(FullFftEnabled),         \
        X(FundamentalPeriodValuesEnabled), X(InterHarmonicsEnabled), X(LineToLineResultsEnabled),    \
        X(MechanicalAngleUsed), X(ParkTransformEnabled), X(PeriodSymmetricalComponentsEnabled),      \
        X(PeriodValuesEnabled), X(RvcEnabled), X(SymmetricalComponentsEnabled), X(ThdEnabled), X(WaveformsEnabled)
#define FLAG(Name) \
    { set##Name, get##Name }

/* Number settings with values that differ from every default and from each
 * other: all are set before any is read back, so that a setter or getter wired
 * to another setting fails. */
#define NUMBER_SETTINGS(X)                                      \
    X(RvcThresholdInPercentOfAverage, double, 3.5)              \
    X(RvcThresholdHysteresisInPercentOfThreshold, double, 40.0) \
    X(DipThreshold, double, 80.0)                               \
    X(SwellThreshold, double, 115.0)                            \
    X(DipHysteresis, double, 1.5)                               \
    X(SwellHysteresis, double, 2.5)                             \
    X(NominalVoltage, double, 231.0)                            \
    X(NominalLineToLineVoltage, double, 401.0)                  \
    X(MechAngleOffset, double, 12.5)                            \
    X(HighestRequestedHarmonic, int, 25)                        \
    X(ThdHighestHarmonic, int, 30)                              \
    X(RvcSteadyStateLengthInNumberOfPeriodValues, int, 120)     \
    X(PolePairs, int, 4)                                        \
    X(HalfPeriodValuesCount, unsigned short, 1)                 \
    X(PeriodValuesOverlapInPercent, unsigned short, 50)
#define SET_NUMBER(Name, Type, value) CHECK_STATUS(TARNEL_SUCCESS, set##Name(m, (value)));
/* The out-value starts elsewhere, so that a getter that writes nothing fails. */
#define CHECK_NUMBER(Name, Type, value)                       \
    {                                                         \
        Type read = (Type)(-(value)-1);                       \
        CHECK_STATUS(TARNEL_SUCCESS, get##Name(m, &read));    \
        check(read == (value), __LINE__, "getter of " #Name); \
    }

/* Each setter reaches the setting its getter reads and no other. */
static void testSettingsRoundTrip(void) {
    PowerModuleHandle m = powerModule_createWithBackend(TARNEL_BACKEND_CPU);
    if (!CHECK(m != NULL)) return;

    /* Three phases, two voltages, two currents; symmetrical components need three phases. */
    CHECK_STATUS(TARNEL_SUCCESS, setGridConfigType(m, 6));
    unsigned char phases = 0, voltages = 0, currents = 0;
    CHECK_STATUS(TARNEL_SUCCESS, getPhasesCount(m, &phases));
    CHECK_STATUS(TARNEL_SUCCESS, getVoltagesCount(m, &voltages));
    CHECK_STATUS(TARNEL_SUCCESS, getCurrentsCount(m, &currents));
    CHECK(phases == 3 && voltages == 2 && currents == 2);

    static const struct {
        BoolSetter set;
        BoolGetter get;
    } flags[] = {FLAG_SETTINGS(FLAG)};
    enum { kFlags = sizeof flags / sizeof flags[0] };
    bool initial[kFlags] = {false};
    for (size_t n = 0; n < kFlags; ++n) CHECK_STATUS(TARNEL_SUCCESS, flags[n].get(m, &initial[n]));
    /* Inside one update, so that the whole set costs a single rebuild. */
    CHECK_STATUS(TARNEL_SUCCESS, beginUpdate(m));
    for (size_t n = 0; n < kFlags; ++n) {
        CHECK_STATUS(TARNEL_SUCCESS, flags[n].set(m, !initial[n]));
        for (size_t k = 0; k < kFlags; ++k) {
            const bool expected = (k == n) != initial[k];
            bool value = !expected;
            CHECK_STATUS(TARNEL_SUCCESS, flags[k].get(m, &value));
            if (!CHECK(value == expected)) fprintf(stderr, "  flag %zu reads %d after flag %zu flipped\n", k, value, n);
        }
        CHECK_STATUS(TARNEL_SUCCESS, flags[n].set(m, initial[n]));
    }
    CHECK_STATUS(TARNEL_SUCCESS, endUpdate(m));

    NUMBER_SETTINGS(SET_NUMBER)
    NUMBER_SETTINGS(CHECK_NUMBER)

    /* The frequency range reaches the module: whole spectra need a static frequency. */
    CHECK_STATUS(TARNEL_SUCCESS, setFullFftEnabled(m, true));
    CHECK_STATUS(TARNEL_SUCCESS, setVariableFrequency(m, 45.0, 65.0));
    bool fullFft = true;
    CHECK_STATUS(TARNEL_SUCCESS, getFullFftEnabled(m, &fullFft));
    CHECK(!fullFft);

    CHECK_STATUS(TARNEL_SUCCESS, powerModule_destroy(m));
}

static void testMeasurementSession(void) {
    PowerModuleHandle m = powerModule_createWithBackend(TARNEL_BACKEND_CPU);
    if (!CHECK(m != NULL)) return;
    const int reportsBefore = reportCount;

    /* Refused calls end in status 1 and are not reported (checked at the end). */
    CHECK_STATUS(TARNEL_ERROR, endUpdate(m));
    beginMeasuredSystemUpdate(m);
    CHECK_STATUS(TARNEL_SUCCESS, setHighestRequestedHarmonic(m, 10));
    CHECK_STATUS(TARNEL_SUCCESS, setPeriodValuesEnabled(m, true));
    CHECK_STATUS(TARNEL_SUCCESS, endUpdate(m));
    CHECK_STATUS(TARNEL_SUCCESS, reset(m, 0));
    CHECK_STATUS(TARNEL_ERROR, scheduleForCalculation(m, 0, 0, kFrequency));
    /* Samples that were never written. */
    CHECK_STATUS(TARNEL_ERROR, scheduleForCalculation(m, 0, kBlockLength, kFrequency));

    float* u[3] = {NULL, NULL, NULL};
    float* i[3] = {NULL, NULL, NULL};
    for (unsigned char p = 0; p < 3; ++p) {
        CHECK_STATUS(TARNEL_SUCCESS, getWaveformBufferUInput(m, p, &u[p]));
        CHECK_STATUS(TARNEL_SUCCESS, getWaveformBufferI(m, p, &i[p]));
        if (!CHECK(u[p] != NULL && i[p] != NULL)) {
            powerModule_destroy(m);
            return;
        }
    }

    /* Two blocks of ten periods each. */
    PowerResultsGeneral results[kMaxResults];
    int count = -1;
    CHECK_STATUS(TARNEL_SUCCESS, getResults(m, 0, &count, results));
    CHECK(count == 0);
    calculateTwoBlocks(m, u, i, 0);
    /* maxResults limits what is collected: one now, the other next time. */
    CHECK_STATUS(TARNEL_SUCCESS, getResults(m, 1, &count, &results[0]));
    CHECK(count == 1);
    CHECK_STATUS(TARNEL_SUCCESS, getResults(m, kMaxResults, &count, &results[1]));
    CHECK(count == 1);
    checkBlockResult(&results[0], 0);
    checkBlockResult(&results[1], kBlockLength);

    /* Period values from the zero crossings of phase 1, at multiples of 204.8
     * samples. A value is formed once the interval after it arrives, so four
     * intervals give three values. */
    CHECK_STATUS(TARNEL_SUCCESS, scheduleForPeriodCalculationFromZeroCrossing(m, 0, NULL));
    CHECK_STATUS(TARNEL_ERROR, scheduleForPeriodCalculationFromZeroCrossing(m, -1, NULL));
    const ZeroCrossingInterval intervals[4] = {{{0, 0.0}, {204, 0.8}, kFrequency, true},
                                               {{204, 0.8}, {409, 0.6}, kFrequency, true},
                                               {{409, 0.6}, {614, 0.4}, kFrequency, true},
                                               {{614, 0.4}, {819, 0.2}, kFrequency, true}};
    CHECK_STATUS(TARNEL_SUCCESS, scheduleForPeriodCalculationFromZeroCrossing(m, 4, intervals));
    int periodCount = -1;
    bool more = true;
    PowerResultsPeriod* periods = NULL;
    CHECK_STATUS(TARNEL_SUCCESS, getPeriodResults(m, &periodCount, &more, &periods));
    if (!CHECK(periodCount == 3 && !more && periods != NULL))
        fprintf(stderr, "  %d period values ready, more %d\n", periodCount, (int)more);
    for (int n = 0; periods != NULL && n < periodCount; ++n) {
        const PowerResultsPeriod* value = periods + 4 * n; /* record 0: all phases, 1..3: the phases */
        double meanRms = 0.0;
        for (int p = 0; p < 3; ++p) {
            CHECK_NEAR(kVoltageAmplitude[p] / sqrt(2.0), value[p + 1].rmsU, 1e-4);
            CHECK_NEAR(kFrequency, value[p + 1].frequency, 1e-9);
            CHECK(value[p + 1].valid);
            meanRms += kVoltageAmplitude[p] / sqrt(2.0) / 3.0;
        }
        CHECK_NEAR(meanRms, value[0].rmsU, 1e-4);
    }

    /* Results but no room for them: status 2, nothing written, nothing
     * reported, and the results stay queued for a call with room. */
    calculateTwoBlocks(m, u, i, 2 * kBlockLength);
    PowerResultsGeneral untouched[kMaxResults];
    memset(results, 0x5A, sizeof results);
    memcpy(untouched, results, sizeof results);
    count = -7;
    CHECK_STATUS(TARNEL_TOO_MANY_RESULTS, getResults(m, 0, &count, results));
    CHECK(count == -7);
    CHECK(memcmp(untouched, results, sizeof results) == 0);
    CHECK_STATUS(TARNEL_SUCCESS, getResults(m, kMaxResults, &count, results));
    CHECK(count == 2);

    CHECK(reportCount == reportsBefore);
    CHECK_STATUS(TARNEL_SUCCESS, powerModule_destroy(m));
}

/* A device allocation beyond the device memory: status 3 and one report with
 * the device-layer message; without a reporter the same status, silently. */
static void testDeviceFailure(void) {
    PowerModuleHandle m = powerModule_createCpuWithMemoryCapacity(4096);
    if (!CHECK(m != NULL)) return;
    const int reportsBefore = reportCount;
    reportedCode = 0;
    reportedMessage[0] = '\0';

    beginMeasuredSystemUpdate(m);
    CHECK_STATUS(TARNEL_GPU_ERROR, endUpdate(m));
    CHECK(reportCount == reportsBefore + 1);
    CHECK(reportedCode == 1);
    const char prefix[] = "CUDA error in file '";
    CHECK(strncmp(reportedMessage, prefix, sizeof prefix - 1) == 0);

    CHECK_STATUS(TARNEL_SUCCESS, registerErrorReporter(NULL));
    CHECK(reportErrorCallbackFunction == NULL);
    beginMeasuredSystemUpdate(m);
    CHECK_STATUS(TARNEL_GPU_ERROR, endUpdate(m));
    CHECK_STATUS(TARNEL_SUCCESS, registerErrorReporter(recordReport));
    CHECK(reportCount == reportsBefore + 1);

    CHECK_STATUS(TARNEL_SUCCESS, powerModule_destroy(m));
}

int main(void) {
    CHECK_STATUS(TARNEL_SUCCESS, registerErrorReporter(recordReport));
    CHECK(reportErrorCallbackFunction == recordReport);

    CHECK_STATUS(TARNEL_SUCCESS, powerModule_destroy(NULL));
    CHECK(powerModule_createWithBackend(3) == NULL);
    CHECK(powerModule_createWithBackend(-1) == NULL);
    testSettingsRoundTrip();
    testMeasurementSession();
    testDeviceFailure();

    printf("%d passed, %d failed\n", passedCount, failedCount);
    return failedCount == 0 ? 0 : 1;
}
