// The absolute time of a COMTRADE recording's first sample.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tarnel::recordings {

struct RecordingStart {
    int64_t utcNanoseconds = 0;  // since 1970-01-01T00:00:00 UTC
    bool zoneStated = false;     // false: the recorder's clock time is taken as UTC
};

// Reads the start time "date time" as the configuration gives it (1991:
// mm/dd/yy, later revisions: dd/mm/yyyy; seconds with up to nine decimals)
// and the 2013 time code ("+9", "-5h30", "0"; empty when absent), which says
// how far the recorded clock is ahead of UTC. Empty when the date or time is
// not a valid calendar time or lies more than 290 years from 1970, beyond
// which nanoseconds since 1970 do not fit in 64 bits.
std::optional<RecordingStart> comtradeStartTime(const std::string& dateTime, int revision, const std::string& timeCode);

// Days since 1970-01-01 of a proleptic Gregorian date.
int64_t daysFromCivil(int64_t year, unsigned month, unsigned day);

}  // namespace tarnel::recordings
