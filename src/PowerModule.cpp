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

// Settings that change the buffer layout, the plans or the detectors rebuild.
#define TARNEL_REBUILDING_SETTING(Name, Type, field)                                             \
    void PowerModule::set##Name(Type value) { impl->setAndRebuild(&PowerConfig::field, value); } \
    Type PowerModule::get##Name() const { return impl->getConfig().field; }

TARNEL_REBUILDING_SETTING(LineToLineResultsEnabled, bool, lineToLineResultsEnabled)
TARNEL_REBUILDING_SETTING(WaveformsEnabled, bool, waveformsEnabled)
TARNEL_REBUILDING_SETTING(InterHarmonicsEnabled, bool, interHarmonicsEnabled)
TARNEL_REBUILDING_SETTING(ThdEnabled, bool, thdEnabled)
TARNEL_REBUILDING_SETTING(PeriodValuesEnabled, bool, periodValuesEnabled)
TARNEL_REBUILDING_SETTING(FundamentalPeriodValuesEnabled, bool, fundamentalPeriodValuesEnabled)
TARNEL_REBUILDING_SETTING(RvcEnabled, bool, rvcEnabled)
TARNEL_REBUILDING_SETTING(DipSwellEnabled, bool, dipSwellEnabled)
TARNEL_REBUILDING_SETTING(ClarkeTransformEnabled, bool, clarkeTransformEnabled)
TARNEL_REBUILDING_SETTING(ParkTransformEnabled, bool, parkTransformEnabled)
TARNEL_REBUILDING_SETTING(ClarkeOrParkVoltagesEnabled, bool, clarkeOrParkVoltagesEnabled)
TARNEL_REBUILDING_SETTING(ClarkeOrParkCurrentsEnabled, bool, clarkeOrParkCurrentsEnabled)
TARNEL_REBUILDING_SETTING(ClarkeOrParkWaveformsEnabled, bool, clarkeOrParkWaveformsEnabled)
TARNEL_REBUILDING_SETTING(HighestRequestedHarmonic, int, highestRequestedHarmonic)
TARNEL_REBUILDING_SETTING(ThdHighestHarmonic, int, thdHighestHarmonic)
#undef TARNEL_REBUILDING_SETTING

// The same for getters that are not const in the public interface.
#define TARNEL_REBUILDING_SETTING_MUTABLE_GET(Name, Type, field)                                 \
    void PowerModule::set##Name(Type value) { impl->setAndRebuild(&PowerConfig::field, value); } \
    Type PowerModule::get##Name() { return impl->getConfig().field; }

TARNEL_REBUILDING_SETTING_MUTABLE_GET(RvcSteadyStateLength, int, rvcSteadyStateLength)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(RvcThreshold, double, rvcThreshold)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(RvcThresholdHysteresis, double, rvcThresholdHysteresis)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(DipThreshold, double, dipThreshold)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(SwellThreshold, double, swellThreshold)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(DipHysteresis, double, dipHysteresis)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(SwellHysteresis, double, swellHysteresis)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(NominalVoltage, double, nominalVoltage)
TARNEL_REBUILDING_SETTING_MUTABLE_GET(NominalLineToLineVoltage, double, nominalLineToLineVoltage)
#undef TARNEL_REBUILDING_SETTING_MUTABLE_GET

void PowerModule::setGridConfigType(PowerGridConfigType type) const {
    impl->setAndRebuild(&PowerConfig::gridConfigType, type);
}
void PowerModule::setCurrentEnabled(bool enabled) const { impl->setAndRebuild(&PowerConfig::currentEnabled, enabled); }
bool PowerModule::getCurrentEnabled() const { return impl->getConfig().currentEnabled; }
void PowerModule::setFullFftEnabled(bool enabled) { impl->setAndRebuild(&PowerConfig::fullFftEnabled, enabled); }
bool PowerModule::getFullFftEnabled() const { return impl->getFullFftEnabled(); }
void PowerModule::setSymmetricalComponentsEnabled(bool enabled) {
    impl->setAndRebuild(&PowerConfig::symmetricalComponentsEnabled, enabled);
}
bool PowerModule::getSymmetricalComponentsEnabled() const {
    return impl->getConfig().areSymmetricalComponentsEnabled();
}
void PowerModule::setPeriodSymmetricalComponentsEnabled(bool enabled) {
    impl->setAndRebuild(&PowerConfig::periodSymmetricalComponentsEnabled, enabled);
}
bool PowerModule::getPeriodSymmetricalComponentsEnabled() const {
    return impl->getConfig().arePeriodSymmetricalComponentsEnabled();
}
void PowerModule::setPeriodCount(unsigned short count) { impl->setAndRebuild(&PowerConfig::periodCount, count); }

// Settings read where they are used, without a rebuild.
void PowerModule::setHalfPeriodValuesCount(unsigned short count) { impl->getConfig().halfPeriodValuesCount = count; }
unsigned short PowerModule::getHalfPeriodValuesCount() { return impl->getConfig().halfPeriodValuesCount; }
void PowerModule::setPeriodValuesOverlapInPercent(unsigned short overlap) {
    impl->getConfig().periodValuesOverlapInPercent = overlap;
}
unsigned short PowerModule::getPeriodValuesOverlapInPercent() { return impl->getConfig().periodValuesOverlapInPercent; }
void PowerModule::setPolePairs(int polePairs) { impl->getConfig().polePairs = polePairs; }
int PowerModule::getPolePairs() const { return impl->getConfig().polePairs; }
void PowerModule::setMechAngleOffset(double degrees) { impl->getConfig().mechAngleOffset = degrees; }
double PowerModule::getMechAngleOffset() const { return impl->getConfig().mechAngleOffset; }
void PowerModule::setMechanicalAngleUsed(bool used) { impl->getConfig().mechanicalAngleUsed = used; }
bool PowerModule::getMechanicalAngleUsed() const { return impl->getConfig().mechanicalAngleUsed; }

void PowerModule::setSampleRate(double sampleRate, int sampleRateDivider) {
    const unsigned long long length = getBufferLength();
    impl->setSampleRate(sampleRate, sampleRateDivider);
    impl->setBufferLengthAndDuration(length, static_cast<double>(length) / sampleRate);
}
double PowerModule::getSampleRate() const { return impl->getConfig().sampleRate; }
void PowerModule::setBufferLength(unsigned long long length) {
    impl->setBufferLengthAndDuration(length, static_cast<double>(length) / getSampleRate());
}
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
