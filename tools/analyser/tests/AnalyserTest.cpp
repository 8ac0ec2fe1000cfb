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
    EXPECT_EQ(dip->phases, "L1");
    EXPECT_NEAR(dip->start, script.dipStart, period);
    EXPECT_NEAR(dip->duration, script.dipDuration, period);
    EXPECT_NEAR(dip->voltage, nominal * script.dipLevel * distortionFactor(), 1.0);

    const PowerQualityEvent* swell = findEvent(events, "swell");
    ASSERT_NE(swell, nullptr);
    EXPECT_EQ(swell->phases, "L3");
    EXPECT_NEAR(swell->start, script.swellStart, period);
    EXPECT_NEAR(swell->duration, script.swellDuration, period);
    EXPECT_NEAR(swell->voltage, nominal * 1.015 * script.swellLevel * distortionFactor(), 1.5);

    const PowerQualityEvent* rvc = findEvent(events, "rvc");
    ASSERT_NE(rvc, nullptr);
    EXPECT_EQ(rvc->phases, "L1 L2 L3");
    EXPECT_NEAR(rvc->start, script.stepTime, 2 * period);
    // The steady levels before and after differ by 3 % of the phase's level.
    EXPECT_NEAR(rvc->voltage, 0.03 * nominal * 1.015 * distortionFactor(), 0.5);
}

TEST_F(SyntheticAnalysis, CoversTheRecordingWithTenPeriodBlocks) {
    // 10 s at 50 Hz is 50 blocks of 10 periods; the zero-crossing latency may hold back the last one.
    EXPECT_GE(blocks, 49u);
    EXPECT_LE(blocks, 50u);
}

TEST(AnalyserOptionsTest, ParsesEveryOptionAndRefusesBadOnes) {
    const char* argv[] = {"tarnel-analyse", "--backend",  "cpu",   "--grid",      "3",  "--json",
                          "out.jsonl",      "--voltages", "VA,VB", "--frequency", "60", "rec.cfg"};
    const AnalyserOptions o = parseOptions(12, const_cast<char**>(argv));
    EXPECT_EQ(o.backend, BackendKind::Cpu);
    EXPECT_EQ(o.gridType.value(), 3);
    EXPECT_EQ(o.jsonPath, "out.jsonl");
    EXPECT_EQ(o.voltageColumns, (std::vector<std::string>{"VA", "VB"}));
    EXPECT_EQ(o.nominalFrequency.value(), 60.0);
    EXPECT_EQ(o.input, "rec.cfg");

    const char* unknown[] = {"tarnel-analyse", "--bogus"};
    EXPECT_THROW(parseOptions(2, const_cast<char**>(unknown)), std::invalid_argument);
    const char* badGrid[] = {"tarnel-analyse", "--grid", "9"};
    EXPECT_THROW(parseOptions(3, const_cast<char**>(badGrid)), std::invalid_argument);
    const char* missing[] = {"tarnel-analyse", "--json"};
    EXPECT_THROW(parseOptions(2, const_cast<char**>(missing)), std::invalid_argument);
    const char* backend[] = {"tarnel-analyse", "--backend", "gpu"};
    EXPECT_THROW(parseOptions(3, const_cast<char**>(backend)), std::invalid_argument);
}

TEST(AnalyserInputTest, RefusesMissingFilesAndRecordingsShorterThanABlock) {
    AnalyserOptions missing;
    missing.input = "no-such-recording.cfg";
    try {
        openRecordingSource(missing);
        FAIL() << "a missing recording was accepted";
    } catch (const std::exception& e) {
        EXPECT_NE(std::string(e.what()).find("no-such-recording.cfg"), std::string::npos) << e.what();
    }

    // 0.15 s is seven and a half periods: too short for one 10-period block.
    SyntheticRecording shortRecording(51200.0, 0.15);
    AnalysisSettings settings;
    settings.backend = BackendKind::Cpu;
    Analysis analysis(shortRecording, settings, {});
    EXPECT_EQ(analysis.run(), 0u);
}
