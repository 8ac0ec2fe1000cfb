#include "ArraySource.h"

#include <algorithm>

namespace tarnel::bindings {

ArraySource::ArraySource(SourceInfo info, std::vector<std::vector<float>> voltages,
                         std::vector<std::vector<float>> currents)
    : info_(std::move(info)), voltages_(std::move(voltages)), currents_(std::move(currents)) {
    info_.totalSamples = voltages_.empty() ? 0 : voltages_[0].size();
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
