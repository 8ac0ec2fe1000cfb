// The analyser end to end on the four public records kept in the repository,
// against facts read off the records by hand: their cycles, the pre-event
// voltage level, the phases and times of the disturbances (see each record's
// PROVENANCE.md), and a generated 60 Hz CSV.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>

#include "Analysis.h"
#include "RecordingSource.h"
#include "Report.h"

using namespace tarnel;
using namespace tarnel::analyser;

namespace {

struct Analysed {
    SourceInfo info;
    AnalysisSummary summary;
    std::vector<PowerQualityEvent> events;
    std::string report;

    std::vector<PowerQualityEvent> ofKind(const std::string& kind) const {
        std::vector<PowerQualityEvent> list;
        for (const PowerQualityEvent& e : events)
            if (e.kind == kind) list.push_back(e);
        return list;
    }
};

Analysed analyse(const std::string& path) {
    AnalyserOptions options;
    options.input = path;
    std::unique_ptr<SignalSource> source = openRecordingSource(options);
    Report report(source->info());
    AnalysisSettings settings;
    settings.backend = BackendKind::Cpu;
    Analysis analysis(*source, settings, {&report});
    analysis.run();
    char* text = nullptr;
    size_t size = 0;
    std::FILE* out = open_memstream(&text, &size);
    report.print(out, analysis.backendName(), analysis.periodsPerBlock());
    std::fclose(out);
    Analysed a{source->info(), report.summary(), report.events(), std::string(text, size)};
    std::free(text);
    return a;
}

Analysed analyseRecord(const std::string& relative) {
    return analyse(std::string(TARNEL_COMTRADE_DATA_DIR) + "/" + relative);
}

// Period values run from the first whole cycle to the last (a crossing a
// hair before the first sample leaves that cycle out), blocks to the last sample.
void expectWholeCoverage(const Analysed& a, double frequency) {
    const double cycle = 1.0 / frequency;
    EXPECT_DOUBLE_EQ(a.summary.blocksEnd, a.summary.recordingSeconds);
    EXPECT_LE(a.summary.firstPeriodStart, 1.01 * cycle);
    EXPECT_GE(a.summary.lastPeriodEnd, a.summary.recordingSeconds - 1.01 * cycle);
}

// Where every period is measured, one value per cycle but the first and last.
void expectEveryCycle(const Analysed& a, double frequency) {
    expectWholeCoverage(a, frequency);
    const auto cycles = static_cast<size_t>(std::floor(a.summary.recordingSeconds * frequency));
    EXPECT_GE(a.summary.periodValues + 2, cycles);
    EXPECT_LE(a.summary.periodValues, cycles);
}

}  // namespace

TEST(RealRecordingAnalysis, PowerQualityMeterDipInProgressWithReverseRotation) {
    const Analysed a = analyseRecord("pq_meter_dip_60Hz/1999-ascii-pq.cfg");
    // 28 cycles of about 59.97 Hz; 7.87 kV phase to neutral before the dip.
    expectEveryCycle(a, 59.97);
    EXPECT_GT(a.summary.validPeriodValues, 0u);
    EXPECT_EQ(a.summary.nominalFrequency, 60.0);
    EXPECT_EQ(a.summary.nominalVoltageSource, NominalSource::Estimated);
    EXPECT_NEAR(a.summary.nominalVoltage, 7870.0, 0.01 * 7870.0);
    EXPECT_NE(a.report.find("(estimated)"), std::string::npos);
    // Va, Vb, Vc follow each other A-C-B; measured against that rotation the
    // dip's unbalance is some tens of percent, not 800 %.
    EXPECT_EQ(a.summary.rotation, PhaseRotation::Reverse);
    EXPECT_LT(a.summary.unbalanceU2Max, 30.0);
    EXPECT_TRUE(a.ofKind("swell").empty());
    EXPECT_TRUE(a.ofKind("interruption").empty());
    // The dip that holds to the end: Vc from about 0.06 s, Vb later, down to 61 % (Vb).
    const std::vector<PowerQualityEvent> dips = a.ofKind("dip");
    ASSERT_GE(dips.size(), 1u);
    ASSERT_LE(dips.size(), 2u);
    const PowerQualityEvent& dip = dips.back();
    EXPECT_TRUE(dip.ongoing);
    EXPECT_EQ(dip.phases, "Vb Vc");
    EXPECT_NEAR(dip.start, 0.06, 1.0 / 60.0);
    EXPECT_NEAR(dip.start + dip.duration, a.summary.recordingSeconds, 1e-9);
    EXPECT_NEAR(100.0 - dip.depth, 61.0, 2.0);
    EXPECT_NE(a.report.find("ongoing at end of recording"), std::string::npos);
}

TEST(RealRecordingAnalysis, LineRelayFaultSwellAndInterruption) {
    const Analysed a = analyseRecord("sel311l_CG_fault_1991/1991-ascii-sel.cfg");
    // 30 cycles; 28.7 kV before the fault (4 pre-fault cycles), so the
    // nominal comes from those and not from the fault or the dead line. In
    // the fault and on the dead line the periods are not measurable: they
    // are reported, invalid. The fault begins in the fourth cycle, and a
    // period within three periods of an unmeasurable one is not valid
    // either, so no period of the record is: the report says so.
    expectWholeCoverage(a, 60.03);
    EXPECT_EQ(a.summary.validPeriodValues, 0u);
    EXPECT_NE(a.report.find("no valid period was found"), std::string::npos);
    EXPECT_NEAR(a.summary.nominalVoltage, 28.7e3, 0.01 * 28.7e3);
    EXPECT_EQ(a.summary.rotation, PhaseRotation::Forward);
    // C-ground fault: the dip begins on VC at about 0.06 s.
    const std::vector<PowerQualityEvent> dips = a.ofKind("dip");
    ASSERT_EQ(dips.size(), 1u);
    EXPECT_NE(dips[0].phases.find("VC"), std::string::npos);
    EXPECT_NEAR(dips[0].start, 0.06, 1.0 / 60.0);
    // VB rises to about 120 % from 0.124 s to 0.146 s.
    const std::vector<PowerQualityEvent> swells = a.ofKind("swell");
    ASSERT_EQ(swells.size(), 1u);
    EXPECT_EQ(swells[0].phases, "VB(kV)");
    EXPECT_NEAR(swells[0].start, 0.124, 1.0 / 60.0);
    EXPECT_NEAR(swells[0].start + swells[0].duration, 0.146, 1.0 / 60.0);
    EXPECT_NEAR(swells[0].depth, 20.0, 5.0);
    // The breaker opens: every phase stays dead to the end.
    const std::vector<PowerQualityEvent> interruptions = a.ofKind("interruption");
    ASSERT_EQ(interruptions.size(), 1u);
    EXPECT_TRUE(interruptions[0].ongoing);
    EXPECT_EQ(interruptions[0].phases, "VA(kV) VB(kV) VC(kV)");
    EXPECT_GT(interruptions[0].start, swells[0].start);
    EXPECT_GT(interruptions[0].depth, 90.0);
}

TEST(RealRecordingAnalysis, MultiRateEarthFaultResampledWhole) {
    const Analysed a = analyseRecord("earthfault_swell_multirate_50Hz/1.cfg");
    // 83 rate sections, 2394.9 to 2410.7 Hz, 2.21 s: about 110 cycles of 50 Hz.
    EXPECT_NE(a.summary.resampling.find("83 sample-rate sections"), std::string::npos);
    EXPECT_NEAR(a.info.sampleRate, 2410.7, 0.1);
    expectEveryCycle(a, 50.0);
    // 58.6 V secondary before the fault, VT 100/1.
    EXPECT_NEAR(a.summary.nominalVoltage, 5860.0, 0.02 * 5860.0);
    EXPECT_EQ(a.summary.rotation, PhaseRotation::Forward);
    // Five re-strikes: UB dips to about 60-67 %, UA and UC swell to about 136 %.
    const std::vector<PowerQualityEvent> dips = a.ofKind("dip");
    ASSERT_EQ(dips.size(), 5u);
    for (const PowerQualityEvent& dip : dips) {
        EXPECT_EQ(dip.phases, "UB");
        EXPECT_GT(dip.depth, 30.0);
        EXPECT_LT(dip.depth, 45.0);
    }
    const std::vector<PowerQualityEvent> swells = a.ofKind("swell");
    ASSERT_GE(swells.size(), 5u);
    double highest = 0.0;
    for (const PowerQualityEvent& swell : swells) {
        EXPECT_TRUE(swell.phases.find("UA") != std::string::npos || swell.phases.find("UC") != std::string::npos);
        highest = std::max(highest, swell.depth);
    }
    EXPECT_NEAR(highest, 36.0, 3.0);
    // Each dip of UB comes during a swell of the healthy phases.
    for (const PowerQualityEvent& dip : dips) {
        const bool paired = std::any_of(swells.begin(), swells.end(), [&](const auto& swell) {
            return dip.start >= swell.start - 0.02 && dip.start <= swell.start + swell.duration;
        });
        EXPECT_TRUE(paired) << "dip at " << dip.start;
    }
}

TEST(RealRecordingAnalysis, BreakerOpeningIsNoEvent) {
    const Analysed a = analyseRecord("ret670_breaker_open_2013_float32/Comtrade1.cfg");
    // 6 s of 60 Hz: 359 whole periods between the first and last crossing.
    expectEveryCycle(a, 60.0);
    EXPECT_GE(a.summary.validPeriodValues + 4, a.summary.periodValues);  // at most the breaker's step
    EXPECT_NEAR(a.summary.measuredFrequency, 60.0, 0.02);
    EXPECT_NEAR(a.summary.nominalVoltage, 130.4e3, 0.01 * 130.4e3);
    EXPECT_EQ(a.summary.rotation, PhaseRotation::Forward);
    EXPECT_LT(a.summary.unbalanceU2Max, 1.0);
    // A +0.35 % step of the bus voltage is neither a dip, a swell nor a rapid change.
    EXPECT_TRUE(a.events.empty()) << a.report;
}

TEST(RealRecordingAnalysis, Generated60HzCsvIsAnalysedAt60Hz) {
    // Three phases of 230 V at 60 Hz with 5 % fifth harmonic, 0.5 s at 10 kHz.
    const std::filesystem::path path = std::filesystem::temp_directory_path() / "tarnel_analyser_60hz.csv";
    {
        std::FILE* f = std::fopen(path.c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fprintf(f, "time,VA,VB,VC\n");
        const double pi = 3.141592653589793, peak = 230.0 * std::sqrt(2.0);
        for (int k = 0; k < 5000; ++k) {
            const double t = k / 10000.0;
            std::fprintf(f, "%.6f", t);
            for (int p = 0; p < 3; ++p) {
                const double w = 2.0 * pi * 60.0 * t - p * 2.0 * pi / 3.0;
                std::fprintf(f, ",%.5f", peak * (std::sin(w) + 0.05 * std::sin(5.0 * w)));
            }
            std::fprintf(f, "\n");
        }
        std::fclose(f);
    }
    const Analysed a = analyse(path.string());
    std::filesystem::remove(path);
    EXPECT_EQ(a.summary.nominalFrequency, 60.0);
    EXPECT_EQ(a.summary.nominalFrequencySource, NominalSource::Estimated);
    EXPECT_NEAR(a.summary.measuredFrequency, 60.0, 1e-3);
    EXPECT_NEAR(a.summary.nominalVoltage, 230.0 * std::sqrt(1.0025), 0.1);
    expectEveryCycle(a, 60.0);
    EXPECT_NE(a.report.find("H5 5.00%"), std::string::npos) << a.report;
    EXPECT_TRUE(a.events.empty());
}
