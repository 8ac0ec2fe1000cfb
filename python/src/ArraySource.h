// Samples held in memory (numpy arrays) as a recording for the analyser.
#pragma once

#include <vector>

#include "SignalSource.h"

namespace tarnel::bindings {

using tarnel::analyser::SignalSource;
using tarnel::analyser::SourceInfo;

class ArraySource final : public SignalSource {
  public:
    // voltages[c] and currents[c] hold `samples` values each.
    ArraySource(SourceInfo info, std::vector<std::vector<float>> voltages, std::vector<std::vector<float>> currents);
    const SourceInfo& info() const override { return info_; }
    size_t read(std::vector<std::vector<float>>& voltages, std::vector<std::vector<float>>& currents,
                size_t count) override;

  private:
    SourceInfo info_;
    std::vector<std::vector<float>> voltages_, currents_;
    size_t position = 0;
};

}  // namespace tarnel::bindings
