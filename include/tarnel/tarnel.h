/*
 * The flat C interface of tarnel64.
 *
 * Every function takes the handle of one analysis module, returns a status
 * code and passes its results through out-parameters; no exception crosses
 * this interface. Failures of the device layer are also handed, as text, to
 * the one error reporter of the process (see registerErrorReporter).
 *
 * The function names (beginUpdate, reset, getResults, ...) and
 * reportErrorCallbackFunction are global and fixed: a program that uses this
 * interface must not define functions or variables of the same names. The C++
 * interface (PowerModule and the records) lives in namespace tarnel.
 *
 * The header compiles as C11 and as C++. The records that cross the interface
 * (PowerResultsGeneral, ZeroCrossingInterval, PowerResultsPeriod and the
 * records they contain) are the library's own C++ records when compiled as
 * C++, and layout-identical C structures when compiled as C.
 *
 * Example (error handling shortened):
 *
 *   static void report(int code, const char* message) { fprintf(stderr, "tarnel %d: %s\n", code, message); }
 *
 *   registerErrorReporter(report);
 *   PowerModuleHandle m = powerModule_create();
 *   if (m == NULL) return;
 *   beginUpdate(m);
 *   setGridConfigType(m, 1);                  // three phases, star, three currents
 *   setSampleRate(m, 10240.0, 1);
 *   setBufferLength(m, 20480);                // the sample rings hold two seconds
 *   setStaticFrequency(m, 50.0, 0.1);
 *   if (endUpdate(m) != TARNEL_SUCCESS) { powerModule_destroy(m); return; }
 *   reset(m, 0);
 *
 *   float* u0;
 *   getWaveformBufferUInput(m, 0, &u0);       // sample s lives at u0[s % 20480]
 *   ... write samples 0 .. 2047 of every channel ...
 *   writeSamples(m, 2048);
 *   scheduleForCalculation(m, 0, 2048, 50.0);
 *
 *   PowerResultsGeneral results[4];
 *   int n = 0;
 *   syncCuda(m);
 *   if (getResults(m, 4, &n, results) == TARNEL_SUCCESS && n > 0) use(results[0].phases[0].rmsU);
 *   powerModule_destroy(m);
 */
#ifndef TARNEL_TARNEL_H
#define TARNEL_TARNEL_H

#include "tarnel/Export.h"
#include "tarnel/Version.h"

#ifdef __cplusplus

#include "tarnel/PowerEvents.h"
#include "tarnel/PowerResults.h"
#include "tarnel/PreciseFraction.h"

#else /* C */

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/* A complex value of a CUDA FFT: real part, then imaginary part (the layout of CUDA's float2). */
typedef struct TarnelFloat2 {
    float x;
    float y;
} TarnelFloat2;

/* A complex double inside result records: real part, then imaginary part. */
typedef struct ComplexDouble {
    double x;
    double y;
} ComplexDouble;

/* Total harmonic distortion of one channel, in percent. */
typedef struct PowerResultsThd {
    double thd;
    double thdEven;
    double thdOdd;
    double thdOddTriplen;
    double thdOddNonTriplen;
    double thdOfRms;
    double harmonicContent;
    double distortionContent;
    double totalDistortion;
} PowerResultsThd;

/* Values of one phase, or the totals of all phases. The pointers lead into the
 * module's own buffers and stay valid until the same result row is reused. */
typedef struct PowerResultsPhase {
    double rectifiedMeanU;
    double rectifiedMeanI;
    double rectifiedMeanUL;
    double rmsU;
    double rmsI;
    double rmsUL;
    double activePower;
    double spectralRmsU;
    double spectralRmsI;
    double spectralRmsUL;
    double fundamentalU;
    double fundamentalI;
    double fundamentalUL;
    double spectralActivePower;
    double nonActivePower;
    double apparentPower;
    double powerFactor;
    double distortionPower;
    double budeanuReactivePower;
    double budeanuDistortionPower;
    double fundamentalActivePower;
    double fundamentalReactivePower;
    double fundamentalApparentPower;
    double displacementPowerFactor;
    double fundamentalReactivePowerSum;
    double impedance;
    double fundamentalImpedance;
    PowerResultsThd thdU;
    PowerResultsThd thdI;
    PowerResultsThd thdUL;
    PowerResultsThd interharmonicDistortionU;
    PowerResultsThd interharmonicDistortionI;
    PowerResultsThd interharmonicDistortionUL;
    double currentHarmonicContent;
    const TarnelFloat2* fftU;
    const TarnelFloat2* fftI;
    const TarnelFloat2* fftUL;
    const float* harmonicsU;
    const float* harmonicsI;
    const float* harmonicsUL;
    const float* interharmonicsU;
    const float* interharmonicsI;
    const float* interharmonicsUL;
    const float* harmonicActivePowers;
    const float* harmonicReactivePowers;
    const float* harmonicApparentPowers;
    const float* harmonicImpedances;
    const float* harmonicAnglesU;
    const float* harmonicAnglesI;
} PowerResultsPhase;

/* One sequence component (zero, positive or negative) of a three-phase set. */
typedef struct PowerResultsSymmetricalComponent {
    ComplexDouble voltage;
    ComplexDouble lineToLineVoltage;
    ComplexDouble current;
    double voltageMagnitude;
    double lineToLineVoltageMagnitude;
    double currentMagnitude;
    double activePower;
    double reactivePower;
    double apparentPower;
    double activeCurrent;
    double reactiveCurrent;
    double powerFactor;
    double voltageAllBins;
    double currentAllBins;
    double voltageAllBinsRatio;
    double currentAllBinsRatio;
    double voltageRatio;
    double currentRatio;
} PowerResultsSymmetricalComponent;

/* The result of one block calculation: phases[0..phasesCount-1] per phase,
 * phases[3] the totals. */
typedef struct PowerResultsGeneral {
    double endTime;
    double frequency;
    double dFrequency;
    double referenceAngle;
    uint64_t firstSampleIndex;
    uint32_t length;
    uint32_t fftOutputLength;
    uint32_t harmonicLength;
    uint8_t phasesCount;
    uint8_t reserved[3];
    PowerResultsPhase phases[4];
    PowerResultsSymmetricalComponent symmetricalComponents[3];
    ComplexDouble clarkeU[3];
    double parkU[3];
    ComplexDouble clarkeI[3];
    double parkI[3];
} PowerResultsGeneral;

/* A position on the sample axis: whole sample index plus a fraction. */
typedef struct PreciseFraction {
    uint64_t index;
    double fraction;
} PreciseFraction;

/* One period of the fundamental between two zero crossings, in caller samples. */
typedef struct ZeroCrossingInterval {
    PreciseFraction start;
    PreciseFraction end;
    double frequency;
    bool valid;
} ZeroCrossingInterval;

/* Result of one rapid-voltage-change detector; state -1 before the first value,
 * 0 steady, 1 event in progress. */
typedef struct RvcResult {
    bool stateChanged;
    bool firstValue;
    int32_t state;
    bool eventDetected;
    uint32_t eventCount;
    float deltaUss;
    float deltaUmax;
    double duration;
    double time;
} RvcResult;

/* Result of one dip detector. */
typedef struct DipResult {
    bool firstValue;
    bool eventEnded;
    bool eventStarted;
    uint32_t eventCount;
    double depthInPercent;
    double residualVoltage;
    double duration;
    double timeBelowThreshold;
    double time;
} DipResult;

/* Result of one swell detector. */
typedef struct SwellResult {
    bool firstValue;
    bool eventEnded;
    bool eventStarted;
    uint32_t eventCount;
    double maximumVoltage;
    double duration;
    double timeAboveThreshold;
    double time;
} SwellResult;

/* One record of a period value; a value is (phases + 1) records, record 0 the
 * combination of all phases, record p phase p. */
typedef struct PowerResultsPeriod {
    double time;
    double frequency;
    double rmsU;
    double rmsI;
    double rmsUL;
    double activePower;
    double nonActivePower;
    double apparentPower;
    double powerFactor;
    double fundamentalU;
    double fundamentalI;
    double reserved;
    double fundamentalActivePower;
    double fundamentalReactivePower;
    double fundamentalReactivePowerSum;
    double fundamentalApparentPower;
    double fundamentalPhaseAngle;
    bool valid;
    RvcResult rvc;
    RvcResult rvcUL;
    DipResult dip;
    DipResult dipUL;
    SwellResult swell;
    SwellResult swellUL;
    PowerResultsSymmetricalComponent symmetricalComponent;
} PowerResultsPeriod;

/* The records are exchanged with the library byte for byte. */
_Static_assert(sizeof(TarnelFloat2) == 8, "TarnelFloat2 layout");
_Static_assert(sizeof(PowerResultsThd) == 72, "PowerResultsThd layout");
_Static_assert(sizeof(PowerResultsPhase) == 776, "PowerResultsPhase layout");
_Static_assert(offsetof(PowerResultsPhase, spectralRmsU) == 56, "PowerResultsPhase layout");
_Static_assert(offsetof(PowerResultsPhase, fundamentalImpedance) == 208, "PowerResultsPhase layout");
_Static_assert(offsetof(PowerResultsPhase, thdU) == 216, "PowerResultsPhase layout");
_Static_assert(offsetof(PowerResultsPhase, interharmonicDistortionUL) == 576, "PowerResultsPhase layout");
_Static_assert(offsetof(PowerResultsPhase, currentHarmonicContent) == 648, "PowerResultsPhase layout");
_Static_assert(offsetof(PowerResultsPhase, fftU) == 656, "PowerResultsPhase layout");
_Static_assert(offsetof(PowerResultsPhase, harmonicsU) == 680, "PowerResultsPhase layout");
_Static_assert(offsetof(PowerResultsPhase, harmonicActivePowers) == 728, "PowerResultsPhase layout");
_Static_assert(offsetof(PowerResultsPhase, harmonicAnglesI) == 768, "PowerResultsPhase layout");
_Static_assert(sizeof(PowerResultsSymmetricalComponent) == 168, "PowerResultsSymmetricalComponent layout");
_Static_assert(offsetof(PowerResultsSymmetricalComponent, current) == 32, "PowerResultsSymmetricalComponent layout");
_Static_assert(offsetof(PowerResultsSymmetricalComponent, voltageMagnitude) == 48,
               "PowerResultsSymmetricalComponent layout");
_Static_assert(offsetof(PowerResultsSymmetricalComponent, currentRatio) == 160,
               "PowerResultsSymmetricalComponent layout");
_Static_assert(sizeof(PowerResultsGeneral) == 3808, "PowerResultsGeneral layout");
_Static_assert(offsetof(PowerResultsGeneral, firstSampleIndex) == 32, "PowerResultsGeneral layout");
_Static_assert(offsetof(PowerResultsGeneral, length) == 40, "PowerResultsGeneral layout");
_Static_assert(offsetof(PowerResultsGeneral, harmonicLength) == 48, "PowerResultsGeneral layout");
_Static_assert(offsetof(PowerResultsGeneral, phasesCount) == 52, "PowerResultsGeneral layout");
_Static_assert(offsetof(PowerResultsGeneral, phases) == 56, "PowerResultsGeneral layout");
_Static_assert(offsetof(PowerResultsGeneral, symmetricalComponents) == 3160, "PowerResultsGeneral layout");
_Static_assert(offsetof(PowerResultsGeneral, clarkeU) == 3664, "PowerResultsGeneral layout");
_Static_assert(offsetof(PowerResultsGeneral, parkU) == 3712, "PowerResultsGeneral layout");
_Static_assert(offsetof(PowerResultsGeneral, clarkeI) == 3736, "PowerResultsGeneral layout");
_Static_assert(offsetof(PowerResultsGeneral, parkI) == 3784, "PowerResultsGeneral layout");
_Static_assert(sizeof(PreciseFraction) == 16, "PreciseFraction layout");
_Static_assert(offsetof(PreciseFraction, fraction) == 8, "PreciseFraction layout");
_Static_assert(sizeof(ZeroCrossingInterval) == 48, "ZeroCrossingInterval layout");
_Static_assert(offsetof(ZeroCrossingInterval, end) == 16, "ZeroCrossingInterval layout");
_Static_assert(offsetof(ZeroCrossingInterval, frequency) == 32, "ZeroCrossingInterval layout");
_Static_assert(offsetof(ZeroCrossingInterval, valid) == 40, "ZeroCrossingInterval layout");
_Static_assert(sizeof(RvcResult) == 40, "RvcResult layout");
_Static_assert(offsetof(RvcResult, state) == 4, "RvcResult layout");
_Static_assert(offsetof(RvcResult, eventCount) == 12, "RvcResult layout");
_Static_assert(offsetof(RvcResult, duration) == 24, "RvcResult layout");
_Static_assert(sizeof(DipResult) == 48, "DipResult layout");
_Static_assert(offsetof(DipResult, eventCount) == 4, "DipResult layout");
_Static_assert(offsetof(DipResult, depthInPercent) == 8, "DipResult layout");
_Static_assert(offsetof(DipResult, time) == 40, "DipResult layout");
_Static_assert(sizeof(SwellResult) == 40, "SwellResult layout");
_Static_assert(offsetof(SwellResult, eventCount) == 4, "SwellResult layout");
_Static_assert(offsetof(SwellResult, maximumVoltage) == 8, "SwellResult layout");
_Static_assert(offsetof(SwellResult, time) == 32, "SwellResult layout");
_Static_assert(sizeof(PowerResultsPeriod) == 568, "PowerResultsPeriod layout");
_Static_assert(offsetof(PowerResultsPeriod, fundamentalActivePower) == 96, "PowerResultsPeriod layout");
_Static_assert(offsetof(PowerResultsPeriod, valid) == 136, "PowerResultsPeriod layout");
_Static_assert(offsetof(PowerResultsPeriod, rvc) == 144, "PowerResultsPeriod layout");
_Static_assert(offsetof(PowerResultsPeriod, rvcUL) == 184, "PowerResultsPeriod layout");
_Static_assert(offsetof(PowerResultsPeriod, dip) == 224, "PowerResultsPeriod layout");
_Static_assert(offsetof(PowerResultsPeriod, dipUL) == 272, "PowerResultsPeriod layout");
_Static_assert(offsetof(PowerResultsPeriod, swell) == 320, "PowerResultsPeriod layout");
_Static_assert(offsetof(PowerResultsPeriod, swellUL) == 360, "PowerResultsPeriod layout");
_Static_assert(offsetof(PowerResultsPeriod, symmetricalComponent) == 400, "PowerResultsPeriod layout");

#endif /* __cplusplus */

/* The records in the declarations below: the C structures in C, the library's
 * C++ records (namespace tarnel) in C++. */
#ifdef __cplusplus
#define TARNEL_C_RECORD(name) ::tarnel::name
#else
#define TARNEL_C_RECORD(name) name
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes returned by every function except the create functions. A null
 * handle or a null output pointer gives TARNEL_ERROR. The text of every failure
 * can be read with powerModule_getLastErrorMessage. */
typedef enum TarnelStatus {
    TARNEL_SUCCESS = 0,
    TARNEL_ERROR = 1,            /* a refused call or any failure other than the two below; not reported */
    TARNEL_TOO_MANY_RESULTS = 2, /* getResults: the results did not fit the array; not reported */
    TARNEL_GPU_ERROR = 3         /* a CUDA or cuFFT failure; its message went to the reporter */
} TarnelStatus;

/* Backend kinds of powerModule_createWithBackend. */
typedef enum TarnelBackendKind {
    TARNEL_BACKEND_AUTO = 0, /* a CUDA device when one is present, the CPU otherwise */
    TARNEL_BACKEND_CPU = 1,
    TARNEL_BACKEND_CUDA = 2
} TarnelBackendKind;

/* The module behind a handle; callers never dereference it. */
typedef struct TarnelPowerModule* PowerModuleHandle;

/* Receives (1, message) for every CUDA or cuFFT failure, on the calling
 * thread, before the failing function returns TARNEL_GPU_ERROR. The message is
 * valid only during the call. */
typedef void (*ReportErrorCallback)(int code, const char* message);

/* The reporter of the whole process; null (no reporting) at load. Written by
 * registerErrorReporter only. */
extern TARNEL_API ReportErrorCallback reportErrorCallbackFunction;

/* Module and reporter. The create functions return null when the module
 * cannot be built; they report nothing. */
TARNEL_API PowerModuleHandle powerModule_create(void);
/* backendKind: a TarnelBackendKind; other values give null. */
TARNEL_API PowerModuleHandle powerModule_createWithBackend(int backendKind);
/* A CPU module whose device memory is limited to `bytes` (0: no limit); a larger
 * request fails as a device allocation does. */
TARNEL_API PowerModuleHandle powerModule_createCpuWithMemoryCapacity(unsigned long long bytes);
/* Accepts null. Always returns TARNEL_SUCCESS. */
TARNEL_API int powerModule_destroy(PowerModuleHandle handle);
/* Null switches reporting off. Register before modules are used. */
TARNEL_API int registerErrorReporter(ReportErrorCallback callback);
/* Copies the text of the last call on this handle that did not succeed into
 * buffer (at most size - 1 characters and a terminating NUL); "" when none
 * failed. TARNEL_ERROR for a null handle (the buffer then says so), a null
 * buffer or a size below 1. */
TARNEL_API int powerModule_getLastErrorMessage(PowerModuleHandle handle, char* buffer, int size);
/* The same for the last failed call made on the calling thread, whatever its
 * module: the way to learn why a create function returned null. */
TARNEL_API int powerModule_getThreadLastErrorMessage(char* buffer, int size);

/* Settings. A setter outside beginUpdate/endUpdate rebuilds the module at once
 * where the setting affects buffers, plans or detectors; inside, endUpdate
 * rebuilds once. A refused setter or endUpdate (TARNEL_ERROR, or
 * TARNEL_GPU_ERROR when the device fails) leaves every setting as it was; a
 * refused endUpdate closes the update and keeps the settings from before it.
 * Buffers are built once the sample rate and the buffer length are set, so
 * settings may be made one at a time in any order. Getters write through
 * their pointer only on success. */
TARNEL_API int setClarkeOrParkCurrentsEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getClarkeOrParkCurrentsEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setClarkeOrParkVoltagesEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getClarkeOrParkVoltagesEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setClarkeOrParkWaveformsEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getClarkeOrParkWaveformsEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setClarkeTransformEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getClarkeTransformEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setCurrentEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getCurrentEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setDipSwellEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getDipSwellEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setFullFftEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getFullFftEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setFundamentalPeriodValuesEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getFundamentalPeriodValuesEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setInterHarmonicsEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getInterHarmonicsEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setLineToLineResultsEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getLineToLineResultsEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setMechanicalAngleUsed(PowerModuleHandle handle, bool used);
TARNEL_API int getMechanicalAngleUsed(PowerModuleHandle handle, bool* used);
TARNEL_API int setParkTransformEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getParkTransformEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setPeriodSymmetricalComponentsEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getPeriodSymmetricalComponentsEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setPeriodValuesEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getPeriodValuesEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setRvcEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getRvcEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setSymmetricalComponentsEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getSymmetricalComponentsEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setThdEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getThdEnabled(PowerModuleHandle handle, bool* enabled);
TARNEL_API int setWaveformsEnabled(PowerModuleHandle handle, bool enabled);
TARNEL_API int getWaveformsEnabled(PowerModuleHandle handle, bool* enabled);

/* Percentages of the reference voltage, volts and degrees. */
TARNEL_API int setDipHysteresis(PowerModuleHandle handle, double percent);
TARNEL_API int getDipHysteresis(PowerModuleHandle handle, double* percent);
TARNEL_API int setDipThreshold(PowerModuleHandle handle, double percent);
TARNEL_API int getDipThreshold(PowerModuleHandle handle, double* percent);
TARNEL_API int setSwellHysteresis(PowerModuleHandle handle, double percent);
TARNEL_API int getSwellHysteresis(PowerModuleHandle handle, double* percent);
TARNEL_API int setSwellThreshold(PowerModuleHandle handle, double percent);
TARNEL_API int getSwellThreshold(PowerModuleHandle handle, double* percent);
TARNEL_API int setNominalVoltage(PowerModuleHandle handle, double volts);
TARNEL_API int getNominalVoltage(PowerModuleHandle handle, double* volts);
TARNEL_API int setNominalLineToLineVoltage(PowerModuleHandle handle, double volts);
TARNEL_API int getNominalLineToLineVoltage(PowerModuleHandle handle, double* volts);
TARNEL_API int setMechAngleOffset(PowerModuleHandle handle, double degrees);
TARNEL_API int getMechAngleOffset(PowerModuleHandle handle, double* degrees);

TARNEL_API int setRvcSteadyStateLengthInNumberOfPeriodValues(PowerModuleHandle handle, int length);
TARNEL_API int getRvcSteadyStateLengthInNumberOfPeriodValues(PowerModuleHandle handle, int* length);
TARNEL_API int setRvcThresholdInPercentOfAverage(PowerModuleHandle handle, double percent);
TARNEL_API int getRvcThresholdInPercentOfAverage(PowerModuleHandle handle, double* percent);
TARNEL_API int setRvcThresholdHysteresisInPercentOfThreshold(PowerModuleHandle handle, double percent);
TARNEL_API int getRvcThresholdHysteresisInPercentOfThreshold(PowerModuleHandle handle, double* percent);

TARNEL_API int setHighestRequestedHarmonic(PowerModuleHandle handle, int order);
TARNEL_API int getHighestRequestedHarmonic(PowerModuleHandle handle, int* order);
TARNEL_API int setThdHighestHarmonic(PowerModuleHandle handle, int order);
TARNEL_API int getThdHighestHarmonic(PowerModuleHandle handle, int* order);
TARNEL_API int setPolePairs(PowerModuleHandle handle, int polePairs);
TARNEL_API int getPolePairs(PowerModuleHandle handle, int* polePairs);
/* type: 0 one phase, 1 three phases star with three currents, 2 star with two
 * currents, 3 delta with three currents, 4 delta with two currents, 5 two
 * phases star, 6 two delta voltages with two currents, 7 one phase (alternative). */
TARNEL_API int setGridConfigType(PowerModuleHandle handle, int type);

TARNEL_API int setHalfPeriodValuesCount(PowerModuleHandle handle, unsigned short count);
TARNEL_API int getHalfPeriodValuesCount(PowerModuleHandle handle, unsigned short* count);
TARNEL_API int setPeriodValuesOverlapInPercent(PowerModuleHandle handle, unsigned short overlap);
TARNEL_API int getPeriodValuesOverlapInPercent(PowerModuleHandle handle, unsigned short* overlap);
TARNEL_API int setPeriodCount(PowerModuleHandle handle, unsigned short count);

TARNEL_API int getPhasesCount(PowerModuleHandle handle, unsigned char* count);
TARNEL_API int getVoltagesCount(PowerModuleHandle handle, unsigned char* count);
TARNEL_API int getCurrentsCount(PowerModuleHandle handle, unsigned char* count);

/* length: samples per ring (widened with its sign). */
TARNEL_API int setBufferLength(PowerModuleHandle handle, int length);
/* Keeps the ring length in samples. */
TARNEL_API int setSampleRate(PowerModuleHandle handle, double sampleRate, int sampleRateDivider);
/* tolerance is limited to 0.001 .. 0.5. */
TARNEL_API int setStaticFrequency(PowerModuleHandle handle, double frequency, double tolerance);
TARNEL_API int setVariableFrequency(PowerModuleHandle handle, double minFrequency, double maxFrequency);

/* Life cycle. */
TARNEL_API int beginUpdate(PowerModuleHandle handle);
TARNEL_API int endUpdate(PowerModuleHandle handle);
TARNEL_API int reset(PowerModuleHandle handle, unsigned long long firstSampleIndex);
/* Waits until the device has finished all work of the process. */
TARNEL_API int syncCuda(PowerModuleHandle handle);

/* Samples: write into the rings handed out by the waveform-buffer getters,
 * then announce how many were added. */
TARNEL_API int writeSamples(PowerModuleHandle handle, unsigned int count);
TARNEL_API int skipSamples(PowerModuleHandle handle, unsigned int count);

/* Block calculations and their results. The frequency must lie below half the
 * sample rate and at or above the resolution of the block's FFT; frequencies
 * outside the configured range inside those bounds are calculated with the
 * FFT length of the nearest end of the range. A calculation that would reuse
 * the storage of a result not yet collected is refused. getResults copies at
 * most maxResults records (results must have room for them); results beyond
 * maxResults stay queued for the next call. maxResults 0 succeeds only when no
 * result is ready and otherwise returns TARNEL_TOO_MANY_RESULTS, collecting
 * nothing; a negative maxResults gives TARNEL_ERROR. */
TARNEL_API int scheduleForCalculation(PowerModuleHandle handle, unsigned long long firstSampleIndex, int length,
                                      double frequency);
TARNEL_API int isAnyResultReady(PowerModuleHandle handle, bool* ready);
TARNEL_API int getResults(PowerModuleHandle handle, int maxResults, int* resultsCount,
                          TARNEL_C_RECORD(PowerResultsGeneral) * results);

/* Period values. getPeriodResults hands out a pointer into the module's own
 * ring: *count values of (phases + 1) records each. */
TARNEL_API int scheduleForPeriodCalculation(PowerModuleHandle handle, int count, unsigned long long* firstSamples,
                                            int* lengths, double* frequencies, bool* valid);
TARNEL_API int scheduleForPeriodCalculationFromZeroCrossing(PowerModuleHandle handle, int count,
                                                            const TARNEL_C_RECORD(ZeroCrossingInterval) * intervals);
TARNEL_API int getPeriodResults(PowerModuleHandle handle, int* count, bool* more,
                                TARNEL_C_RECORD(PowerResultsPeriod) * *results);

/* Host rings of the module, valid until the next rebuild. */
TARNEL_API int getWaveformBufferUInput(PowerModuleHandle handle, unsigned char channel, float** buffer);
TARNEL_API int getWaveformBufferUStar(PowerModuleHandle handle, unsigned char channel, float** buffer);
TARNEL_API int getWaveformBufferUDelta(PowerModuleHandle handle, unsigned char channel, float** buffer);
TARNEL_API int getWaveformBufferI(PowerModuleHandle handle, unsigned char channel, float** buffer);
TARNEL_API int getWaveformBufferClarkeU(PowerModuleHandle handle, unsigned char channel, float** buffer);
TARNEL_API int getWaveformBufferClarkeI(PowerModuleHandle handle, unsigned char channel, float** buffer);
TARNEL_API int getWaveformBufferParkU(PowerModuleHandle handle, unsigned char channel, float** buffer);
TARNEL_API int getWaveformBufferParkI(PowerModuleHandle handle, unsigned char channel, float** buffer);
TARNEL_API int getWaveformBufferMechAngles(PowerModuleHandle handle, float** buffer);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif /* TARNEL_TARNEL_H */
