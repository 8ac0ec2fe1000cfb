#include "FileAnalysis.h"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "AnalyserOptions.h"
#include "Analysis.h"
#include "ArraySource.h"
#include "RecordCopies.h"
#include "RecordingSource.h"
#include "Report.h"
#include "recordings/OpenRecording.h"

namespace nb = nanobind;

namespace tarnel::bindings {

namespace {

using namespace tarnel::analyser;

// Keeps every block result and period value of the run.
class TableSink final : public ResultSink {
  public:
    void onBlock(const PowerResultsGeneral& result) override { blocks.add(result); }
    void onPeriodValue(const PowerResultsPeriod* records, int phases) override { periods.add(records, phases); }
    BlockTable blocks;
    PeriodTable periods;
};

template <typename T>
void take(const nb::dict& options, const char* name, T& target) {
    if (options.contains(name)) target = nb::cast<T>(options[name]);
}

AnalyserOptions analyserOptions(const nb::dict& options) {
    AnalyserOptions o;
    int backend = 0;
    take(options, "backend", backend);
    o.backend = static_cast<BackendKind>(backend);
    take(options, "grid", o.gridType);
    take(options, "voltages", o.voltageColumns);
    take(options, "currents", o.currentColumns);
    take(options, "delta", o.delta);
    take(options, "nominal_voltage", o.nominalVoltage);
    take(options, "nominal_frequency", o.nominalFrequency);
    take(options, "sample_rate", o.sampleRate);
    take(options, "secondary", o.secondary);
    take(options, "section", o.section);
    return o;
}

// The report exactly as the command line prints it.
std::string reportText(const Report& report, const char* backend, unsigned periodsPerBlock) {
    char* text = nullptr;
    size_t size = 0;
    std::FILE* out = open_memstream(&text, &size);
    if (out == nullptr) throw std::runtime_error("cannot buffer the report");
    report.print(out, backend, periodsPerBlock);
    std::fclose(out);
    std::string result(text, size);
    std::free(text);
    return result;
}

nb::dict sourceInfo(const SourceInfo& info) {
    nb::dict d;
    d["description"] = info.description;
    d["sample_rate"] = info.sampleRate;
    d["total_samples"] = info.totalSamples;
    d["grid"] = info.gridType;
    d["nominal_voltage"] = info.nominalVoltage;
    d["nominal_frequency"] = info.nominalFrequency;
    nb::list voltages, currents;
    for (const SourceChannel& c : info.voltages) voltages.append(c.name);
    for (const SourceChannel& c : info.currents) currents.append(c.name);
    d["voltages"] = voltages;
    d["currents"] = currents;
    return d;
}

nb::list eventList(const std::vector<PowerQualityEvent>& events) {
    nb::list out;
    for (const PowerQualityEvent& e : events) {
        nb::dict d;
        d["kind"] = e.kind;
        d["phases"] = e.phases;
        d["start"] = e.start;
        d["duration"] = e.duration;
        d["voltage"] = e.voltage;
        d["depth"] = e.depth;
        out.append(d);
    }
    return out;
}

nb::dict run(SignalSource& source, BackendKind backend) {
    const SourceInfo& info = source.info();
    Report report(info);
    TableSink tables;
    AnalysisSettings settings;
    settings.backend = backend;
    Analysis analysis(source, settings, {&report, &tables});
    size_t blocks = 0;
    double seconds = 0.0;
    {
        nb::gil_scoped_release unlocked;
        const auto start = std::chrono::steady_clock::now();
        blocks = analysis.run();
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    if (blocks == 0)
        throw std::runtime_error(info.description + ": the recording is shorter than one block of " +
                                 std::to_string(analysis.periodsPerBlock()) + " periods");
    nb::dict out;
    out["info"] = sourceInfo(info);
    out["backend"] = analysis.backendName();
    out["periods_per_block"] = analysis.periodsPerBlock();
    out["blocks"] = tables.blocks.toPython();
    out["periods"] = tables.periods.toPython();
    out["events"] = eventList(report.events());
    out["report"] = reportText(report, analysis.backendName(), analysis.periodsPerBlock());
    out["run_seconds"] = seconds;
    return out;
}

std::vector<std::vector<float>> channels(const SampleArray<float>& samples) {
    std::vector<std::vector<float>> out(samples.shape(0));
    const size_t n = samples.shape(1);
    for (size_t c = 0; c < out.size(); ++c) out[c].assign(samples.data() + c * n, samples.data() + (c + 1) * n);
    return out;
}

}  // namespace

nb::dict analyseFile(const std::string& path, const nb::dict& options) {
    AnalyserOptions o = analyserOptions(options);
    o.input = path;
    std::unique_ptr<SignalSource> source = openRecordingSource(o);
    return run(*source, o.backend);
}

nb::dict analyseArrays(SampleArray<float> voltages, SampleArray<float> currents, const nb::dict& options) {
    const AnalyserOptions o = analyserOptions(options);
    if (!o.sampleRate) throw std::invalid_argument("analysing arrays needs sample_rate");
    if (!o.gridType) throw std::invalid_argument("analysing arrays needs grid");
    SourceInfo info;
    info.description = "arrays";
    info.sampleRate = *o.sampleRate;
    info.gridType = *o.gridType;
    info.nominalVoltage = o.nominalVoltage.value_or(230.0);
    info.nominalFrequency = o.nominalFrequency.value_or(50.0);
    for (size_t c = 0; c < voltages.shape(0); ++c) info.voltages.push_back({"U" + std::to_string(c + 1), "V"});
    for (size_t c = 0; c < currents.shape(0); ++c) info.currents.push_back({"I" + std::to_string(c + 1), "A"});
    ArraySource source(info, channels(voltages), channels(currents));
    return run(source, o.backend);
}

std::string recordingStartTime(const std::string& path) {
    return tarnel::recordings::openRecording(path)->metadata().startTime;
}

}  // namespace tarnel::bindings
