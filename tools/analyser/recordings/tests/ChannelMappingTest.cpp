// Choosing voltages, currents and the grid type from channel names, phase
// fields and units, and the user's overrides.
#include <gtest/gtest.h>

#include <sstream>

#include "RecordingTestSupport.h"
#include "recordings/ChannelMapping.h"
#include "recordings/Units.h"

using namespace tarnel::recordings;
using namespace recordings_test;

namespace {

// Channels as "name/unit[/phase]" entries separated by commas.
RecordingMetadata recording(const std::string& channels) {
    RecordingMetadata meta;
    meta.fileName = "rec.cfg";
    std::istringstream list(channels);
    for (std::string entry; std::getline(list, entry, ',');) {
        const size_t unitAt = entry.find('/'), phaseAt = entry.find('/', unitAt + 1);
        const UnitConversion unit = convertUnit(entry.substr(unitAt + 1, phaseAt - unitAt - 1));
        const std::string phase = phaseAt == std::string::npos ? "" : entry.substr(phaseAt + 1);
        meta.channels.push_back({entry.substr(0, unitAt), phase, unit.unit, unit.kind, unit.factor, 0.0});
    }
    return meta;
}

using Indices = std::vector<size_t>;

struct AutoCase {
    std::string name, channels;
    int gridType;
    bool delta;
    Indices voltages, currents;
};

class AutomaticMapping : public ::testing::TestWithParam<AutoCase> {};

TEST_P(AutomaticMapping, FindsPhaseOrderAndGridType) {
    const AutoCase& c = GetParam();
    const ChannelMap map = mapChannels(recording(c.channels), {});
    EXPECT_EQ(map.gridType, c.gridType);
    EXPECT_EQ(map.delta, c.delta);
    EXPECT_EQ(map.voltages, c.voltages);
    EXPECT_EQ(map.currents, c.currents);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Namings, AutomaticMapping, ::testing::Values(
    AutoCase{"AbcStar", "Ia/A,Ib/A,Ic/A,Va/V,Vb/V,Vc/V", 1, false, {3, 4, 5}, {0, 1, 2}},
    AutoCase{"RstShuffledWithSpareCurrent", "HV Bus VT/V,HV Bus VR/V,HV Bus VS/V,HV IR/A,HV IS/A,HV IT/A,LV IR/A",
             1, false, {1, 2, 0}, {3, 4, 5}},
    AutoCase{"L123TwoCurrents", "UL1/kV,UL2/kV,UL3/kV,IL1/kA,IL3/kA", 2, false, {0, 1, 2}, {3, 4}},
    AutoCase{"Delta", "VAB/V,VBC/V,VCA/V,IA/A,IB/A,IC/A", 3, true, {0, 1, 2}, {3, 4, 5}},
    AutoCase{"DeltaTwoCurrents", "UL12/V,UL23/V,UL31/V,IL1/A,IL2/A", 4, true, {0, 1, 2}, {3, 4}},
    AutoCase{"TwoPhases", "Va/V,Vb/V,Ia/A,Ib/A", 5, false, {0, 1}, {2, 3}},
    AutoCase{"TwoDeltaVoltages", "VAB/V,VBC/V,IA/A,IC/A", 6, true, {0, 1}, {2, 3}},
    AutoCase{"SinglePhaseUnnamed", "FREQ/Hz,U/V,I/A", 0, false, {1}, {2}},
    AutoCase{"VoltagesOnlyIgnoringSyncAndResidual", "VA/kV,VB/kV,VC/kV,VS/kV,3U0/V,VN/V", 1, false, {0, 1, 2}, {}},
    AutoCase{"PhaseFieldBeforeName", "Ch1/kV/CN,Ch2/kV/A,Ch3/kV/B-N", 1, false, {1, 2, 0}, {}},
    AutoCase{"StarPreferredOverDelta", "VAB/V,VBC/V,VCA/V,VA/V,VB/V,VC/V", 1, false, {3, 4, 5}, {}},
    AutoCase{"LoneCurrentDropped", "VA/V,VB/V,VC/V,IA/A", 1, false, {0, 1, 2}, {}}),
    [](const ::testing::TestParamInfo<AutoCase>& param) { return param.param.name; });
// clang-format on

const std::string kStarChannels = "Ia/A,Ib/A,Ic/A,Va/V,Vb/V,Vc/V";

TEST(ChannelMapping, FollowsTheUsersChoices) {
    MappingOptions options;
    options.voltageChannels = {"1", "channel 2", "CHANNEL 3"};
    options.currentChannels = {"4", "5"};
    ChannelMap map = mapChannels(recording("channel 1/,channel 2/,channel 3/,channel 4/,channel 5/"), options);
    EXPECT_EQ(map.voltages, (Indices{0, 1, 2}));
    EXPECT_EQ(map.currents, (Indices{3, 4}));
    EXPECT_EQ(map.gridType, 2);

    options = {};
    options.delta = true;  // per-phase names, but the user says they are line-to-line
    map = mapChannels(recording(kStarChannels), options);
    EXPECT_EQ(map.gridType, 3);
    EXPECT_EQ(map.voltages, (Indices{3, 4, 5}));

    options = {};
    options.gridType = 2;
    EXPECT_EQ(mapChannels(recording(kStarChannels), options).currents, (Indices{0, 1}));
    options.gridType = 0;
    map = mapChannels(recording(kStarChannels), options);
    EXPECT_EQ(map.voltages, (Indices{3}));
    EXPECT_EQ(map.currents, (Indices{0}));
}

TEST(ChannelMapping, RefusesSystemsTheChannelsCannotForm) {
    const auto failure = [](const std::string& channels, int gridType, std::vector<std::string> voltages = {}) {
        MappingOptions options;
        if (gridType >= 0) options.gridType = gridType;
        if (gridType == 3) options.delta = false;
        options.voltageChannels = std::move(voltages);
        return errorOf([&] { mapChannels(recording(channels), options); });
    };
    EXPECT_EQ(failure(kStarChannels, 3), "rec.cfg: grid type 3 has delta voltages, not star");
    EXPECT_EQ(failure(kStarChannels, 9), "rec.cfg: unknown grid type 9 (expected 0 to 7)");
    EXPECT_EQ(failure(kStarChannels, -1, {"Va", "Vx"}),
              "rec.cfg: no channel 'Vx' (it has 6 channels, numbered from 1)");
    EXPECT_EQ(failure(kStarChannels, 1, {"Va", "Vb"}),
              "rec.cfg: grid type 1 takes 3 voltage channels, given 2 (Va, Vb)");
    EXPECT_EQ(failure("Ia/A,Ib/A,Ic/A,Va/V", 1), "rec.cfg: grid type 1 takes 3 voltage channels, found 1 (Va)");
    EXPECT_EQ(
        failure("Ia/A,FREQ/Hz", -1),
        "rec.cfg: no voltage channels recognised among its 2 channels; name them with the voltage channel option");
}

}  // namespace
