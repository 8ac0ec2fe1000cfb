// The analysis module: one object analyses one electrical system of up to
// three phases.
//
// Typical use:
//
//   tarnel::PowerModule module;              // a CUDA device if present, else the CPU
//   module.beginUpdate();
//   module.setGridConfigType(tarnel::ThreePhaseStarThreeCurrents);
//   module.setSampleRate(51200.0, 1);
//   module.setBufferLength(51200 * 2);       // two seconds of samples
//   module.setStaticFrequency(50.0, 0.1);
//   module.endUpdate();                      // one rebuild
//   module.reset(0);
//   float* u0;  module.getWaveformBufferUInput(0, &u0);   // write samples at index % length
//   ...
//   module.writeSamples(10240);
//   module.scheduleForCalculation(0, 10240, 50.0);
//   for (const tarnel::PowerResultsGeneral& r : module.getResults(0)) { ... }
#pragma once

#include <memory>
#include <vector>

#include "tarnel/DeviceBackend.h"
#include "tarnel/Export.h"
#include "tarnel/PowerGridConfig.h"
#include "tarnel/PowerResults.h"
#include "tarnel/PreciseFraction.h"
#include "tarnel/Version.h"

namespace tarnel {

class TARNEL_API PowerModule {
  public:
    class PowerModuleImpl;

    // Uses a CUDA device when one is present and the CPU backend otherwise.
    PowerModule();
    // Uses the backend `kind` asks for; Cuda without a device raises GpuException.
    explicit PowerModule(BackendKind kind);
    explicit PowerModule(const BackendOptions& options);
    PowerModule(PowerModule&& other) noexcept;
    PowerModule& operator=(PowerModule&& other) noexcept;
    PowerModule(const PowerModule&) = delete;
    PowerModule& operator=(const PowerModule&) = delete;
    ~PowerModule();

    // The backend this module computes on.
    BackendKind getBackendKind() const;

    void setGridConfigType(PowerGridConfigType type) const;
    void setSampleRate(double sampleRate, int sampleRateDivider);
    double getSampleRate() const;
    void setBufferLength(unsigned long long length);
    unsigned long long getBufferLength() const;
    void setStaticFrequency(double frequency, double tolerance);
    void setVariableFrequency(double minFrequency, double maxFrequency);
    void setPeriodCount(unsigned short count);

    void setCurrentEnabled(bool enabled) const;
    bool getCurrentEnabled() const;
    void setLineToLineResultsEnabled(bool enabled);
    bool getLineToLineResultsEnabled() const;
    void setWaveformsEnabled(bool enabled);
    bool getWaveformsEnabled() const;
    void setInterHarmonicsEnabled(bool enabled);
    bool getInterHarmonicsEnabled() const;
    void setFullFftEnabled(bool enabled);
    bool getFullFftEnabled() const;
    void setThdEnabled(bool enabled);
    bool getThdEnabled() const;
    void setSymmetricalComponentsEnabled(bool enabled);
    bool getSymmetricalComponentsEnabled() const;
    void setPeriodValuesEnabled(bool enabled);
    bool getPeriodValuesEnabled() const;
    void setFundamentalPeriodValuesEnabled(bool enabled);
    bool getFundamentalPeriodValuesEnabled() const;
    void setPeriodSymmetricalComponentsEnabled(bool enabled);
    bool getPeriodSymmetricalComponentsEnabled() const;
    void setRvcEnabled(bool enabled);
    bool getRvcEnabled() const;
    void setDipSwellEnabled(bool enabled);
    bool getDipSwellEnabled() const;
    void setClarkeTransformEnabled(bool enabled);
    bool getClarkeTransformEnabled() const;
    void setParkTransformEnabled(bool enabled);
    bool getParkTransformEnabled() const;
    void setClarkeOrParkVoltagesEnabled(bool enabled);
    bool getClarkeOrParkVoltagesEnabled() const;
    void setClarkeOrParkCurrentsEnabled(bool enabled);
    bool getClarkeOrParkCurrentsEnabled() const;
    void setClarkeOrParkWaveformsEnabled(bool enabled);
    bool getClarkeOrParkWaveformsEnabled() const;
    void setMechanicalAngleUsed(bool used);
    bool getMechanicalAngleUsed() const;

    void setHalfPeriodValuesCount(unsigned short count);
    unsigned short getHalfPeriodValuesCount();
    void setPeriodValuesOverlapInPercent(unsigned short overlap);
    unsigned short getPeriodValuesOverlapInPercent();
    void setHighestRequestedHarmonic(int order);
    int getHighestRequestedHarmonic() const;
    void setThdHighestHarmonic(int order);
    int getThdHighestHarmonic() const;
    void setPolePairs(int polePairs);
    int getPolePairs() const;
    void setRvcSteadyStateLength(int length);
    int getRvcSteadyStateLength();
    void setRvcThreshold(double percent);
    double getRvcThreshold();
    void setRvcThresholdHysteresis(double percent);
    double getRvcThresholdHysteresis();
    void setDipThreshold(double percent);
    double getDipThreshold();
    void setSwellThreshold(double percent);
    double getSwellThreshold();
    void setDipHysteresis(double percent);
    double getDipHysteresis();
    void setSwellHysteresis(double percent);
    double getSwellHysteresis();
    void setNominalVoltage(double volts);
    double getNominalVoltage();
    void setNominalLineToLineVoltage(double volts);
    double getNominalLineToLineVoltage();
    void setMechAngleOffset(double degrees);
    double getMechAngleOffset() const;

    unsigned char getPhasesCount() const;
    unsigned char getVoltagesCount() const;
    unsigned char getCurrentsCount() const;

    void beginUpdate();
    void endUpdate();
    void reset(unsigned long long firstSampleIndex) const;
    void sync() const;

    void writeSamples(unsigned int count) const;
    void skipSamples(unsigned int count) const;
    void scheduleForCalculation(unsigned long long firstSampleIndex, int length, double frequency) const;
    std::vector<PowerResultsGeneral> getResults(int maxResults);
    bool isAnyResultReady() const;

    void scheduleForPeriodCalculation(int count, unsigned long long* firstSamples, int* lengths, double* frequencies,
                                      bool* valid) const;
    void scheduleForPeriodCalculationFromZeroCrossing(const std::vector<ZeroCrossingInterval>& intervals) const;
    void getPeriodResults(int* count, bool* more, PowerResultsPeriod** results);

    void getWaveformBufferUInput(unsigned char channel, float** buffer) const;
    void getWaveformBufferUStar(unsigned char channel, float** buffer) const;
    void getWaveformBufferUDelta(unsigned char channel, float** buffer) const;
    void getWaveformBufferI(unsigned char channel, float** buffer) const;
    void getWaveformBufferClarkeU(unsigned char channel, float** buffer) const;
    void getWaveformBufferClarkeI(unsigned char channel, float** buffer) const;
    void getWaveformBufferParkU(unsigned char channel, float** buffer) const;
    void getWaveformBufferParkI(unsigned char channel, float** buffer) const;
    void getWaveformBufferMechAngles(float** buffer) const;

    // The implementation, for tools and tests inside the library's source tree.
    PowerModuleImpl* implementation() const { return impl.get(); }

  private:
    std::unique_ptr<PowerModuleImpl> impl;
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::PowerModule;
#endif
