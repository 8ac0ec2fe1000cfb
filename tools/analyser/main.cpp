// tarnel-analyse: a recording in, a power-quality report out.
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

#include "AnalyserOptions.h"
#include "Analysis.h"
#include "OutputWriters.h"
#include "RecordingSource.h"
#include "Report.h"
#include "SyntheticRecording.h"
#include "tarnel/Version.h"

using namespace tarnel::analyser;

namespace {

std::unique_ptr<SignalSource> openSource(const AnalyserOptions& options) {
    if (options.input.empty()) return std::make_unique<SyntheticRecording>(51200.0, options.syntheticSeconds);
    return openRecordingSource(options);
}

int analyse(const AnalyserOptions& options) {
    std::unique_ptr<SignalSource> source = openSource(options);
    const SourceInfo& info = source->info();
    ReportSettings reportSettings;
    reportSettings.interruptionThreshold = options.interruptionThreshold;
    reportSettings.phaseOrder = options.phaseOrder;
    Report report(info, reportSettings);
    std::unique_ptr<JsonLinesWriter> json;
    std::unique_ptr<CsvWriter> csv;
    std::vector<ResultSink*> sinks = {&report};
    if (!options.jsonPath.empty())
        sinks.push_back((json = std::make_unique<JsonLinesWriter>(options.jsonPath, info)).get());
    if (!options.csvFolder.empty()) sinks.push_back((csv = std::make_unique<CsvWriter>(options.csvFolder, info)).get());
    AnalysisSettings settings;
    settings.backend = options.backend;
    settings.dipThreshold = options.dipThreshold;
    settings.swellThreshold = options.swellThreshold;
    const bool longRecording = static_cast<double>(info.totalSamples) > 30.0 * info.sampleRate;
    settings.progress = options.progress.value_or(isatty(STDERR_FILENO) && longRecording);
    Analysis analysis(*source, settings, sinks);
    if (analysis.run() == 0) throw std::runtime_error(info.description + ": no block could be analysed");
    const RunFacts facts{analysis.backendName(), analysis.periodsPerBlock(), report.summary(), report.events()};
    if (json) json->finish(facts);
    if (csv) csv->finish(facts);
    report.print(stdout, analysis.backendName(), analysis.periodsPerBlock());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const AnalyserOptions options = parseOptions(argc, argv);
        if (options.help) {
            std::fputs(usageText(), stdout);
            return 0;
        }
        if (options.version) {
            std::printf("tarnel-analyse %d.%d.%d (library %s)\n", TARNEL_VERSION_MAJOR, TARNEL_VERSION_MINOR,
                        TARNEL_VERSION_PATCH, tarnel_version());
            return 0;
        }
        return analyse(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarnel-analyse: %s\n", e.what());
        return 2;
    }
}
