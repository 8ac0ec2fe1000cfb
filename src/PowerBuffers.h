// Every buffer of one module, sized and laid out from its configuration.
#pragma once

#include <cstddef>
#include <memory>

#include "tarnel/GpuBuffer.h"
#include "tarnel/PowerConfig.h"
#include "tarnel/PowerResults.h"

namespace tarnel {

class Backend;

// Slot numbers of the sample ring and of the per-channel tables.
namespace slots {
constexpr unsigned short kVoltages = 0;
constexpr unsigned short kCurrents = 3;
constexpr unsigned short kLineToLine = 6;
constexpr unsigned short kMechanicalAngle = 9;
constexpr unsigned short kInterharmonicsU = 9;
constexpr unsigned short kInterharmonicsI = 12;
constexpr unsigned short kInterharmonicsUL = 15;
constexpr unsigned short kActivePowers = 18;
constexpr unsigned short kReactivePowers = 21;
constexpr unsigned short kApparentPowers = 24;
constexpr unsigned short kImpedances = 27;
constexpr unsigned short kAnglesU = 30;
constexpr unsigned short kAnglesI = 33;
constexpr unsigned short kAnglesUL = 36;
constexpr unsigned short kClarkeU = 0;
constexpr unsigned short kClarkeI = 3;
constexpr unsigned short kParkU = 6;
constexpr unsigned short kParkI = 9;
}  // namespace slots

class PowerBuffers {
  public:
    PowerBuffers(PowerConfig& config, std::shared_ptr<tarnel::Backend> backend);
    PowerBuffers(const PowerBuffers&) = delete;
    PowerBuffers& operator=(const PowerBuffers&) = delete;

    void setBufferLengthAndDuration(size_t bufferLength, double duration);
    // Rebuilds every slot map and length; reallocates only what changed size.
    void initialize();

    size_t getBufferLength() const { return bufferLength; }
    double getBufferDuration() const { return bufferDuration; }
    size_t getGeneralResultsBufferLength() const { return generalResultsBufferLength; }
    size_t getPeriodResultsBufferLength() const { return periodResultsBufferLength; }
    size_t getMinFftLength() const { return minFftLength; }
    size_t getMaxFftLength() const { return maxFftLength; }
    size_t getMaxFftOutputLength() const { return maxFftOutputLength; }
    size_t getRequiredHarmonicsCount() const { return requiredHarmonicsCount; }
    size_t getPeriodRecordsCount() const { return periodRecordsCount; }
    // True once a rebuild has produced sample rings.
    bool isBuilt() const { return built; }

  private:
    void addSampleItems(const PowerGridConfig& grid);
    void addClarkeParkItems();
    void addFftItems(unsigned short first, unsigned short count);
    void addHarmonicItems(unsigned short first, unsigned short count);
    void addSymmetricItems(GpuBuffer<double>& sums, GpuBuffer<double2>& phasors, bool currents);
    void addRowItems(bool voltages, bool currents);

    PowerConfig& config;
    size_t bufferLength = 0;
    double bufferDuration = 1.0;
    size_t generalResultsBufferLength = 1;
    size_t periodResultsBufferLength = 1;
    size_t minFftLength = 0;
    size_t maxFftLength = 0;
    size_t maxFftOutputLength = 0;
    size_t requiredHarmonicsCount = 0;
    size_t periodRecordsCount = 0;
    bool built = false;

  public:
    GpuBuffer<float> samplesBuffer;
    GpuBuffer<float> clarkeParkBuffer;
    GpuBuffer<float> fftInputBuffer;
    GpuBuffer<float2> fftOutputBuffer;
    GpuBuffer<float> harmonicsBuffer;
    GpuBuffer<PowerResultsThd> thdBuffer;
    GpuBuffer<double> symmetricalComponentsBuffer;
    GpuBuffer<double2> symmetricalComponentsH1Buffer;
    GpuBuffer<double2> clarkeH1Buffer;
    GpuBuffer<double> parkBuffer;
    GpuBuffer<PowerResultsGeneral> generalResultsBuffer;
    GpuBuffer<PowerResultsPeriod> periodResultsBuffer;
    GpuBuffer<double> periodReferenceBuffer;
};

}  // namespace tarnel
