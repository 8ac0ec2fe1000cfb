// Command-line options of the analyser.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "SignalSource.h"
#include "tarnel/DeviceBackend.h"

namespace tarnel::analyser {

struct AnalyserOptions {
    std::string input;  // empty: the built-in synthetic recording
    BackendKind backend = BackendKind::Auto;
    std::string jsonPath;
    std::string csvFolder;
    std::optional<int> gridType;
    std::vector<std::string> voltageColumns;
    std::vector<std::string> currentColumns;
    std::optional<bool> delta;
    std::optional<double> nominalVoltage;
    std::optional<double> nominalFrequency;
    std::optional<double> sampleRate;
    bool secondary = false;
    std::optional<int> section;
    double dipThreshold = 90.0;               // % of nominal
    double swellThreshold = 110.0;            // % of nominal
    double interruptionThreshold = 10.0;      // % of nominal
    std::optional<PhaseRotation> phaseOrder;  // empty: detected
    double syntheticSeconds = 10.0;
    std::optional<bool> progress;
    bool help = false;
    bool version = false;
};

// Parses argv; throws std::invalid_argument with a one-line message.
AnalyserOptions parseOptions(int argc, char** argv);
const char* usageText();

}  // namespace tarnel::analyser
