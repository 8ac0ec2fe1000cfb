#include "recordings/ChannelMapping.h"

#include <algorithm>
#include <array>

#include "recordings/PhaseNames.h"
#include "recordings/RecordingError.h"
#include "recordings/TextParsing.h"

namespace tarnel::recordings {

namespace {

struct GridShape {
    size_t voltages;
    size_t currents;
    bool delta;
};

// Channels each grid type takes, in the order of its number.
constexpr std::array<GridShape, 8> kGridShapes = {{{1, 1, false},
                                                   {3, 3, false},
                                                   {3, 2, false},
                                                   {3, 3, true},
                                                   {3, 2, true},
                                                   {2, 2, false},
                                                   {2, 2, true},
                                                   {1, 1, false}}};

using Indices = std::vector<size_t>;

class Mapper {
  public:
    Mapper(const RecordingMetadata& metadata, const MappingOptions& mappingOptions)
        : meta(metadata), options(mappingOptions) {}

    ChannelMap map() {
        checkGridOptions();
        chooseVoltages();
        chooseCurrents();
        chooseGridType();
        result.nominalVoltage = options.nominalVoltage;
        if (options.nominalFrequency)
            result.nominalFrequency = options.nominalFrequency;
        else if (meta.nominalFrequency > 0.0)
            result.nominalFrequency = meta.nominalFrequency;
        return result;
    }

  private:
    [[noreturn]] void fail(const std::string& problem) const { throw RecordingError(meta.fileName, problem); }

    void checkGridOptions() {
        if (!options.gridType) return;
        if (*options.gridType < 0 || *options.gridType >= static_cast<int>(kGridShapes.size()))
            fail("unknown grid type " + std::to_string(*options.gridType) + " (expected 0 to 7)");
        const GridShape& shape = kGridShapes[static_cast<size_t>(*options.gridType)];
        if (options.delta && *options.delta != shape.delta)
            fail("grid type " + std::to_string(*options.gridType) + " has " + (shape.delta ? "delta" : "star") +
                 " voltages, not " + (*options.delta ? "delta" : "star"));
        wantDelta = shape.delta;
    }

    void chooseVoltages() {
        if (!wantDelta) wantDelta = options.delta;
        if (!options.voltageChannels.empty()) {
            result.voltages = resolve(options.voltageChannels, "voltage");
            result.delta = wantDelta ? *wantDelta : allLineToLine(result.voltages);
            return;
        }
        const Indices star = phaseSet(ChannelKind::Voltage, false), delta = phaseSet(ChannelKind::Voltage, true);
        const bool useDelta = wantDelta ? *wantDelta : delta.size() > star.size();
        result.voltages = useDelta ? delta : star;
        // Told the voltages are line-to-line while named per phase: trust the user.
        if (result.voltages.empty() && options.delta.value_or(false)) result.voltages = star;
        if (result.voltages.empty()) result.voltages = unnamed(ChannelKind::Voltage);
        if (result.voltages.empty())
            fail("no voltage channels recognised among its " + std::to_string(meta.channels.size()) +
                 " channels; name them with the voltage channel option");
        result.delta = useDelta;
    }

    void chooseCurrents() {
        if (!options.currentChannels.empty())
            result.currents = resolve(options.currentChannels, "current");
        else {
            result.currents = phaseSet(ChannelKind::Current, false);
            if (result.currents.empty()) result.currents = unnamed(ChannelKind::Current);
        }
    }

    void chooseGridType() {
        result.gridType = options.gridType ? *options.gridType : derivedGridType();
        const GridShape& shape = kGridShapes[static_cast<size_t>(result.gridType)];
        fit(result.voltages, shape.voltages, !options.voltageChannels.empty(), "voltage");
        if (!result.currents.empty()) fit(result.currents, shape.currents, !options.currentChannels.empty(), "current");
    }

    int derivedGridType() {
        const size_t voltages = result.voltages.size(), currents = result.currents.size();
        int type = 0;
        if (voltages == 2) type = result.delta ? 6 : 5;
        if (voltages == 3) type = (result.delta ? 3 : 1) + (currents == 2 ? 1 : 0);
        // Too few currents for the system found: analyse the voltages alone.
        if (options.currentChannels.empty() && currents < kGridShapes[static_cast<size_t>(type)].currents)
            result.currents.clear();
        return type;
    }

    // Found channels beyond what the grid takes are dropped (phase order keeps
    // the first ones); channels the user listed must match exactly.
    void fit(Indices& channels, size_t wanted, bool listed, const std::string& what) const {
        if (channels.size() > wanted && !listed) channels.resize(wanted);
        if (channels.size() != wanted)
            fail("grid type " + std::to_string(result.gridType) + " takes " + std::to_string(wanted) + " " + what +
                 " channels, " + (listed ? "given " : "found ") + std::to_string(channels.size()) + names(channels));
    }

    // The first channel of each phase, in the naming that covers most phases.
    Indices phaseSet(ChannelKind kind, bool lineToLine) const {
        Indices best;
        for (PhaseScheme scheme : {PhaseScheme::Abc, PhaseScheme::Rst, PhaseScheme::L123, PhaseScheme::Digits}) {
            Indices perPhase(3, meta.channels.size());
            for (size_t c = meta.channels.size(); c-- > 0;) {
                const std::optional<PhaseId> id = phaseOfChannel(meta.channels[c]);
                if (meta.channels[c].kind == kind && id && id->scheme == scheme && id->lineToLine == lineToLine)
                    perPhase[static_cast<size_t>(id->phase - 1)] = c;
            }
            perPhase.erase(std::remove(perPhase.begin(), perPhase.end(), meta.channels.size()), perPhase.end());
            if (perPhase.size() > best.size()) best = perPhase;
        }
        return best;
    }

    // Channels of a kind that name no phase, taken in file order when they
    // could make up one system by themselves.
    Indices unnamed(ChannelKind kind) const {
        Indices found;
        for (size_t c = 0; c < meta.channels.size(); ++c)
            if (meta.channels[c].kind == kind && !phaseOfChannel(meta.channels[c])) found.push_back(c);
        return found.size() <= 3 ? found : Indices();
    }

    bool allLineToLine(const Indices& channels) const {
        return std::all_of(channels.begin(), channels.end(), [&](size_t c) {
            const std::optional<PhaseId> id = phaseOfChannel(meta.channels[c]);
            return id && id->lineToLine;
        });
    }

    Indices resolve(const std::vector<std::string>& requested, const std::string& what) const {
        if (requested.size() > 3)
            fail("at most three " + what + " channels, given " + std::to_string(requested.size()));
        Indices channels;
        for (const std::string& name : requested) channels.push_back(find(name));
        return channels;
    }

    // By exact name, then by name ignoring case, then by 1-based number.
    size_t find(const std::string& name) const {
        for (size_t c = 0; c < meta.channels.size(); ++c)
            if (meta.channels[c].name == name) return c;
        for (size_t c = 0; c < meta.channels.size(); ++c)
            if (toUpper(meta.channels[c].name) == toUpper(name)) return c;
        const std::optional<uint64_t> number = parseCount(name);
        if (number && *number >= 1 && *number <= meta.channels.size()) return static_cast<size_t>(*number - 1);
        fail("no channel '" + name + "' (it has " + std::to_string(meta.channels.size()) +
             " channels, numbered from 1)");
    }

    std::string names(const Indices& channels) const {
        std::string text;
        for (size_t c : channels) text += (text.empty() ? " (" : ", ") + meta.channels[c].name;
        return text.empty() ? text : text + ")";
    }

    const RecordingMetadata& meta;
    const MappingOptions& options;
    std::optional<bool> wantDelta;
    ChannelMap result;
};

}  // namespace

ChannelMap mapChannels(const RecordingMetadata& metadata, const MappingOptions& options) {
    return Mapper(metadata, options).map();
}

}  // namespace tarnel::recordings
