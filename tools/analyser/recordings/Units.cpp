#include "recordings/Units.h"

#include "recordings/TextParsing.h"

namespace tarnel::recordings {

namespace {

// The SI prefix in front of a base unit. 'm' and 'M' differ (milli, mega);
// kilo is accepted in either case since recorders write "KV" as often as "kV".
double prefixFactor(std::string_view prefix, bool& known) {
    known = true;
    if (prefix.empty()) return 1.0;
    if (prefix == "k" || prefix == "K") return 1e3;
    if (prefix == "M") return 1e6;
    if (prefix == "m") return 1e-3;
    known = false;
    return 1.0;
}

}  // namespace

UnitConversion convertUnit(std::string_view recordedUnit) {
    const std::string_view unit = trim(recordedUnit);
    const std::string upper = toUpper(unit);
    if (upper == "VOLT" || upper == "VOLTS") return {ChannelKind::Voltage, "V", 1.0};
    if (upper == "AMP" || upper == "AMPS" || upper == "AMPERE" || upper == "AMPERES")
        return {ChannelKind::Current, "A", 1.0};
    if (!unit.empty() && unit.size() <= 2) {
        const char base = static_cast<char>(upper.back());
        bool known = false;
        const double factor = prefixFactor(unit.substr(0, unit.size() - 1), known);
        if (known && base == 'V') return {ChannelKind::Voltage, "V", factor};
        if (known && base == 'A') return {ChannelKind::Current, "A", factor};
    }
    return {ChannelKind::Other, std::string(unit), 1.0};
}

}  // namespace tarnel::recordings
