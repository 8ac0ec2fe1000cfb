#include "OutputWriters.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace tarnel::analyser {

namespace {

std::FILE* openForWriting(const std::string& path) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) throw std::runtime_error(path + ": cannot be written (" + std::strerror(errno) + ")");
    return file;
}

void put(std::FILE* file, const std::string& line, const std::string& path) {
    if (std::fputs(line.c_str(), file) < 0 || std::fputc('\n', file) == EOF)
        throw std::runtime_error(path + ": write failed (" + std::strerror(errno) + ")");
}

void close(std::FILE*& file, const std::string& path) {
    if (file == nullptr) return;
    const bool failed = std::ferror(file) != 0;
    const bool closeFailed = std::fclose(file) != 0;
    file = nullptr;
    if (failed || closeFailed) throw std::runtime_error(path + ": write failed");
}

}  // namespace

void ResultFileWriter::onBlock(const PowerResultsGeneral& result) {
    writeBlock(result, coverage.blocks);
    coverage.addBlock(result, info.sampleRate);
}

void ResultFileWriter::onPeriodValue(const PowerResultsPeriod* records, int phases) {
    writePeriod(records, phases, coverage.periods);
    ++coverage.periods;
}

JsonLinesWriter::JsonLinesWriter(const std::string& path_, const SourceInfo& info_)
    : ResultFileWriter(info_), path(path_), file(openForWriting(path_)), body(std::tmpfile()) {
    if (body == nullptr) {
        std::fclose(file);
        throw std::runtime_error(path + ": no temporary file for the results (" + std::strerror(errno) + ")");
    }
}

JsonLinesWriter::~JsonLinesWriter() {
    if (body) std::fclose(body);
    if (file) std::fclose(file);
}

void JsonLinesWriter::writeLine(std::FILE* out, const Record& record) { put(out, record.json(), path); }

void JsonLinesWriter::writeBlock(const PowerResultsGeneral& r, size_t index) {
    std::vector<Record> phases;
    for (unsigned p = 0; p < r.phasesCount; ++p) phases.push_back(blockPhaseRecord(info, r, p, true));
    writeLine(body, blockRecord(info, r, index).records("per_phase", std::move(phases)));
}

void JsonLinesWriter::writePeriod(const PowerResultsPeriod* records, int phaseCount, size_t index) {
    std::vector<Record> phases;
    for (int p = 1; p <= phaseCount; ++p) phases.push_back(periodPhaseRecord(info, records[p], p - 1));
    writeLine(body, periodRecord(info, records, phaseCount, index).records("per_phase", std::move(phases)));
}

void JsonLinesWriter::finish(const RunFacts& facts) {
    writeLine(file, headerRecord(info, facts, coverage));
    std::rewind(body);
    char buffer[1 << 16];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, body)) > 0;)
        if (std::fwrite(buffer, 1, n, file) != n) throw std::runtime_error(path + ": write failed");
    if (std::ferror(body)) throw std::runtime_error(path + ": the temporary results could not be read back");
    for (size_t k = 0; k < facts.events.size(); ++k)
        writeLine(file, eventRecord(info, describeEvent(facts.events[k], info.nominalVoltage, info.voltages), k));
    close(file, path);
}

// One CSV file whose columns are named by a prototype record.
class CsvWriter::Table {
  public:
    Table(const std::string& path_, const Record& prototype) : path(path_), file(openForWriting(path_)) {
        put(file, prototype.csvHeader(), path);
    }
    ~Table() {
        if (file) std::fclose(file);
    }
    void add(const Record& record) { put(file, record.csvRow(), path); }
    void close() { analyser::close(file, path); }

  private:
    std::string path;
    std::FILE* file;
};

CsvWriter::CsvWriter(const std::string& folder_, const SourceInfo& info_) : ResultFileWriter(info_), folder(folder_) {
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
        throw std::runtime_error(folder + ": cannot create the folder (" + std::strerror(errno) + ")");
    blocks = std::make_unique<Table>(folder + "/blocks.csv", blockPrototype(info));
    harmonics = std::make_unique<Table>(folder + "/harmonics.csv", harmonicPrototype(info));
    periods = std::make_unique<Table>(folder + "/periods.csv", periodPrototype(info));
}

CsvWriter::~CsvWriter() = default;

void CsvWriter::writeBlock(const PowerResultsGeneral& r, size_t index) {
    const Record block = blockRecord(info, r, index);
    for (unsigned p = 0; p < r.phasesCount; ++p) blocks->add(Record(block).append(blockPhaseRecord(info, r, p, false)));
    for (const Record& row : harmonicRecords(info, r, index)) harmonics->add(row);
}

void CsvWriter::writePeriod(const PowerResultsPeriod* records, int phaseCount, size_t index) {
    const Record period = periodRecord(info, records, phaseCount, index);
    for (int p = 1; p <= phaseCount; ++p)
        periods->add(Record(period).append(periodPhaseRecord(info, records[p], p - 1)));
}

void CsvWriter::finish(const RunFacts& facts) {
    blocks->close();
    harmonics->close();
    periods->close();
    const Record header = headerRecord(info, facts, coverage);
    Table headerTable(folder + "/header.csv", header);
    headerTable.add(header);
    headerTable.close();
    const std::vector<Record> channelList = channelRecords(info);
    Table channels(folder + "/channels.csv", channelList.empty() ? Record() : channelList.front());
    for (const Record& channel : channelList) channels.add(channel);
    channels.close();
    Table events(folder + "/events.csv", eventPrototype(info));
    for (size_t k = 0; k < facts.events.size(); ++k)
        events.add(eventRecord(info, describeEvent(facts.events[k], info.nominalVoltage, info.voltages), k));
    events.close();
}

}  // namespace tarnel::analyser
