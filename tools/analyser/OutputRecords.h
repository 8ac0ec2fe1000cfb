// The records of the analyser's output files, schema "tarnel64.analysis/1":
// which fields each record has, their names, units and when they are null.
// docs/output-format.md describes every field; the JSON Lines writer and the
// CSV writer both build their lines from these records.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Analysis.h"
#include "EventRow.h"
#include "OutputRecord.h"

namespace tarnel::analyser {

inline constexpr const char* kOutputSchema = "tarnel64.analysis/1";

// What is known only once the analysis has run.
struct RunFacts {
    std::string backend;
    unsigned periodsPerBlock = 0;
    AnalysisSummary summary;  // nominals and their sources, rotation, period values covered, resampling
    std::vector<PowerQualityEvent> events;
};

// The stretch of the recording that block results covered, and the counts.
struct Coverage {
    size_t blocks = 0, periods = 0;
    std::optional<double> start, end;  // s
    std::optional<unsigned> highestHarmonic;
    void addBlock(const PowerResultsGeneral& result, double sampleRate);
};

Record headerRecord(const SourceInfo& info, const RunFacts& facts, const Coverage& coverage);
// One record per voltage and current channel: name, quantity, unit, phase.
std::vector<Record> channelRecords(const SourceInfo& info);

// The fields of a block that do not depend on the phase.
Record blockRecord(const SourceInfo& info, const PowerResultsGeneral& result, size_t index);
// Phase `phase` (0-based) of a block; with `withSpectra` the harmonic and
// interharmonic arrays (index = order) and the harmonic angles.
Record blockPhaseRecord(const SourceInfo& info, const PowerResultsGeneral& result, unsigned phase, bool withSpectra);
// The long form of the spectra: one record per phase and order.
std::vector<Record> harmonicRecords(const SourceInfo& info, const PowerResultsGeneral& result, size_t index);

// `records` as the module hands them out: record 0 the combination, 1 … phases the phases.
Record periodRecord(const SourceInfo& info, const PowerResultsPeriod* records, int phases, size_t index);
Record periodPhaseRecord(const SourceInfo& info, const PowerResultsPeriod& record, int phase);

Record eventRecord(const SourceInfo& info, const EventRow& event, size_t index);

// Records of each kind with every field null or zero, to name CSV columns
// before the first row.
Record blockPrototype(const SourceInfo& info);
Record periodPrototype(const SourceInfo& info);
Record harmonicPrototype(const SourceInfo& info);
Record eventPrototype(const SourceInfo& info);

}  // namespace tarnel::analyser
