// The flat C interface: each function forwards to the same-named PowerModule
// member inside one guard that turns every exception into a status code and
// hands device failures to the registered reporter.
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "PowerModuleImpl.h"
#include "tarnel/CudaErrorHandling.h"
#include "tarnel/PowerErrorTooManyResults.h"
#include "tarnel/PowerModule.h"
#include "tarnel/tarnel.h"

using namespace tarnel;

PowerErrorTooManyResults::~PowerErrorTooManyResults() = default;

extern "C" {
TARNEL_API ReportErrorCallback reportErrorCallbackFunction = nullptr;
}

namespace {

// The text of the last failure on this thread, for failures that have no
// module to keep it (creation, a null handle).
thread_local std::string threadLastError;

PowerModule& moduleOf(PowerModuleHandle handle) {
    if (handle == nullptr) throw std::invalid_argument("the module handle is null");
    return *reinterpret_cast<PowerModule*>(handle);
}

PowerModuleHandle handleOf(PowerModule* module) { return reinterpret_cast<PowerModuleHandle>(module); }

template <typename T>
T* required(T* pointer, const char* name) {
    if (pointer == nullptr) throw std::invalid_argument(std::string("the output pointer ") + name + " is null");
    return pointer;
}

void report(const GpuException& e) noexcept {
    const ReportErrorCallback callback = reportErrorCallbackFunction;
    if (callback == nullptr) return;
    try {
        callback(1, e.what());
    } catch (...) {
        // A reporter written in C++ may throw; nothing may cross the C boundary.
    }
}

// Keeps the text of a failure for powerModule_getLastErrorMessage and the
// thread's own copy.
void remember(PowerModuleHandle handle, const char* message) noexcept {
    try {
        threadLastError = message;
        if (handle != nullptr) reinterpret_cast<PowerModule*>(handle)->implementation()->setLastErrorMessage(message);
    } catch (...) {
        // Without memory for the text the status code alone must do.
    }
}

// Runs `body` and maps what it throws to a status code. The handlers are
// tried in this order: device failures, too many results, everything else.
template <typename Body>
int guarded(PowerModuleHandle handle, Body&& body) noexcept {
    try {
        body();
        return TARNEL_SUCCESS;
    } catch (const GpuException& e) {
        remember(handle, e.what());
        report(e);
        return TARNEL_GPU_ERROR;
    } catch (const PowerErrorTooManyResults& e) {
        remember(handle, e.what());
        return TARNEL_TOO_MANY_RESULTS;
    } catch (const std::exception& e) {
        remember(handle, e.what());
        return TARNEL_ERROR;
    } catch (...) {
        remember(handle, "unknown failure");
        return TARNEL_ERROR;
    }
}

// Copies `text` into the caller's buffer of `size` bytes, cut short if needed.
int copyMessage(const std::string& text, char* buffer, int size) noexcept {
    if (buffer == nullptr || size <= 0) {
        remember(nullptr, "there is no room for the message: the buffer is null or its size below 1");
        return TARNEL_ERROR;
    }
    const size_t n = std::min(text.size(), static_cast<size_t>(size) - 1);
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
    return TARNEL_SUCCESS;
}

// Calls a getter and stores its value only once it has returned, so that a
// failing call leaves *out as it was.
template <typename T, typename Getter>
int getValue(PowerModuleHandle handle, T* out, Getter getter) noexcept {
    return guarded(handle, [&] {
        required(out, "for the value");
        const T value = (moduleOf(handle).*getter)();
        *out = value;
    });
}

template <typename... Creation>
PowerModuleHandle create(Creation&&... arguments) noexcept {
    try {
        return handleOf(new PowerModule(std::forward<Creation>(arguments)...));
    } catch (const std::exception& e) {
        remember(nullptr, e.what());
    } catch (...) {
        remember(nullptr, "unknown failure");
    }
    return nullptr;
}

}  // namespace

// Setter and getter pairs whose C names are the member names.
#define TARNEL_C_SETTING(Name, Type)                                        \
    int set##Name(PowerModuleHandle handle, Type value) {                   \
        return guarded(handle, [&] { moduleOf(handle).set##Name(value); }); \
    }                                                                       \
    int get##Name(PowerModuleHandle handle, Type* value) { return getValue(handle, value, &PowerModule::get##Name); }

// Pairs whose C names spell out the unit of the value.
#define TARNEL_C_RENAMED_SETTING(CName, Member, Type)                         \
    int set##CName(PowerModuleHandle handle, Type value) {                    \
        return guarded(handle, [&] { moduleOf(handle).set##Member(value); }); \
    }                                                                         \
    int get##CName(PowerModuleHandle handle, Type* value) { return getValue(handle, value, &PowerModule::get##Member); }

#define TARNEL_C_SETTER(Name, Type)                                         \
    int set##Name(PowerModuleHandle handle, Type value) {                   \
        return guarded(handle, [&] { moduleOf(handle).set##Name(value); }); \
    }

#define TARNEL_C_GETTER(Name, Type) \
    int get##Name(PowerModuleHandle handle, Type* value) { return getValue(handle, value, &PowerModule::get##Name); }

// Functions without results whose arguments pass through unchanged.
#define TARNEL_C_CALL(Name, Member, Parameters, Arguments)                  \
    int Name Parameters {                                                   \
        return guarded(handle, [&] { moduleOf(handle).Member Arguments; }); \
    }

#define TARNEL_C_WAVEFORM_BUFFER(Name)                                                                       \
    int Name(PowerModuleHandle handle, unsigned char channel, float** buffer) {                              \
        return guarded(handle, [&] { moduleOf(handle).Name(channel, required(buffer, "for the buffer")); }); \
    }

extern "C" {

PowerModuleHandle powerModule_create(void) { return create(); }

PowerModuleHandle powerModule_createWithBackend(int backendKind) {
    if (backendKind < TARNEL_BACKEND_AUTO || backendKind > TARNEL_BACKEND_CUDA) {
        try {
            remember(nullptr, ("there is no backend kind " + std::to_string(backendKind)).c_str());
        } catch (...) {
            // Without memory for the text the null handle alone must do.
        }
        return nullptr;
    }
    return create(static_cast<BackendKind>(backendKind));
}

PowerModuleHandle powerModule_createCpuWithMemoryCapacity(unsigned long long bytes) {
    BackendOptions options;
    options.kind = BackendKind::Cpu;
    options.cpuDeviceMemoryCapacity = static_cast<size_t>(bytes);
    return create(options);
}

int powerModule_destroy(PowerModuleHandle handle) {
    return guarded(nullptr, [&] { delete reinterpret_cast<PowerModule*>(handle); });
}

int registerErrorReporter(ReportErrorCallback callback) {
    reportErrorCallbackFunction = callback;
    return TARNEL_SUCCESS;
}

TARNEL_C_SETTING(ClarkeOrParkCurrentsEnabled, bool)
TARNEL_C_SETTING(ClarkeOrParkVoltagesEnabled, bool)
TARNEL_C_SETTING(ClarkeOrParkWaveformsEnabled, bool)
TARNEL_C_SETTING(ClarkeTransformEnabled, bool)
TARNEL_C_SETTING(CurrentEnabled, bool)
TARNEL_C_SETTING(DipSwellEnabled, bool)
TARNEL_C_SETTING(FullFftEnabled, bool)
TARNEL_C_SETTING(FundamentalPeriodValuesEnabled, bool)
TARNEL_C_SETTING(InterHarmonicsEnabled, bool)
TARNEL_C_SETTING(LineToLineResultsEnabled, bool)
TARNEL_C_SETTING(MechanicalAngleUsed, bool)
TARNEL_C_SETTING(ParkTransformEnabled, bool)
TARNEL_C_SETTING(PeriodSymmetricalComponentsEnabled, bool)
TARNEL_C_SETTING(PeriodValuesEnabled, bool)
TARNEL_C_SETTING(RvcEnabled, bool)
TARNEL_C_SETTING(SymmetricalComponentsEnabled, bool)
TARNEL_C_SETTING(ThdEnabled, bool)
TARNEL_C_SETTING(WaveformsEnabled, bool)

TARNEL_C_SETTING(DipHysteresis, double)
TARNEL_C_SETTING(DipThreshold, double)
TARNEL_C_SETTING(SwellHysteresis, double)
TARNEL_C_SETTING(SwellThreshold, double)
TARNEL_C_SETTING(NominalVoltage, double)
TARNEL_C_SETTING(NominalLineToLineVoltage, double)
TARNEL_C_SETTING(MechAngleOffset, double)

TARNEL_C_RENAMED_SETTING(RvcSteadyStateLengthInNumberOfPeriodValues, RvcSteadyStateLength, int)
TARNEL_C_RENAMED_SETTING(RvcThresholdInPercentOfAverage, RvcThreshold, double)
TARNEL_C_RENAMED_SETTING(RvcThresholdHysteresisInPercentOfThreshold, RvcThresholdHysteresis, double)

TARNEL_C_SETTING(HighestRequestedHarmonic, int)
TARNEL_C_SETTING(ThdHighestHarmonic, int)
TARNEL_C_SETTING(PolePairs, int)

TARNEL_C_SETTING(HalfPeriodValuesCount, unsigned short)
TARNEL_C_SETTING(PeriodValuesOverlapInPercent, unsigned short)
TARNEL_C_SETTER(PeriodCount, unsigned short)

TARNEL_C_GETTER(PhasesCount, unsigned char)
TARNEL_C_GETTER(VoltagesCount, unsigned char)
TARNEL_C_GETTER(CurrentsCount, unsigned char)

int setGridConfigType(PowerModuleHandle handle, int type) {
    return guarded(handle, [&] { moduleOf(handle).setGridConfigType(static_cast<PowerGridConfigType>(type)); });
}

int setBufferLength(PowerModuleHandle handle, int length) {
    // Widened with its sign: a negative length becomes a huge unsigned one.
    const auto widened = static_cast<unsigned long long>(static_cast<long long>(length));
    return guarded(handle, [&] { moduleOf(handle).setBufferLength(widened); });
}

TARNEL_C_CALL(setSampleRate, setSampleRate, (PowerModuleHandle handle, double sampleRate, int sampleRateDivider),
              (sampleRate, sampleRateDivider))
TARNEL_C_CALL(setStaticFrequency, setStaticFrequency, (PowerModuleHandle handle, double frequency, double tolerance),
              (frequency, tolerance))
TARNEL_C_CALL(setVariableFrequency, setVariableFrequency,
              (PowerModuleHandle handle, double minFrequency, double maxFrequency), (minFrequency, maxFrequency))

TARNEL_C_CALL(beginUpdate, beginUpdate, (PowerModuleHandle handle), ())
TARNEL_C_CALL(endUpdate, endUpdate, (PowerModuleHandle handle), ())
TARNEL_C_CALL(reset, reset, (PowerModuleHandle handle, unsigned long long firstSampleIndex), (firstSampleIndex))
TARNEL_C_CALL(syncCuda, sync, (PowerModuleHandle handle), ())
TARNEL_C_CALL(writeSamples, writeSamples, (PowerModuleHandle handle, unsigned int count), (count))
TARNEL_C_CALL(skipSamples, skipSamples, (PowerModuleHandle handle, unsigned int count), (count))
TARNEL_C_CALL(scheduleForCalculation, scheduleForCalculation,
              (PowerModuleHandle handle, unsigned long long firstSampleIndex, int length, double frequency),
              (firstSampleIndex, length, frequency))
TARNEL_C_CALL(scheduleForPeriodCalculation, scheduleForPeriodCalculation,
              (PowerModuleHandle handle, int count, unsigned long long* firstSamples, int* lengths, double* frequencies,
               bool* valid),
              (count, firstSamples, lengths, frequencies, valid))
int getPeriodResults(PowerModuleHandle handle, int* count, bool* more, PowerResultsPeriod** results) {
    return guarded(handle, [&] {
        moduleOf(handle).getPeriodResults(required(count, "for the count"), required(more, "for more"),
                                          required(results, "for the results"));
    });
}

int isAnyResultReady(PowerModuleHandle handle, bool* ready) {
    return getValue(handle, ready, &PowerModule::isAnyResultReady);
}

int getResults(PowerModuleHandle handle, int maxResults, int* resultsCount, PowerResultsGeneral* results) {
    return guarded(handle, [&] {
        PowerModule& module = moduleOf(handle);
        if (maxResults < 0)
            throw std::invalid_argument("getResults: maxResults must not be negative, not " +
                                        std::to_string(maxResults));
        required(resultsCount, "for the results count");
        if (maxResults > 0) required(results, "for the results");
        // maxResults 0 means "no limit" to the member but "no room" here: a
        // ready result is left queued rather than collected and lost.
        if (maxResults == 0 && module.isAnyResultReady())
            throw PowerErrorTooManyResults("Too many results to fit in allocated space.");
        const std::vector<PowerResultsGeneral> collected = module.getResults(maxResults);
        if (collected.size() > static_cast<unsigned int>(maxResults))
            throw PowerErrorTooManyResults("Too many results to fit in allocated space.");
        *resultsCount = static_cast<int>(collected.size());
        if (!collected.empty())
            std::memcpy(static_cast<void*>(results), collected.data(), collected.size() * sizeof(PowerResultsGeneral));
    });
}

int scheduleForPeriodCalculationFromZeroCrossing(PowerModuleHandle handle, int count,
                                                 const ZeroCrossingInterval* intervals) {
    return guarded(handle, [&] {
        PowerModule& module = moduleOf(handle);
        if (count < 0)
            throw std::invalid_argument(
                "scheduleForPeriodCalculationFromZeroCrossing: the interval count must not "
                "be negative, not " +
                std::to_string(count));
        if (count > 0 && intervals == nullptr)
            throw std::invalid_argument("scheduleForPeriodCalculationFromZeroCrossing: the intervals are null");
        std::vector<ZeroCrossingInterval> copies(intervals, intervals + count);
        module.scheduleForPeriodCalculationFromZeroCrossing(copies);
    });
}

int powerModule_getLastErrorMessage(PowerModuleHandle handle, char* buffer, int size) {
    if (handle == nullptr) {
        copyMessage("the module handle is null", buffer, size);
        remember(nullptr, "the module handle is null");
        return TARNEL_ERROR;
    }
    return copyMessage(reinterpret_cast<PowerModule*>(handle)->implementation()->getLastErrorMessage(), buffer, size);
}

int powerModule_getThreadLastErrorMessage(char* buffer, int size) { return copyMessage(threadLastError, buffer, size); }

TARNEL_C_WAVEFORM_BUFFER(getWaveformBufferUInput)
TARNEL_C_WAVEFORM_BUFFER(getWaveformBufferUStar)
TARNEL_C_WAVEFORM_BUFFER(getWaveformBufferUDelta)
TARNEL_C_WAVEFORM_BUFFER(getWaveformBufferI)
TARNEL_C_WAVEFORM_BUFFER(getWaveformBufferClarkeU)
TARNEL_C_WAVEFORM_BUFFER(getWaveformBufferClarkeI)
TARNEL_C_WAVEFORM_BUFFER(getWaveformBufferParkU)
TARNEL_C_WAVEFORM_BUFFER(getWaveformBufferParkI)

int getWaveformBufferMechAngles(PowerModuleHandle handle, float** buffer) {
    return guarded(handle, [&] { moduleOf(handle).getWaveformBufferMechAngles(required(buffer, "for the buffer")); });
}

}  // extern "C"
