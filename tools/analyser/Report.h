// Gathers block results and period values into the report printed at the end:
// per channel statistics, unbalance, powers, and a table of events.
#pragma once

#include <cstdio>
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

struct PowerQualityEvent {
    std::string kind;    // "dip", "swell" or "rvc"
    std::string phases;  // e.g. "L1" or "L1 L2 L3"
    double start = 0.0;  // seconds
    double duration = 0.0;
    double voltage = 0.0;  // residual (dip), maximum (swell), steady change (rvc)
    double depth = 0.0;    // percent of nominal (dip), of nominal rise (swell), delta U max (rvc)
    bool ongoing = false;  // still in progress when the recording ended: no end, no duration
};

// Turns the detector results of one period value into events.
class EventCollector {
  public:
    explicit EventCollector(double nominalVoltage, unsigned rvcWindow = 100)
        : nominal(nominalVoltage), window(rvcWindow) {}
    void add(const PowerResultsPeriod* records, int phases);
    // Events in time order, simultaneous events of several phases merged.
    std::vector<PowerQualityEvent> events() const;

  private:
    double nominal;
    unsigned window;
    std::vector<PowerQualityEvent> perPhase;
};

class Report final : public ResultSink {
  public:
    explicit Report(const SourceInfo& info);
    void onBlock(const PowerResultsGeneral& result) override;
    void onPeriodValue(const PowerResultsPeriod* records, int phases) override;
    void print(std::FILE* out, const char* backend, unsigned periodsPerBlock) const;
    std::vector<PowerQualityEvent> events() const { return eventCollector.events(); }

  private:
    struct ChannelStats {
        Statistic rms, thd;
        std::vector<double> harmonicShares;  // summed % of the fundamental per order
    };
    void addChannel(ChannelStats& stats, double rms, const PowerResultsThd& thd, const float* harmonics,
                    unsigned count);
    void printChannels(std::FILE* out, unsigned periodsPerBlock) const;
    void printPowers(std::FILE* out) const;
    void printEvents(std::FILE* out) const;

    SourceInfo info;
    std::vector<ChannelStats> voltages, currents;
    Statistic frequency, u2, u0;
    std::vector<Statistic> activePower, reactivePower, apparentPower, powerFactor, displacement;
    size_t blockCount = 0, periodCount = 0;
    double endTime = 0.0;
    EventCollector eventCollector;
};

std::string worstHarmonics(const std::vector<double>& sharesSum, size_t blocks, int count);

}  // namespace tarnel::analyser
