// Gathers block results and period values into the report printed at the end:
// what was covered and assumed, per channel statistics, unbalance for the
// actual phase rotation, powers, and a table of events.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "Analysis.h"

namespace tarnel::analyser {

// Minimum, mean and maximum of a series.
struct Statistic {
    double min = 0.0, max = 0.0, sum = 0.0;
    size_t count = 0;
    void add(double value);
    double mean() const { return count ? sum / static_cast<double>(count) : 0.0; }
};

// Turns the per-phase detector results of the period values into polyphase
// events: one dip (or swell) from the first channel in to the last channel
// out, with the lowest (highest) voltage of any channel; an interruption
// while every channel is below the interruption threshold (a dip in progress
// pauses meanwhile); rapid voltage changes seen on several phases within a
// period merged. Events still open at the end are reported as ongoing.
class EventCollector {
  public:
    EventCollector(double nominalVoltage, std::vector<std::string> phaseNames, double interruptionThreshold = 10.0,
                   unsigned rvcWindow = 100);
    void add(const PowerResultsPeriod* records, int phases);
    // Events in time order; those open at `recordingEnd` (seconds) are ongoing.
    std::vector<PowerQualityEvent> events(double recordingEnd) const;

  private:
    struct Tracked {
        bool open = false;
        PowerQualityEvent event;
    };
    void open(Tracked& tracked, const char* kind, double start, double extreme);
    void include(Tracked& tracked, int phase, double value, bool lowest);
    void close(Tracked& tracked, double end);
    void addRvc(const PowerResultsPeriod& r, int phase);

    double nominal;
    std::vector<std::string> names;
    double interruptionLevel, interruptionEndLevel;  // volts
    unsigned window;
    std::vector<bool> inDip, inSwell;
    Tracked dip, swell, interruption;
    std::vector<PowerQualityEvent> finished, rvcPerPhase;
};

struct ReportSettings {
    double interruptionThreshold = 10.0;      // % of nominal, all channels below
    std::optional<PhaseRotation> phaseOrder;  // given by the user; detected otherwise
};

class Report final : public ResultSink {
  public:
    explicit Report(const SourceInfo& info, const ReportSettings& settings = {});
    void onBlock(const PowerResultsGeneral& result) override;
    void onPeriodValue(const PowerResultsPeriod* records, int phases) override;
    void print(std::FILE* out, const char* backend, unsigned periodsPerBlock) const;
    std::vector<PowerQualityEvent> events() const { return eventCollector.events(recordingSeconds()); }
    AnalysisSummary summary() const;

  private:
    struct ChannelStats {
        Statistic rms, thd;
        std::vector<double> harmonicShares;  // summed % of the fundamental per order
    };
    // Unbalance ratios of one block for either rotation.
    struct Unbalance {
        Statistic u2, u0;
    };
    void addChannel(ChannelStats& stats, double rms, const PowerResultsThd& thd, const float* harmonics,
                    unsigned count);
    void addUnbalance(const PowerResultsGeneral& r);
    struct RotationVotes {
        size_t blocks = 0, reverse = 0;  // votes, and those for the reverse rotation
    };
    void voteRotation(const PowerResultsPeriod* records, RotationVotes& votes);
    void printSummary(std::FILE* out, const AnalysisSummary& s, unsigned periodsPerBlock) const;
    void printChannels(std::FILE* out, const AnalysisSummary& s, unsigned periodsPerBlock) const;
    void printPowers(std::FILE* out) const;
    void printEvents(std::FILE* out) const;
    double recordingSeconds() const;
    PhaseRotation rotation() const;

    SourceInfo info;
    ReportSettings settings;
    std::vector<ChannelStats> voltages, currents;
    Statistic periodFrequency;
    Unbalance forward, reverse;
    RotationVotes blockVotes, steadyPeriodVotes, steadyUnmeasuredVotes;
    std::vector<Statistic> activePower, reactivePower, apparentPower, displacement;
    size_t blockCount = 0, periodCount = 0, validPeriods = 0;
    double blocksEnd = 0.0, firstPeriodStart = -1.0, lastPeriodEnd = 0.0;
    EventCollector eventCollector;
};

std::string worstHarmonics(const std::vector<double>& sharesSum, size_t blocks, int count);

}  // namespace tarnel::analyser
