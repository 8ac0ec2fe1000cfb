#include "StreamingModule.h"

#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include "RecordCopies.h"

namespace nb = nanobind;

namespace tarnel::bindings {

namespace {

using Setter = std::function<void(PowerModule&, nb::handle)>;

template <typename T>
T as(nb::handle value) {
    return nb::cast<T>(value);
}

// Setting names as the Python layer spells them, each with its setter.
const std::map<std::string, Setter>& setters() {
    static const std::map<std::string, Setter> table = {
        {"grid",
         [](PowerModule& m, nb::handle v) { m.setGridConfigType(static_cast<PowerGridConfigType>(as<int>(v))); }},
        {"sample_rate", [](PowerModule& m, nb::handle v) { m.setSampleRate(as<double>(v), 1); }},
        {"buffer_length", [](PowerModule& m, nb::handle v) { m.setBufferLength(as<uint64_t>(v)); }},
        {"frequency",
         [](PowerModule& m, nb::handle v) {
             auto [f, tolerance] = as<std::pair<double, double>>(v);
             m.setStaticFrequency(f, tolerance);
         }},
        {"periods", [](PowerModule& m, nb::handle v) { m.setPeriodCount(as<unsigned short>(v)); }},
        {"currents_enabled", [](PowerModule& m, nb::handle v) { m.setCurrentEnabled(as<bool>(v)); }},
        {"line_to_line", [](PowerModule& m, nb::handle v) { m.setLineToLineResultsEnabled(as<bool>(v)); }},
        {"interharmonics", [](PowerModule& m, nb::handle v) { m.setInterHarmonicsEnabled(as<bool>(v)); }},
        {"thd", [](PowerModule& m, nb::handle v) { m.setThdEnabled(as<bool>(v)); }},
        {"symmetrical_components",
         [](PowerModule& m, nb::handle v) { m.setSymmetricalComponentsEnabled(as<bool>(v)); }},
        {"period_values", [](PowerModule& m, nb::handle v) { m.setPeriodValuesEnabled(as<bool>(v)); }},
        {"fundamental_period_values",
         [](PowerModule& m, nb::handle v) { m.setFundamentalPeriodValuesEnabled(as<bool>(v)); }},
        {"period_symmetrical_components",
         [](PowerModule& m, nb::handle v) { m.setPeriodSymmetricalComponentsEnabled(as<bool>(v)); }},
        {"dips", [](PowerModule& m, nb::handle v) { m.setDipSwellEnabled(as<bool>(v)); }},
        {"rvc", [](PowerModule& m, nb::handle v) { m.setRvcEnabled(as<bool>(v)); }},
        {"harmonics", [](PowerModule& m, nb::handle v) { m.setHighestRequestedHarmonic(as<int>(v)); }},
        {"thd_harmonics", [](PowerModule& m, nb::handle v) { m.setThdHighestHarmonic(as<int>(v)); }},
        {"half_periods", [](PowerModule& m, nb::handle v) { m.setHalfPeriodValuesCount(as<unsigned short>(v)); }},
        {"nominal_voltage", [](PowerModule& m, nb::handle v) { m.setNominalVoltage(as<double>(v)); }},
        {"nominal_line_to_line_voltage",
         [](PowerModule& m, nb::handle v) { m.setNominalLineToLineVoltage(as<double>(v)); }},
        {"dip_threshold", [](PowerModule& m, nb::handle v) { m.setDipThreshold(as<double>(v)); }},
        {"swell_threshold", [](PowerModule& m, nb::handle v) { m.setSwellThreshold(as<double>(v)); }},
        {"dip_hysteresis", [](PowerModule& m, nb::handle v) { m.setDipHysteresis(as<double>(v)); }},
        {"swell_hysteresis", [](PowerModule& m, nb::handle v) { m.setSwellHysteresis(as<double>(v)); }},
        {"rvc_threshold", [](PowerModule& m, nb::handle v) { m.setRvcThreshold(as<double>(v)); }},
        {"rvc_hysteresis", [](PowerModule& m, nb::handle v) { m.setRvcThresholdHysteresis(as<double>(v)); }},
    };
    return table;
}

}  // namespace

StreamingModule::StreamingModule(int backend) : module(static_cast<BackendKind>(backend)) {}

const char* StreamingModule::backendName() const { return tarnel::backendName(module.getBackendKind()); }

void StreamingModule::configure(const nb::dict& settings) {
    module.beginUpdate();
    for (auto [key, value] : settings) {
        const std::string name = nb::cast<std::string>(key);
        auto setter = setters().find(name);
        if (setter == setters().end()) throw std::invalid_argument("unknown setting '" + name + "'");
        setter->second(module, value);
    }
    module.endUpdate();
    module.reset(0);
    first = next = 0;
    length = module.getBufferLength();
    voltageRings.assign(module.getVoltagesCount(), nullptr);
    for (unsigned char c = 0; c < voltageRings.size(); ++c) module.getWaveformBufferUInput(c, &voltageRings[c]);
    currentRings.assign(module.getCurrentEnabled() ? module.getCurrentsCount() : 0, nullptr);
    for (unsigned char c = 0; c < currentRings.size(); ++c) module.getWaveformBufferI(c, &currentRings[c]);
    detector.reset();
    periodsStarted = false;
    if (module.getPeriodValuesEnabled() && settings.contains("frequency")) {
        const double nominal = nb::cast<std::pair<double, double>>(settings["frequency"]).first;
        detector = std::make_unique<ZeroCrossingDetector>(module.getSampleRate(), nominal, 0);
    }
}

template <typename T>
void StreamingModule::write(SampleArray<T> voltages, SampleArray<T> currents) {
    const size_t count = voltages.shape(1);
    if (voltages.shape(0) != voltageRings.size() || currents.shape(0) != currentRings.size())
        throw std::invalid_argument("write: expected " + std::to_string(voltageRings.size()) + " voltage and " +
                                    std::to_string(currentRings.size()) + " current channels");
    if (!currentRings.empty() && currents.shape(1) != count)
        throw std::invalid_argument("write: voltages and currents differ in their number of samples");
    if (count > length)
        throw std::invalid_argument("write: " + std::to_string(count) + " samples exceed the ring of " +
                                    std::to_string(length));
    {
        nb::gil_scoped_release unlocked;
        copyIntoRings(voltages, currents, count);
        module.writeSamples(static_cast<unsigned>(count));
        if (detector) trackPeriods(count);
    }
    next += count;
}

template void StreamingModule::write<float>(SampleArray<float>, SampleArray<float>);
template void StreamingModule::write<double>(SampleArray<double>, SampleArray<double>);

template <typename T>
void StreamingModule::copyIntoRings(const SampleArray<T>& voltages, const SampleArray<T>& currents, size_t count) {
    // One or two pieces, as the samples may cross the end of the ring.
    const size_t position = static_cast<size_t>(next % length);
    const size_t head = std::min<size_t>(count, static_cast<size_t>(length) - position);
    auto copy = [&](float* ring, const T* samples) {
        std::transform(samples, samples + head, ring + position, [](T x) { return static_cast<float>(x); });
        std::transform(samples + head, samples + count, ring, [](T x) { return static_cast<float>(x); });
    };
    for (size_t c = 0; c < voltageRings.size(); ++c) copy(voltageRings[c], voltages.data() + c * count);
    for (size_t c = 0; c < currentRings.size(); ++c) copy(currentRings[c], currents.data() + c * count);
}

void StreamingModule::trackPeriods(size_t count) {
    const size_t position = static_cast<size_t>(next % length);
    const size_t head = std::min<size_t>(count, static_cast<size_t>(length) - position);
    detector->addSamples(voltageRings[0] + position, head);
    if (count > head) detector->addSamples(voltageRings[0], count - head);
    std::vector<ZeroCrossingInterval> intervals = detector->takeIntervals();
    // Period values start with the first measured period: the detectors would
    // otherwise take the filter's start-up for a voltage change.
    auto start = intervals.begin();
    if (!periodsStarted)
        start = std::find_if(intervals.begin(), intervals.end(), [](const auto& z) { return z.valid; });
    if (start == intervals.end()) return;
    periodsStarted = true;
    module.scheduleForPeriodCalculationFromZeroCrossing(std::vector<ZeroCrossingInterval>(start, intervals.end()));
}

void StreamingModule::schedule(uint64_t firstSample, int blockLength, double frequency) {
    if (blockLength <= 0) throw std::invalid_argument("schedule: the block length must be positive");
    if (firstSample + static_cast<uint64_t>(blockLength) > next)
        throw std::invalid_argument("schedule: the block ends at sample " +
                                    std::to_string(firstSample + static_cast<uint64_t>(blockLength)) + " but only " +
                                    std::to_string(next) + " samples were written");
    if (next - firstSample > length)
        throw std::invalid_argument("schedule: the block starts before the oldest sample still in the ring");
    module.scheduleForCalculation(firstSample, blockLength, frequency);
}

void StreamingModule::sync() {
    nb::gil_scoped_release unlocked;
    module.sync();
}

bool StreamingModule::resultReady() const { return module.isAnyResultReady(); }

nb::dict StreamingModule::results(int maxResults) {
    BlockTable table;
    std::vector<PowerResultsGeneral> records;
    {
        nb::gil_scoped_release unlocked;
        records = module.getResults(maxResults);
    }
    for (const PowerResultsGeneral& r : records) table.add(r);
    return table.toPython();
}

nb::object StreamingModule::periodValues() {
    PeriodTable table;
    const int phaseCount = module.getPhasesCount();
    bool more = module.getPeriodValuesEnabled();
    while (more) {
        int count = 0;
        PowerResultsPeriod* records = nullptr;
        module.getPeriodResults(&count, &more, &records);
        for (int v = 0; v < count; ++v) table.add(records + static_cast<size_t>(v) * (phaseCount + 1), phaseCount);
    }
    if (table.size() == 0) {
        std::vector<uint8_t> none;
        return ownedArray(std::move(none), {0, static_cast<size_t>(phaseCount) + 1, sizeof(PowerResultsPeriod)});
    }
    return table.toPython();
}

nb::object StreamingModule::ring(const std::string& kind, unsigned channel, nb::handle owner) {
    const std::vector<float*>& rings = kind == "u" ? voltageRings : currentRings;
    if ((kind != "u" && kind != "i") || channel >= rings.size())
        throw std::invalid_argument("ring: no " + kind + " channel " + std::to_string(channel));
    return nb::cast(nb::ndarray<nb::numpy, float, nb::ndim<1>>(rings[channel], {static_cast<size_t>(length)}, owner));
}

}  // namespace tarnel::bindings
