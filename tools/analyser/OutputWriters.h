// Machine-readable output of every block result, period value and event:
// JSON Lines in one file, or CSV tables in a folder.
#pragma once

#include <cstdio>
#include <string>

#include "Analysis.h"
#include "Report.h"

namespace tarnel::analyser {

class JsonLinesWriter final : public ResultSink {
  public:
    explicit JsonLinesWriter(const std::string& path);
    ~JsonLinesWriter() override;
    void onBlock(const PowerResultsGeneral& result) override;
    void onPeriodValue(const PowerResultsPeriod* records, int phases) override;
    void writeEvents(const std::vector<PowerQualityEvent>& events);

  private:
    std::FILE* file;
};

class CsvWriter final : public ResultSink {
  public:
    explicit CsvWriter(const std::string& folder);
    ~CsvWriter() override;
    void onBlock(const PowerResultsGeneral& result) override;
    void onPeriodValue(const PowerResultsPeriod* records, int phases) override;
    void writeEvents(const std::vector<PowerQualityEvent>& events);

  private:
    std::string folder;
    std::FILE* blocks;
    std::FILE* periods;
};

}  // namespace tarnel::analyser
