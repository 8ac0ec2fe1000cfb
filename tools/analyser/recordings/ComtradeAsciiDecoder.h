// Samples of an ASCII data file: one line per sample, "n,time,analogs...,digitals...".
#pragma once

#include <fstream>
#include <string>

#include "recordings/ComtradeDataDecoder.h"
#include "recordings/TextParsing.h"

namespace tarnel::recordings {

class ComtradeAsciiDecoder : public ComtradeDataDecoder {
  public:
    ComtradeAsciiDecoder(std::ifstream input, const ComtradeConfig& config, const ComtradeSource& source);
    size_t decode(double* values, double* times, size_t maxRecords) override;
    std::optional<uint64_t> recordCapacity() const override { return std::nullopt; }

  private:
    bool nextSampleLine();
    void decodeLine(double* values, double& time);

    std::ifstream in;
    LineReader lines;
    std::string fileName;
    size_t analogCount;
    size_t fieldCount;
    std::string line;
};

}  // namespace tarnel::recordings
