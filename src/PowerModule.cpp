// The public class: every member forwards to the implementation.
#include "tarnel/PowerModule.h"

#include "PowerModuleImpl.h"

namespace tarnel {

PowerModule::PowerModule() : PowerModule(BackendOptions{}) {}

PowerModule::PowerModule(BackendKind kind) : PowerModule(BackendOptions{kind, 0, false}) {}

PowerModule::PowerModule(const BackendOptions& options) : impl(std::make_unique<PowerModuleImpl>(*this, options)) {}

PowerModule::PowerModule(PowerModule&& other) noexcept : impl(std::move(other.impl)) {}

PowerModule& PowerModule::operator=(PowerModule&& other) noexcept {
    if (this != &other) impl = std::move(other.impl);
    return *this;
}

PowerModule::~PowerModule() = default;

BackendKind PowerModule::getBackendKind() const { return impl->getBackendKind(); }

namespace {

using Settings = PowerModule::PowerModuleImpl::Settings;

// Checks of single values; each throws std::invalid_argument naming the rule.
void anyFlag(bool) {}
void finiteValue(double value) { tarnel::requireFinite(value, "the value"); }
void harmonicOrder(int order) { tarnel::requireNonNegative(order, "a harmonic order"); }
void percentOfReference(double percent) { tarnel::requirePositiveFinite(percent, "the threshold"); }
void hysteresis(double percent) { tarnel::requireNonNegativeFinite(percent, "the hysteresis"); }
void voltage(double volts) { tarnel::requirePositiveFinite(volts, "the nominal voltage"); }
void steadyStateLength(int values) { tarnel::require(values >= 1, "the steady-state length must be at least 1"); }
void periodCount(unsigned short count) { tarnel::require(count >= 1, "the period count must be at least 1"); }
void halfPeriods(unsigned short count) {
    tarnel::require(count >= 1, "a period value must span at least one half-period");
}
void overlap(unsigned short percent) {
    tarnel::require(percent < 100, "the overlap of period values must stay below 100 %");
}
void gridType(PowerGridConfigType type) {
    tarnel::require(type >= SinglePhase && type <= SinglePhaseAlternative, "the grid type must be one of 0 to 7");
}

std::string describe(const char* name, bool value) { return tarnel::describeCall(name, value); }
std::string describe(const char* name, double value) { return tarnel::describeCall(name, value); }
std::string describe(const char* name, int value) { return tarnel::describeCall(name, static_cast<long long>(value)); }
std::string describe(const char* name, unsigned short value) {
    return tarnel::describeCall(name, static_cast<unsigned long long>(value));
}
std::string describe(const char* name, PowerGridConfigType value) {
    return tarnel::describeCall(name, static_cast<long long>(value));
}

// Stores one checked value; `rebuilds` says whether the module is rebuilt.
template <typename Field, typename Value, typename Check>
void store(PowerModule::PowerModuleImpl& impl, const char* name, Field PowerConfig::*field, Value value, Check check,
           bool rebuilds) {
    impl.changeSettings(
        describe(name, value),
        [&](Settings& s) {
            check(value);
            s.config.*field = static_cast<Field>(value);
        },
        rebuilds);
}

}  // namespace

// Settings that change the buffer layout, the plans or the detectors rebuild.
#define TARNEL_REBUILDING_SETTING(Name, Type, field, check)                                                         \
    void PowerModule::set##Name(Type value) { store(*impl, "set" #Name, &PowerConfig::field, value, check, true); } \
    Type PowerModule::get##Name() const { return impl->getConfig().field; }

TARNEL_REBUILDING_SETTING(LineToLineResultsEnabled, bool, lineToLineResultsEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(WaveformsEnabled, bool, waveformsEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(InterHarmonicsEnabled, bool, interHarmonicsEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(ThdEnabled, bool, thdEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(PeriodValuesEnabled, bool, periodValuesEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(FundamentalPeriodValuesEnabled, bool, fundamentalPeriodValuesEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(RvcEnabled, bool, rvcEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(DipSwellEnabled, bool, dipSwellEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(ClarkeTransformEnabled, bool, clarkeTransformEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(ParkTransformEnabled, bool, parkTransformEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(ClarkeOrParkVoltagesEnabled, bool, clarkeOrParkVoltagesEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(ClarkeOrParkCurrentsEnabled, bool, clarkeOrParkCurrentsEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(ClarkeOrParkWaveformsEnabled, bool, clarkeOrParkWaveformsEnabled, anyFlag)
TARNEL_REBUILDING_SETTING(HighestRequestedHarmonic, int, highestRequestedHarmonic, harmonicOrder)
TARNEL_REBUILDING_SETTING(ThdHighestHarmonic, int, thdHighestHarmonic, harmonicOrder)
#undef TARNEL_REBUILDING_SETTING

// The same for getters that are not const in the public interface.
#define TARNEL_REBUILDING_SETTING_MUTABLE_GET(Name, Type, field, check)                                             \
    void PowerModule::set##Name(Type value) { store(*impl, "set" #Name, &PowerConfig::field, value, check, true); } \
    Type PowerModule::get##Name() { return impl->getConfig().field; }

TARNEL_REBUILDING_SETTING_MUTABLE_GET(RvcSteadyStateLength, int, rvcSteadyStateLength, steadyStateLength)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(RvcThreshold, double, rvcThreshold, percentOfReference)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(RvcThresholdHysteresis, double, rvcThresholdHysteresis, hysteresis)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(DipThreshold, double, dipThreshold, percentOfReference)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(SwellThreshold, double, swellThreshold, percentOfReference)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(DipHysteresis, double, dipHysteresis, hysteresis)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(SwellHysteresis, double, swellHysteresis, hysteresis)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(NominalVoltage, double, nominalVoltage, voltage)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(NominalLineToLineVoltage, double, nominalLineToLineVoltage, voltage)
#undef TARNEL_REBUILDING_SETTING_MUTABLE_GET

void PowerModule::setGridConfigType(PowerGridConfigType type) const {
    store(*impl, "setGridConfigType", &PowerConfig::gridConfigType, type, gridType, true);
}
void PowerModule::setCurrentEnabled(bool enabled) const {
    store(*impl, "setCurrentEnabled", &PowerConfig::currentEnabled, enabled, anyFlag, true);
}
bool PowerModule::getCurrentEnabled() const { return impl->getConfig().currentEnabled; }
void PowerModule::setFullFftEnabled(bool enabled) {
    store(*impl, "setFullFftEnabled", &PowerConfig::fullFftEnabled, enabled, anyFlag, true);
}
bool PowerModule::getFullFftEnabled() const {
    return impl->getConfig().fullFftEnabled && !impl->getConfig().variableFrequency;
}
void PowerModule::setSymmetricalComponentsEnabled(bool enabled) {
    store(*impl, "setSymmetricalComponentsEnabled", &PowerConfig::symmetricalComponentsEnabled, enabled, anyFlag, true);
}
bool PowerModule::getSymmetricalComponentsEnabled() const {
    return impl->getConfig().areSymmetricalComponentsEnabled();
}
void PowerModule::setPeriodSymmetricalComponentsEnabled(bool enabled) {
    store(*impl, "setPeriodSymmetricalComponentsEnabled", &PowerConfig::periodSymmetricalComponentsEnabled, enabled,
          anyFlag, true);
}
bool PowerModule::getPeriodSymmetricalComponentsEnabled() const {
    return impl->getConfig().arePeriodSymmetricalComponentsEnabled();
}
void PowerModule::setPeriodCount(unsigned short count) {
    store(*impl, "setPeriodCount", &PowerConfig::periodCount, count, periodCount, true);
}

// Settings read where they are used, without a rebuild.
void PowerModule::setHalfPeriodValuesCount(unsigned short count) {
    store(*impl, "setHalfPeriodValuesCount", &PowerConfig::halfPeriodValuesCount, count, halfPeriods, false);
}
unsigned short PowerModule::getHalfPeriodValuesCount() { return impl->getConfig().halfPeriodValuesCount; }
void PowerModule::setPeriodValuesOverlapInPercent(unsigned short percent) {
    store(*impl, "setPeriodValuesOverlapInPercent", &PowerConfig::periodValuesOverlapInPercent, percent, overlap,
          false);
}
unsigned short PowerModule::getPeriodValuesOverlapInPercent() { return impl->getConfig().periodValuesOverlapInPercent; }
void PowerModule::setPolePairs(int polePairs) {
    impl->changeSettings(
        describe("setPolePairs", polePairs),
        [&](Settings& s) {
            tarnel::requireNonNegative(polePairs, "the pole pair count");
            const PowerConfig& c = s.config;
            const bool parkFromAngle =
                (c.areParkVoltagesEnabled() || c.areParkCurrentsEnabled()) && c.mechanicalAngleUsed;
            tarnel::require(polePairs >= 1 || !parkFromAngle,
                            "the Park transform from the mechanical angle needs at least one pole pair");
            s.config.polePairs = polePairs;
        },
        false);
}
int PowerModule::getPolePairs() const { return impl->getConfig().polePairs; }
void PowerModule::setMechAngleOffset(double degrees) {
    store(*impl, "setMechAngleOffset", &PowerConfig::mechAngleOffset, degrees, finiteValue, false);
}
double PowerModule::getMechAngleOffset() const { return impl->getConfig().mechAngleOffset; }
void PowerModule::setMechanicalAngleUsed(bool used) {
    store(*impl, "setMechanicalAngleUsed", &PowerConfig::mechanicalAngleUsed, used, anyFlag, false);
}
bool PowerModule::getMechanicalAngleUsed() const { return impl->getConfig().mechanicalAngleUsed; }

// The ring keeps its length in samples; its duration follows the new rate.
void PowerModule::setSampleRate(double sampleRate, int sampleRateDivider) {
    impl->setSampleRate(sampleRate, sampleRateDivider);
}
double PowerModule::getSampleRate() const { return impl->getConfig().sampleRate; }
void PowerModule::setBufferLength(unsigned long long length) { impl->setBufferLength(length); }
unsigned long long PowerModule::getBufferLength() const { return impl->getBufferLength(); }
void PowerModule::setStaticFrequency(double frequency, double tolerance) {
    impl->setStaticFrequency(frequency, tolerance);
}
void PowerModule::setVariableFrequency(double minFrequency, double maxFrequency) {
    impl->setVariableFrequency(minFrequency, maxFrequency);
}

unsigned char PowerModule::getPhasesCount() const { return impl->getConfig().getPhasesCount(); }
unsigned char PowerModule::getVoltagesCount() const { return impl->getConfig().getVoltagesCount(); }
unsigned char PowerModule::getCurrentsCount() const { return impl->getConfig().getCurrentsCount(); }

void PowerModule::beginUpdate() { impl->beginUpdate(); }
void PowerModule::endUpdate() { impl->endUpdate(); }
void PowerModule::reset(unsigned long long firstSampleIndex) const { impl->reset(firstSampleIndex); }
void PowerModule::sync() const { impl->syncCuda(); }

void PowerModule::writeSamples(unsigned int count) const { impl->copyAddedSamplesToGpu(count); }
void PowerModule::skipSamples(unsigned int count) const { impl->skipSamples(count); }
void PowerModule::scheduleForCalculation(unsigned long long firstSampleIndex, int length, double frequency) const {
    impl->scheduleForCalculation(firstSampleIndex, static_cast<unsigned int>(length), frequency);
}
std::vector<PowerResultsGeneral> PowerModule::getResults(int maxResults) {
    return impl->getResults(static_cast<unsigned int>(maxResults));
}
bool PowerModule::isAnyResultReady() const { return impl->isAnyResultReady(); }

void PowerModule::scheduleForPeriodCalculation(int count, unsigned long long* firstSamples, int* lengths,
                                               double* frequencies, bool* valid) const {
    impl->scheduleForPeriodCalculation(count, firstSamples, lengths, frequencies, valid);
}
void PowerModule::scheduleForPeriodCalculationFromZeroCrossing(
    const std::vector<ZeroCrossingInterval>& intervals) const {
    impl->scheduleForPeriodCalculationFromZeroCrossing(intervals);
}
void PowerModule::getPeriodResults(int* count, bool* more, PowerResultsPeriod** results) {
    impl->getPeriodResults(count, more, results);
}

void PowerModule::getWaveformBufferUInput(unsigned char channel, float** buffer) const {
    impl->getWaveformBufferUInput(channel, buffer);
}
void PowerModule::getWaveformBufferUStar(unsigned char channel, float** buffer) const {
    impl->getWaveformBufferUStar(channel, buffer);
}
void PowerModule::getWaveformBufferUDelta(unsigned char channel, float** buffer) const {
    impl->getWaveformBufferUDelta(channel, buffer);
}
void PowerModule::getWaveformBufferI(unsigned char channel, float** buffer) const {
    impl->getWaveformBufferI(channel, buffer);
}
void PowerModule::getWaveformBufferClarkeU(unsigned char channel, float** buffer) const {
    impl->getWaveformBufferClarkeU(channel, buffer);
}
void PowerModule::getWaveformBufferClarkeI(unsigned char channel, float** buffer) const {
    impl->getWaveformBufferClarkeI(channel, buffer);
}
void PowerModule::getWaveformBufferParkU(unsigned char channel, float** buffer) const {
    impl->getWaveformBufferParkU(channel, buffer);
}
void PowerModule::getWaveformBufferParkI(unsigned char channel, float** buffer) const {
    impl->getWaveformBufferParkI(channel, buffer);
}
void PowerModule::getWaveformBufferMechAngles(float** buffer) const { impl->getWaveformBufferMechAngles(buffer); }

}  // namespace tarnel
