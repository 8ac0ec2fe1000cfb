// Quantities derived from the settings: FFT lengths, channel counts, feature
// switches, harmonic counts and period-value timing.
#include <gtest/gtest.h>

#include <utility>

#include "PowerModuleImpl.h"
#include "tarnel/PowerConfig.h"

using namespace tarnel;

TEST(DerivedConfigTest, FftLengthsCoverThePeriodsAtTheLowestFrequency) {
    EXPECT_EQ(PowerConfig::getPow2Length(1000.0), 1024u);
    EXPECT_EQ(PowerConfig::getPow2Length(1024.0), 1024u);
    EXPECT_EQ(PowerConfig::getPow2Length(1024.5), 2048u);

    PowerConfig c;
    c.sampleRate = 50000.0;  // default range 45 … 55 Hz: 11111.1 samples
    EXPECT_EQ(c.getMaxFftLength(), 16384u);
    EXPECT_EQ(c.getMinFftLength(), 16384u);
    for (auto [length, frequency] : {std::pair<unsigned long long, double>{1, 50.0}, {100000, 10.0}, {500, 1000.0}})
        EXPECT_EQ(c.getFftLength(length, frequency), 16384u) << "static frequency uses one length";

    c.sampleRate = 48000.0;
    c.variableFrequency = true;
    c.minFrequency = 45.0;
    c.maxFrequency = 65.0;
    EXPECT_EQ(c.getMaxFftLength(), 16384u);
    EXPECT_EQ(c.getMinFftLength(), 8192u);
    EXPECT_EQ(c.getFftLength(12000, 50.0), 16384u) << "never shorter than the block";
    EXPECT_EQ(c.getFftLength(4000, 60.0), 8192u);
    EXPECT_EQ(c.getFftLength(4000, 30.0), 16384u) << "never for a frequency below the range";
}

TEST(DerivedConfigTest, ChannelCountsAndSwitchesFollowTheGrid) {
    PowerConfig c;
    c.gridConfigType = TwoPhaseStarTwoCurrents;
    EXPECT_EQ(c.getLineToLineCount(), 0);
    EXPECT_EQ(c.getDeltaWaveformsCount(), 0);
    c.waveformsEnabled = true;
    EXPECT_EQ(c.getLineToLineCount(), 0);
    EXPECT_EQ(c.getDeltaWaveformsCount(), 1) << "waveforms alone bring the line-to-line waveform";
    c.lineToLineResultsEnabled = true;
    EXPECT_EQ(c.getLineToLineCount(), 1);
    c.symmetricalComponentsEnabled = c.periodSymmetricalComponentsEnabled = true;
    c.clarkeTransformEnabled = c.parkTransformEnabled = true;
    c.clarkeOrParkVoltagesEnabled = c.clarkeOrParkCurrentsEnabled = c.clarkeOrParkWaveformsEnabled = true;
    c.mechanicalAngleUsed = true;
    for (bool on : {c.areSymmetricalComponentsEnabled(), c.arePeriodSymmetricalComponentsEnabled(),
                    c.areClarkeVoltagesEnabled(), c.areClarkeCurrentsEnabled(), c.areParkVoltagesEnabled(),
                    c.areParkCurrentsEnabled(), c.areClarkeWaveformsRequired(), c.areParkWaveformsRequired()})
        EXPECT_FALSE(on) << "two phases have no three-phase transforms";
    EXPECT_FALSE(c.areAnyPeriodValuesEnabled());

    c.gridConfigType = ThreePhaseStarThreeCurrents;
    EXPECT_EQ(c.getLineToLineCount(), 3);
    EXPECT_TRUE(c.areParkWaveformsRequired());
    EXPECT_TRUE(c.areAnyPeriodValuesEnabled()) << "period symmetrical components on three phases";
    c.mechanicalAngleUsed = false;
    EXPECT_FALSE(c.areParkWaveformsRequired()) << "Park waveforms need the measured angle";
    EXPECT_TRUE(c.areClarkeWaveformsRequired());
    c.currentEnabled = false;
    EXPECT_EQ(c.getCurrentsCount(), 0);
    EXPECT_FALSE(c.areClarkeCurrentsEnabled());
    EXPECT_FALSE(c.areParkCurrentsEnabled());
    EXPECT_TRUE(c.areClarkeVoltagesEnabled());
}

TEST(DerivedConfigTest, HarmonicCountsAndPeriodTiming) {
    PowerConfig c;
    c.highestRequestedHarmonic = 0;
    EXPECT_EQ(c.getRequiredHarmonicsCount(), 2u);
    c.highestRequestedHarmonic = 1;
    c.thdEnabled = true;
    EXPECT_EQ(c.getRequiredHarmonicsCount(), 41u);
    c.highestRequestedHarmonic = 50;
    EXPECT_EQ(c.getRequiredHarmonicsCount(), 51u);
    c.thdEnabled = false;
    c.highestRequestedHarmonic = -1;
    EXPECT_EQ(c.getRequiredHarmonicsCount(), 4294967296u) << "compared as unsigned 32-bit";

    struct Timing {
        unsigned short halfPeriods, overlap;
        double length, advance;
        std::pair<unsigned short, unsigned short> ratio;
    };
    for (const Timing& t :
         {Timing{2, 0, 1.0, 1.0, {1, 1}}, Timing{1, 0, 0.5, 0.5, {1, 2}}, Timing{2, 50, 1.0, 0.5, {1, 2}},
          Timing{20, 0, 10.0, 10.0, {10, 1}}, Timing{3, 25, 1.5, 1.125, {9, 8}}, Timing{2, 100, 1.0, 0.0, {0, 1}}}) {
        c.halfPeriodValuesCount = t.halfPeriods;
        c.periodValuesOverlapInPercent = t.overlap;
        EXPECT_DOUBLE_EQ(c.getPeriodCountForPeriodValues(), t.length) << t.halfPeriods << "/" << t.overlap;
        EXPECT_DOUBLE_EQ(c.getPeriodCountAdvanceBy(), t.advance) << t.halfPeriods << "/" << t.overlap;
        EXPECT_EQ(c.getPeriodCountAdvanceByRatio(), t.ratio) << t.halfPeriods << "/" << t.overlap;
    }

    PowerModule m(BackendKind::Cpu);
    m.setGridConfigType(ThreePhaseStarThreeCurrents);
    m.setInterHarmonicsEnabled(true);
    EXPECT_EQ(m.implementation()->getHarmonicOutputsCount(), 24);
    m.setCurrentEnabled(false);
    m.setInterHarmonicsEnabled(false);
    EXPECT_EQ(m.implementation()->getHarmonicOutputsCount(), 3);
}
