// Machine-readable output of the analysis in schema "tarnel64.analysis/1":
// JSON Lines in one file, or CSV tables in a folder (docs/output-format.md).
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "Analysis.h"
#include "OutputRecords.h"

namespace tarnel::analyser {

// Counts and indexes what the analysis delivers; `finish` completes the output
// with the facts known only at the end (header, events).
class ResultFileWriter : public ResultSink {
  public:
    explicit ResultFileWriter(const SourceInfo& sourceInfo) : info(sourceInfo) {}
    void onBlock(const PowerResultsGeneral& result) final;
    void onPeriodValue(const PowerResultsPeriod* records, int phases) final;
    virtual void finish(const RunFacts& facts) = 0;

  protected:
    virtual void writeBlock(const PowerResultsGeneral& result, size_t index) = 0;
    virtual void writePeriod(const PowerResultsPeriod* records, int phases, size_t index) = 0;

    SourceInfo info;
    Coverage coverage;
};

// One JSON object per line: the header first, then blocks and period values in
// the order they were measured, then the events. The body is kept in a
// temporary file until the header is known.
class JsonLinesWriter final : public ResultFileWriter {
  public:
    JsonLinesWriter(const std::string& path, const SourceInfo& info);
    ~JsonLinesWriter() override;
    void finish(const RunFacts& facts) override;

  private:
    void writeBlock(const PowerResultsGeneral& result, size_t index) override;
    void writePeriod(const PowerResultsPeriod* records, int phases, size_t index) override;
    void writeLine(std::FILE* file, const Record& record);

    std::string path;
    std::FILE* file;
    std::FILE* body;
};

// header.csv, channels.csv, blocks.csv, harmonics.csv, periods.csv, events.csv.
class CsvWriter final : public ResultFileWriter {
  public:
    CsvWriter(const std::string& folder, const SourceInfo& info);
    ~CsvWriter() override;
    void finish(const RunFacts& facts) override;

  private:
    class Table;
    void writeBlock(const PowerResultsGeneral& result, size_t index) override;
    void writePeriod(const PowerResultsPeriod* records, int phases, size_t index) override;

    std::string folder;
    std::unique_ptr<Table> blocks, harmonics, periods;
};

}  // namespace tarnel::analyser
