// Creates a module for a three-phase grid, configures it, writes one block of
// samples and prints the configuration the module derived from its settings.
#include <cmath>
#include <cstdio>

#include "tarnel/PowerModule.h"

using namespace tarnel;

int main() {
    const double sampleRate = 51200.0;
    PowerModule module;
    module.beginUpdate();
    module.setGridConfigType(ThreePhaseStarThreeCurrents);
    module.setSampleRate(sampleRate, 1);
    module.setBufferLength(static_cast<unsigned long long>(sampleRate));
    module.setStaticFrequency(50.0, 0.1);
    module.setLineToLineResultsEnabled(true);
    module.setThdEnabled(true);
    module.setHighestRequestedHarmonic(50);
    module.endUpdate();
    module.reset(0);

    const unsigned block = 10240;
    for (unsigned char p = 0; p < 3; ++p) {
        float* u = nullptr;
        float* i = nullptr;
        module.getWaveformBufferUInput(p, &u);
        module.getWaveformBufferI(p, &i);
        for (unsigned n = 0; n < block; ++n) {
            const double angle = 2.0 * M_PI * 50.0 * n / sampleRate - p * 2.0 * M_PI / 3.0;
            u[n] = static_cast<float>(230.0 * std::sqrt(2.0) * std::sin(angle));
            i[n] = static_cast<float>(10.0 * std::sqrt(2.0) * std::sin(angle - M_PI / 6.0));
        }
    }
    module.writeSamples(block);
    module.sync();

    std::printf("backend:              %s\n", tarnel::backendName(module.getBackendKind()));
    std::printf("phases:               %u\n", module.getPhasesCount());
    std::printf("voltage channels:     %u\n", module.getVoltagesCount());
    std::printf("current channels:     %u\n", module.getCurrentsCount());
    std::printf("sample rate:          %.1f Hz\n", module.getSampleRate());
    std::printf("sample ring:          %llu samples\n", module.getBufferLength());
    std::printf("highest harmonic:     %d (THD up to %d)\n", module.getHighestRequestedHarmonic(),
                module.getThdHighestHarmonic());
    std::printf("samples written:      %u per channel\n", block);
    return 0;
}
