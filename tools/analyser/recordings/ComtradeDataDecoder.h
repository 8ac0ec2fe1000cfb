// Decodes the samples of a COMTRADE data file into stored (unscaled) analog
// values. One implementation per encoding: text lines, or fixed-size binary
// records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "recordings/ComtradeConfig.h"
#include "recordings/ComtradeFiles.h"

namespace tarnel::recordings {

class ComtradeDataDecoder {
  public:
    virtual ~ComtradeDataDecoder() = default;
    // Decodes up to maxRecords samples: analog value c of record k goes to
    // values[k * analogCount + c], the record's time field to times[k] (NaN
    // when the record has none). Returns fewer records than asked only at the
    // end of the data. Status channels are skipped.
    virtual size_t decode(double* values, double* times, size_t maxRecords) = 0;
    // The number of whole records the data holds, when the encoding tells
    // without reading it all.
    virtual std::optional<uint64_t> recordCapacity() const = 0;
};

std::unique_ptr<ComtradeDataDecoder> makeDataDecoder(const ComtradeConfig& config, const ComtradeSource& source);

}  // namespace tarnel::recordings
