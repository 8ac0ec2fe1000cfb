// The analyser end to end on its built-in recording, and its option handling.
#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "AnalyserOptions.h"
#include "Analysis.h"
#include "RecordingSource.h"
#include "Report.h"
#include "SyntheticRecording.h"

using namespace tarnel;

using namespace tarnel::analyser;

namespace {

// RMS of the synthetic voltage waveform relative to its fundamental's RMS.
double distortionFactor() {
    const double shares[] = {0.02, 0.03, 0.015, 0.005};
    double sum = 1.0;
    for (double s : shares) sum += s * s;
    return std::sqrt(sum);
}

const PowerQualityEvent* findEvent(const std::vector<PowerQualityEvent>& events, const std::string& kind) {
    for (const PowerQualityEvent& e : events)
        if (e.kind == kind) return &e;
    return nullptr;
}

class SyntheticAnalysis : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        SyntheticRecording recording(51200.0, 10.0);
        report = new Report(recording.info());
        AnalysisSettings settings;
        settings.backend = BackendKind::Cpu;
        Analysis analysis(recording, settings, {report});
        blocks = analysis.run();
    }
    static void TearDownTestSuite() { delete report; }
    static Report* report;
    static size_t blocks;
};

Report* SyntheticAnalysis::report = nullptr;
size_t SyntheticAnalysis::blocks = 0;

}  // namespace

TEST_F(SyntheticAnalysis, ReportsExactlyTheScriptedEventsWithTheirTiming) {
    const SyntheticEvents& script = SyntheticRecording::events();
    const std::vector<PowerQualityEvent> events = report->events();
    ASSERT_EQ(events.size(), 3u);
    const double period = 0.02, nominal = 230.0;

    const PowerQualityEvent* dip = findEvent(events, "dip");
    ASSERT_NE(dip, nullptr);
    EXPECT_EQ(dip->phases, "U1");
    EXPECT_FALSE(dip->ongoing);
    // Events are stamped with the end of the first period value beyond the
    // threshold and of the first one back; the steps fall on period boundaries.
    EXPECT_NEAR(dip->start, script.dipStart + period, 1e-3);
    EXPECT_NEAR(dip->duration, script.dipDuration, 1e-3);
    EXPECT_NEAR(dip->voltage, nominal * script.dipLevel * distortionFactor(), 1.0);

    const PowerQualityEvent* swell = findEvent(events, "swell");
    ASSERT_NE(swell, nullptr);
    EXPECT_EQ(swell->phases, "U3");
    EXPECT_NEAR(swell->start, script.swellStart + period, 1e-3);
    EXPECT_NEAR(swell->duration, script.swellDuration, 1e-3);
    EXPECT_NEAR(swell->voltage, nominal * 1.015 * script.swellLevel * distortionFactor(), 1.5);

    const PowerQualityEvent* rvc = findEvent(events, "rvc");
    ASSERT_NE(rvc, nullptr);
    EXPECT_EQ(rvc->phases, "U1 U2 U3");
    EXPECT_NEAR(rvc->start, script.stepTime, 2 * period);
    // The steady levels before and after differ by 3 % of the phase's level.
    EXPECT_NEAR(rvc->voltage, 0.03 * nominal * 1.015 * distortionFactor(), 0.5);
}

TEST_F(SyntheticAnalysis, CoversTheRecordingWithTenPeriodBlocks) {
    // 10 s at 50 Hz is 50 blocks of 10 periods (the first and last a period
    // longer or shorter). The recording starts on a rising crossing, which
    // may fall a hair before the first sample: 498 or 499 whole periods.
    EXPECT_GE(blocks, 49u);
    EXPECT_LE(blocks, 51u);
    const AnalysisSummary s = report->summary();
    EXPECT_DOUBLE_EQ(s.blocksEnd, 10.0);
    EXPECT_LE(s.firstPeriodStart, 0.0201);
    EXPECT_GE(s.lastPeriodEnd, 9.98);
    EXPECT_GE(s.periodValues, 498u);
    // Only the periods next to the five level steps may be unmeasurable.
    EXPECT_GE(s.validPeriodValues + 30, s.periodValues);
    EXPECT_EQ(s.rotation, PhaseRotation::Forward);
}

TEST(AnalyserOptionsTest, ParsesEveryOptionAndRefusesBadOnes) {
    const char* argv[] = {"tarnel-analyse",
                          "--backend",
                          "cpu",
                          "--grid",
                          "3",
                          "--json",
                          "out.jsonl",
                          "--voltages",
                          "VA,VB",
                          "--frequency",
                          "60",
                          "--dip-threshold",
                          "85",
                          "--interruption-threshold",
                          "5",
                          "--phase-order",
                          "132",
                          "rec.cfg"};
    const AnalyserOptions o = parseOptions(18, const_cast<char**>(argv));
    EXPECT_EQ(o.backend, BackendKind::Cpu);
    EXPECT_EQ(o.gridType.value(), 3);
    EXPECT_EQ(o.jsonPath, "out.jsonl");
    EXPECT_EQ(o.voltageColumns, (std::vector<std::string>{"VA", "VB"}));
    EXPECT_EQ(o.nominalFrequency.value(), 60.0);
    EXPECT_EQ(o.input, "rec.cfg");
    EXPECT_EQ(o.dipThreshold, 85.0);
    EXPECT_EQ(o.interruptionThreshold, 5.0);
    EXPECT_EQ(o.phaseOrder, PhaseRotation::Reverse);

    const char* unknown[] = {"tarnel-analyse", "--bogus"};
    EXPECT_THROW(parseOptions(2, const_cast<char**>(unknown)), std::invalid_argument);
    const char* badGrid[] = {"tarnel-analyse", "--grid", "9"};
    EXPECT_THROW(parseOptions(3, const_cast<char**>(badGrid)), std::invalid_argument);
    const char* missing[] = {"tarnel-analyse", "--json"};
    EXPECT_THROW(parseOptions(2, const_cast<char**>(missing)), std::invalid_argument);
    const char* backend[] = {"tarnel-analyse", "--backend", "gpu"};
    EXPECT_THROW(parseOptions(3, const_cast<char**>(backend)), std::invalid_argument);
    const char* order[] = {"tarnel-analyse", "--phase-order", "abd"};
    EXPECT_THROW(parseOptions(3, const_cast<char**>(order)), std::invalid_argument);
    const char* interruption[] = {"tarnel-analyse", "--interruption-threshold", "95"};
    EXPECT_THROW(parseOptions(3, const_cast<char**>(interruption)), std::invalid_argument);
}

TEST(AnalyserInputTest, RefusesMissingFilesAndCoversRecordingsShorterThanABlock) {
    AnalyserOptions missing;
    missing.input = "no-such-recording.cfg";
    try {
        openRecordingSource(missing);
        FAIL() << "a missing recording was accepted";
    } catch (const std::exception& e) {
        EXPECT_NE(std::string(e.what()).find("no-such-recording.cfg"), std::string::npos) << e.what();
    }

    // 0.15 s is seven and a half periods: one short block, and the period
    // values of the six whole periods after the first (partial, see above).
    SyntheticRecording shortRecording(51200.0, 0.15);
    Report report(shortRecording.info());
    AnalysisSettings settings;
    settings.backend = BackendKind::Cpu;
    Analysis analysis(shortRecording, settings, {&report});
    EXPECT_EQ(analysis.run(), 1u);
    EXPECT_EQ(report.summary().validPeriodValues, 6u);
    EXPECT_NEAR(report.summary().lastPeriodEnd, 0.14, 1e-3);
}

TEST(EventCollectorTest, FormsOneEventPerPolyphaseDisturbanceAndFlagsOngoingOnes) {
    // Per-phase detector results, as the module reports them, at 50 Hz with a
    // nominal of 100 V: a dip of A then B, a swell of C, then every phase
    // below 10 % (an interruption) until the end.
    EventCollector collector(100.0, {"A", "B", "C"}, 10.0);
    struct Step {
        double u[3];
        int dipStarts, dipEnds, swellStarts, swellEnds;  // phase bits
    };
    const Step steps[] = {{{100, 100, 100}, 0, 0, 0, 0}, {{80, 100, 100}, 1, 0, 0, 0},  {{80, 70, 100}, 2, 0, 0, 0},
                          {{100, 75, 100}, 0, 1, 0, 0},  {{100, 100, 100}, 0, 2, 0, 0}, {{100, 100, 120}, 0, 0, 4, 0},
                          {{100, 100, 100}, 0, 0, 0, 4}, {{5, 5, 5}, 7, 0, 0, 0},       {{3, 4, 3}, 0, 0, 0, 0}};
    PowerResultsPeriod records[4] = {};
    double time = 0.0;
    for (const Step& s : steps) {
        time += 0.02;
        for (int p = 1; p <= 3; ++p) {
            const int bit = 1 << (p - 1);
            records[p] = PowerResultsPeriod{};
            records[p].time = time;
            records[p].frequency = 50.0;
            records[p].rmsU = s.u[p - 1];
            records[p].dip.eventStarted = s.dipStarts & bit;
            records[p].dip.eventEnded = s.dipEnds & bit;
            records[p].swell.eventStarted = s.swellStarts & bit;
            records[p].swell.eventEnded = s.swellEnds & bit;
        }
        collector.add(records, 3);
    }
    const std::vector<PowerQualityEvent> events = collector.events(0.2);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].kind, "dip");
    EXPECT_EQ(events[0].phases, "A B");
    EXPECT_NEAR(events[0].start, 0.04, 1e-12);
    EXPECT_NEAR(events[0].duration, 0.06, 1e-12);  // until B is out
    EXPECT_EQ(events[0].voltage, 70.0);
    EXPECT_NEAR(events[0].depth, 30.0, 1e-12);
    EXPECT_FALSE(events[0].ongoing);
    EXPECT_EQ(events[1].kind, "swell");
    EXPECT_EQ(events[1].phases, "C");
    EXPECT_NEAR(events[1].depth, 20.0, 1e-12);
    // The dips of all phases that come with the interruption are part of it.
    EXPECT_EQ(events[2].kind, "interruption");
    EXPECT_EQ(events[2].phases, "A B C");
    EXPECT_NEAR(events[2].start, 0.16, 1e-12);
    EXPECT_NEAR(events[2].duration, 0.04, 1e-12);
    EXPECT_EQ(events[2].voltage, 3.0);
    EXPECT_TRUE(events[2].ongoing);

    // The voltage returns to half: the interruption ends, the dip goes on from there.
    for (int p = 1; p <= 3; ++p) {
        records[p].time = 0.2;
        records[p].rmsU = 50.0;
        records[p].dip.eventStarted = false;
    }
    collector.add(records, 3);
    const std::vector<PowerQualityEvent> later = collector.events(0.24);
    ASSERT_EQ(later.size(), 4u);
    EXPECT_FALSE(later[2].ongoing);
    EXPECT_NEAR(later[2].duration, 0.04, 1e-12);
    EXPECT_EQ(later[3].kind, "dip");
    EXPECT_TRUE(later[3].ongoing);
    EXPECT_NEAR(later[3].start, 0.2, 1e-12);
    EXPECT_EQ(later[3].voltage, 50.0);
}
