#include "ArraySource.h"

#include <algorithm>
#include <cmath>

#include "SignalEstimates.h"
#include "tarnel/PowerGridConfig.h"

namespace tarnel::bindings {

using namespace tarnel::analyser;

namespace {

// The nominal values are estimated from this much of the start, as for recordings.
constexpr double kEstimationSeconds = 2.0;

}  // namespace

ArraySource::ArraySource(SourceInfo info, std::vector<std::vector<float>> voltages,
                         std::vector<std::vector<float>> currents, std::optional<double> nominalVoltage,
                         std::optional<double> nominalFrequency)
    : info_(std::move(info)), voltages_(std::move(voltages)), currents_(std::move(currents)) {
    info_.totalSamples = voltages_.empty() ? 0 : voltages_[0].size();
    chooseNominalFrequency(nominalFrequency);
    chooseNominalVoltage(nominalVoltage);
}

void ArraySource::chooseNominalFrequency(std::optional<double> given) {
    const size_t n =
        std::min<size_t>(info_.totalSamples, static_cast<size_t>(std::ceil(kEstimationSeconds * info_.sampleRate)));
    info_.measuredFrequency =
        voltages_.empty() ? 0.0 : estimateFundamentalFrequency(voltages_[0].data(), n, 1, info_.sampleRate);
    if (given) {
        info_.nominalFrequency = *given;
        info_.nominalFrequencySource = NominalSource::Given;
    } else if (info_.measuredFrequency > 0.0) {
        info_.nominalFrequency = nominalFrequencyFor(info_.measuredFrequency);
        info_.nominalFrequencySource = NominalSource::Estimated;
    } else {
        info_.nominalFrequency = 50.0;
        info_.nominalFrequencySource = NominalSource::Assumed;
    }
}

void ArraySource::chooseNominalVoltage(std::optional<double> given) {
    if (given) {
        info_.nominalVoltage = *given;
        info_.nominalVoltageSource = NominalSource::Given;
        return;
    }
    const size_t n =
        std::min<size_t>(info_.totalSamples, static_cast<size_t>(std::ceil(kEstimationSeconds * info_.sampleRate)));
    std::vector<std::vector<float>> start;
    for (const std::vector<float>& channel : voltages_) start.emplace_back(channel.begin(), channel.begin() + long(n));
    const double frequency = info_.measuredFrequency > 0.0 ? info_.measuredFrequency : info_.nominalFrequency;
    double level = preDisturbanceLevel(cycleRms(start, info_.sampleRate / frequency));
    // Delta grids carry line-to-line voltages; the nominal is a phase voltage.
    const int grid = info_.gridType;
    if (grid == ThreePhaseDeltaThreeCurrents || grid == ThreePhaseDeltaTwoCurrents ||
        grid == ThreePhaseTwoDeltaVoltagesTwoCurrents)
        level /= std::sqrt(3.0);
    info_.nominalVoltage = level > 0.0 ? level : 230.0;
    info_.nominalVoltageSource = level > 0.0 ? NominalSource::Estimated : NominalSource::Assumed;
}

size_t ArraySource::read(std::vector<std::vector<float>>& voltages, std::vector<std::vector<float>>& currents,
                         size_t count) {
    const size_t n = std::min<size_t>(count, info_.totalSamples - position);
    auto slice = [&](std::vector<std::vector<float>>& out, const std::vector<std::vector<float>>& in) {
        out.resize(in.size());
        for (size_t c = 0; c < in.size(); ++c)
            out[c].assign(in[c].begin() + static_cast<long>(position), in[c].begin() + static_cast<long>(position + n));
    };
    slice(voltages, voltages_);
    slice(currents, currents_);
    position += n;
    return n;
}

}  // namespace tarnel::bindings
