#include "AnalyserOptions.h"

#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>

namespace tarnel::analyser {

namespace {

double parseNumber(const std::string& option, const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value > 0.0) || !std::isfinite(value))
        throw std::invalid_argument(option + " needs a positive number, not '" + text + "'");
    return value;
}

std::vector<std::string> parseList(const std::string& text) {
    std::vector<std::string> items;
    std::stringstream stream(text);
    for (std::string item; std::getline(stream, item, ',');)
        if (!item.empty()) items.push_back(item);
    return items;
}

BackendKind parseBackend(const std::string& text) {
    if (text == "auto") return BackendKind::Auto;
    if (text == "cpu") return BackendKind::Cpu;
    if (text == "cuda") return BackendKind::Cuda;
    throw std::invalid_argument("--backend takes auto, cpu or cuda, not '" + text + "'");
}

int parseGrid(const std::string& text) {
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value < 0 || value > 7)
        throw std::invalid_argument("--grid takes a grid type from 0 to 7, not '" + text + "'");
    return static_cast<int>(value);
}

std::optional<PhaseRotation> parsePhaseOrder(const std::string& text) {
    if (text == "auto") return std::nullopt;
    if (text == "123" || text == "abc") return PhaseRotation::Forward;
    if (text == "132" || text == "acb") return PhaseRotation::Reverse;
    throw std::invalid_argument("--phase-order takes auto, 123 (abc) or 132 (acb), not '" + text + "'");
}

double parsePercent(const std::string& option, const std::string& text, double below) {
    const double value = parseNumber(option, text);
    if (value >= below) throw std::invalid_argument(option + " must lie below " + std::to_string(int(below)) + " %");
    return value;
}

}  // namespace

const char* usageText() {
    return R"(Usage: tarnel-analyse [options] [RECORDING]

Analyses a recording of voltages and currents and prints a power-quality
report: RMS values, frequency, THD and the worst harmonics, unbalance, powers
and power factors, and the dips, swells and rapid voltage changes found.
Without RECORDING it analyses a built-in synthetic recording (three-phase
230 V / 50 Hz with a dip, a swell and a rapid voltage change).

RECORDING
  name.cfg | name.cff   COMTRADE (1991, 1999, 2013; ASCII, BINARY, BINARY32, FLOAT32)
  name.csv              CSV with a header row and an optional time column
  name.wav              WAV, PCM 16/24/32-bit or float

Options
  --backend auto|cpu|cuda   where to compute (default auto: CUDA when a GPU is present)
                            example: --backend cpu
  --json FILE               write the header, every block result, period value and event as
                            JSON Lines (schema tarnel64.analysis/1, docs/output-format.md)
                            example: --json results.jsonl
  --csv DIR                 write the same as header.csv, channels.csv, blocks.csv,
                            harmonics.csv, periods.csv and events.csv into DIR
                            example: --csv out
  --grid N                  grid type 0..7 instead of the one found from the channels
                            (0 one phase; 1 three phases star, three currents; 2 star, two
                            currents; 3 delta, three currents; 4 delta, two currents; 5 two
                            phases; 6 two delta voltages, two currents)   example: --grid 1
  --voltages LIST           voltage channels by name or 1-based number, in phase order
                            example: --voltages VA,VB,VC
  --currents LIST           current channels likewise     example: --currents 4,5,6
  --delta | --star          the voltages are line-to-line (delta) or phase-to-neutral (star)
  --nominal-voltage V       nominal phase voltage for dips and swells   example: --nominal-voltage 230
                            (default: the level of the cycles before the first disturbance,
                            reported as estimated)
  --frequency F             nominal frequency in Hz (default: the recording's, else estimated
                            from the samples: 50, 60 or another between 15 and 500 Hz)
                                                                        example: --frequency 60
  --dip-threshold P         dip start level in % of nominal (default 90)    example: --dip-threshold 85
  --swell-threshold P       swell start level in % of nominal (default 110)
  --interruption-threshold P  all channels below P % of nominal make an interruption (default 10)
  --phase-order auto|123|132  phase rotation L1-L2-L3 (123, abc) or L1-L3-L2 (132, acb); unbalance is
                            computed for it (default auto: detected from the fundamental phasors)
  --sample-rate HZ          sample rate of a CSV without a time column  example: --sample-rate 10000
  --secondary               COMTRADE: report secondary instead of primary values
  --section N               COMTRADE: analyse only sample-rate section N (1-based) of a recording
                            with several rates (by default all sections are resampled onto the
                            highest rate)                               example: --section 2
  --duration S              length of the synthetic recording in seconds (default 10)
  --progress | --no-progress  progress bar on stderr (default: when stderr is a terminal)
  --help                    this text
  --version                 the version of the analyser and of the library it runs with

Exit status: 0 success, 2 bad input (one line on stderr names the file and the problem).
)";
}

AnalyserOptions parseOptions(int argc, char** argv) {
    AnalyserOptions o;
    const std::map<std::string, std::function<void()>> flags = {{"--help", [&] { o.help = true; }},
                                                                {"-h", [&] { o.help = true; }},
                                                                {"--delta", [&] { o.delta = true; }},
                                                                {"--star", [&] { o.delta = false; }},
                                                                {"--secondary", [&] { o.secondary = true; }},
                                                                {"--progress", [&] { o.progress = true; }},
                                                                {"--no-progress", [&] { o.progress = false; }},
                                                                {"--version", [&] { o.version = true; }}};
    const std::map<std::string, std::function<void(const std::string&)>> valued = {
        {"--backend", [&](const std::string& v) { o.backend = parseBackend(v); }},
        {"--json", [&](const std::string& v) { o.jsonPath = v; }},
        {"--csv", [&](const std::string& v) { o.csvFolder = v; }},
        {"--grid", [&](const std::string& v) { o.gridType = parseGrid(v); }},
        {"--voltages", [&](const std::string& v) { o.voltageColumns = parseList(v); }},
        {"--currents", [&](const std::string& v) { o.currentColumns = parseList(v); }},
        {"--nominal-voltage", [&](const std::string& v) { o.nominalVoltage = parseNumber("--nominal-voltage", v); }},
        {"--frequency", [&](const std::string& v) { o.nominalFrequency = parseNumber("--frequency", v); }},
        {"--sample-rate", [&](const std::string& v) { o.sampleRate = parseNumber("--sample-rate", v); }},
        {"--section", [&](const std::string& v) { o.section = static_cast<int>(parseNumber("--section", v)); }},
        {"--duration", [&](const std::string& v) { o.syntheticSeconds = parseNumber("--duration", v); }},
        {"--dip-threshold", [&](const std::string& v) { o.dipThreshold = parsePercent("--dip-threshold", v, 100.0); }},
        {"--swell-threshold",
         [&](const std::string& v) {
             o.swellThreshold = parseNumber("--swell-threshold", v);
             if (o.swellThreshold <= 100.0) throw std::invalid_argument("--swell-threshold must lie above 100 %");
         }},
        {"--interruption-threshold",
         [&](const std::string& v) { o.interruptionThreshold = parseNumber("--interruption-threshold", v); }},
        {"--phase-order", [&](const std::string& v) { o.phaseOrder = parsePhaseOrder(v); }}};
    for (int k = 1; k < argc; ++k) {
        const std::string arg = argv[k];
        if (auto flag = flags.find(arg); flag != flags.end()) {
            flag->second();
        } else if (auto option = valued.find(arg); option != valued.end()) {
            if (k + 1 >= argc) throw std::invalid_argument(arg + " needs a value");
            option->second(argv[++k]);
        } else if (!arg.empty() && arg[0] == '-') {
            throw std::invalid_argument("unknown option '" + arg + "' (see --help)");
        } else if (o.input.empty()) {
            o.input = arg;
        } else {
            throw std::invalid_argument("only one recording can be analysed at a time ('" + arg + "')");
        }
    }
    if (o.interruptionThreshold >= o.dipThreshold)
        throw std::invalid_argument("--interruption-threshold must lie below the dip threshold");
    return o;
}

}  // namespace tarnel::analyser
