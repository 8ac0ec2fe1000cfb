// The built-in recording: three-phase 230 V / 50 Hz with currents, a harmonic
// mix, a slight unbalance and an interharmonic, and three scripted events: a
// dip to 60 % on L1 for 100 ms, a swell to 115 % on L3 for 100 ms and a
// rapid voltage change of +3 % on all phases. The events come after the first
// two seconds, once the rapid-voltage-change window (100 periods) is full.
#pragma once

#include <vector>

#include "SignalSource.h"

namespace tarnel::analyser {

struct SyntheticEvents {
    double dipStart = 2.5, dipDuration = 0.1, dipLevel = 0.6;         // L1
    double swellStart = 3.5, swellDuration = 0.1, swellLevel = 1.15;  // L3
    double stepTime = 7.0, stepLevel = 1.03;                          // all phases
};

class SyntheticRecording final : public SignalSource {
  public:
    explicit SyntheticRecording(double sampleRate = 51200.0, double seconds = 10.0);
    const SourceInfo& info() const override { return sourceInfo; }
    size_t read(std::vector<std::vector<float>>& voltages, std::vector<std::vector<float>>& currents,
                size_t count) override;
    static const SyntheticEvents& events();

  private:
    double envelope(int phase, double t) const;
    void buildWaveTables();
    SourceInfo sourceInfo;
    // One repeat of each phase's undisturbed waveform (voltage, current), so
    // that long recordings cost table lookups rather than sines.
    size_t tableLength = 0;
    std::vector<std::vector<float>> voltageTable, currentTable;
    uint64_t position = 0;
};

}  // namespace tarnel::analyser
