#include "OutputWriters.h"

#include <sys/stat.h>

#include <stdexcept>

namespace tarnel::analyser {

namespace {

std::FILE* openForWriting(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) throw std::runtime_error(path + ": cannot be written");
    return file;
}

}  // namespace

JsonLinesWriter::JsonLinesWriter(const std::string& path) : file(openForWriting(path)) {}

JsonLinesWriter::~JsonLinesWriter() { std::fclose(file); }

void JsonLinesWriter::onBlock(const PowerResultsGeneral& r) {
    std::fprintf(file, "{\"type\":\"block\",\"firstSample\":%llu,\"length\":%u,\"endTime\":%.6f,\"frequency\":%.6f",
                 static_cast<unsigned long long>(r.firstSampleIndex), r.length, r.endTime, r.frequency);
    if (r.phasesCount == 3)
        std::fprintf(file, ",\"u2\":%.6g,\"u0\":%.6g", r.symmetricalComponents[2].voltageRatio,
                     r.symmetricalComponents[0].voltageRatio);
    std::fprintf(file, ",\"phases\":[");
    for (unsigned p = 0; p < r.phasesCount; ++p) {
        const PowerResultsPhase& ph = r.phases[p];
        std::fprintf(file,
                     "%s{\"rmsU\":%.6g,\"rmsI\":%.6g,\"rmsUL\":%.6g,\"fundamentalU\":%.6g,\"thdU\":%.6g,\"thdI\":%.6g,"
                     "\"activePower\":%.6g,\"fundamentalReactivePower\":%.6g,\"apparentPower\":%.6g,"
                     "\"powerFactor\":%.6g,\"displacementPowerFactor\":%.6g}",
                     p ? "," : "", ph.rmsU, ph.rmsI, ph.rmsUL, ph.fundamentalU, ph.thdU.thd, ph.thdI.thd,
                     ph.activePower, ph.fundamentalReactivePower, ph.apparentPower, ph.powerFactor,
                     ph.displacementPowerFactor);
    }
    std::fprintf(file, "]}\n");
}

void JsonLinesWriter::onPeriodValue(const PowerResultsPeriod* records, int phases) {
    std::fprintf(file, "{\"type\":\"period\",\"time\":%.6f,\"frequency\":%.6f,\"valid\":%s,\"phases\":[",
                 records[1].time, records[1].frequency, records[1].valid ? "true" : "false");
    for (int p = 1; p <= phases; ++p) {
        const PowerResultsPeriod& r = records[p];
        std::fprintf(file, "%s{\"rmsU\":%.6g,\"rmsI\":%.6g,\"fundamentalU\":%.6g,\"activePower\":%.6g,\"angle\":%.6g}",
                     p > 1 ? "," : "", r.rmsU, r.rmsI, r.fundamentalU, r.activePower, r.fundamentalPhaseAngle);
    }
    std::fprintf(file, "]}\n");
}

void JsonLinesWriter::writeEvents(const std::vector<PowerQualityEvent>& events) {
    for (const PowerQualityEvent& e : events)
        std::fprintf(file,
                     "{\"type\":\"event\",\"event\":\"%s\",\"phases\":\"%s\",\"start\":%.6f,\"duration\":%.6f,"
                     "\"voltage\":%.6g,\"depth\":%.6g}\n",
                     e.kind.c_str(), e.phases.c_str(), e.start, e.duration, e.voltage, e.depth);
}

CsvWriter::CsvWriter(const std::string& folder_) : folder(folder_) {
    ::mkdir(folder.c_str(), 0755);
    blocks = openForWriting(folder + "/blocks.csv");
    periods = openForWriting(folder + "/periods.csv");
    std::fprintf(blocks,
                 "first_sample,length,end_time,frequency,phase,rms_u,rms_i,rms_ul,fundamental_u,thd_u,thd_i,"
                 "active_power,fundamental_reactive_power,apparent_power,power_factor,u2,u0\n");
    std::fprintf(periods, "time,frequency,valid,phase,rms_u,rms_i,fundamental_u,active_power,angle\n");
}

CsvWriter::~CsvWriter() {
    std::fclose(blocks);
    std::fclose(periods);
}

void CsvWriter::onBlock(const PowerResultsGeneral& r) {
    const double u2 = r.phasesCount == 3 ? r.symmetricalComponents[2].voltageRatio : 0.0;
    const double u0 = r.phasesCount == 3 ? r.symmetricalComponents[0].voltageRatio : 0.0;
    for (unsigned p = 0; p < r.phasesCount; ++p) {
        const PowerResultsPhase& ph = r.phases[p];
        std::fprintf(blocks, "%llu,%u,%.6f,%.6f,L%u,%.6g,%.6g,%.6g,%.6g,%.6g,%.6g,%.6g,%.6g,%.6g,%.6g,%.6g,%.6g\n",
                     static_cast<unsigned long long>(r.firstSampleIndex), r.length, r.endTime, r.frequency, p + 1,
                     ph.rmsU, ph.rmsI, ph.rmsUL, ph.fundamentalU, ph.thdU.thd, ph.thdI.thd, ph.activePower,
                     ph.fundamentalReactivePower, ph.apparentPower, ph.powerFactor, u2, u0);
    }
}

void CsvWriter::onPeriodValue(const PowerResultsPeriod* records, int phases) {
    for (int p = 1; p <= phases; ++p) {
        const PowerResultsPeriod& r = records[p];
        std::fprintf(periods, "%.6f,%.6f,%d,L%d,%.6g,%.6g,%.6g,%.6g,%.6g\n", r.time, r.frequency, r.valid ? 1 : 0, p,
                     r.rmsU, r.rmsI, r.fundamentalU, r.activePower, r.fundamentalPhaseAngle);
    }
}

void CsvWriter::writeEvents(const std::vector<PowerQualityEvent>& events) {
    std::FILE* file = openForWriting(folder + "/events.csv");
    std::fprintf(file, "event,phases,start,duration,voltage,depth\n");
    for (const PowerQualityEvent& e : events)
        std::fprintf(file, "%s,%s,%.6f,%.6f,%.6g,%.6g\n", e.kind.c_str(), e.phases.c_str(), e.start, e.duration,
                     e.voltage, e.depth);
    std::fclose(file);
}

}  // namespace tarnel::analyser
