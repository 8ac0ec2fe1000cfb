// Samples held in memory (numpy arrays) as a recording for the analyser.
#pragma once

#include <optional>
#include <vector>

#include "SignalSource.h"

namespace tarnel::bindings {

using tarnel::analyser::SignalSource;
using tarnel::analyser::SourceInfo;

class ArraySource final : public SignalSource {
  public:
    // voltages[c] and currents[c] hold the same number of samples. Nominal
    // values not given are estimated from the samples as for a recording
    // that states none: the frequency from its spectrum, the voltage from
    // the cycles before the first disturbance.
    ArraySource(SourceInfo info, std::vector<std::vector<float>> voltages, std::vector<std::vector<float>> currents,
                std::optional<double> nominalVoltage, std::optional<double> nominalFrequency);
    const SourceInfo& info() const override { return info_; }
    size_t read(std::vector<std::vector<float>>& voltages, std::vector<std::vector<float>>& currents,
                size_t count) override;

  private:
    void chooseNominalFrequency(std::optional<double> given);
    void chooseNominalVoltage(std::optional<double> given);

    SourceInfo info_;
    std::vector<std::vector<float>> voltages_, currents_;
    size_t position = 0;
};

}  // namespace tarnel::bindings
