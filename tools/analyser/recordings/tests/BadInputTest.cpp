// Bad recordings of every kind end in one RecordingError whose single line
// names the file and the problem.
#include <gtest/gtest.h>

#include <functional>

#include "RecordingTestSupport.h"
#include "recordings/OpenRecording.h"
#include "recordings/RecordingError.h"

using namespace tarnel::recordings;
using namespace recordings_test;

namespace {

struct BadCase {
    std::string name;
    std::function<std::string(const TempDir&)> make;  // writes the files, returns the path to open
    std::string expected;
};

std::string failureOf(const std::string& path) {
    try {
        const std::unique_ptr<RecordingReader> reader = openRecording(path);
        readAll(*reader, 50);
    } catch (const RecordingError& e) {
        return e.what();
    }
    return "no error";
}

GeneratedComtrade changed(const std::function<void(GeneratedComtrade&)>& change) {
    GeneratedComtrade recording;
    change(recording);
    return recording;
}

std::string wavWithFormat(uint16_t format, unsigned bits, size_t cut) {
    std::string wav = wavBytes(format, bits, 8000.0, std::vector<std::vector<double>>(100, {0.5}));
    return wav.substr(0, wav.size() - cut);
}

const std::vector<BadCase>& cases() {
    static const std::vector<BadCase> all = {
        {"missing file", [](const TempDir& d) { return d.file("nope.cfg"); }, "nope.cfg: no such file"},
        {"folder",
         [](const TempDir& d) {
             fs::create_directory(d.file("x.csv"));
             return d.file("x.csv");
         },
         "x.csv: not a regular file"},
        {"unknown type", [](const TempDir& d) { return d.write("rec.txt", "1,2\n"); },
         "rec.txt: unknown recording type '.txt'"},
        {"no data file", [](const TempDir& d) { return d.write("rec.cfg", cfgText(GeneratedComtrade())); },
         "rec.cfg: no .dat file beside it (expected rec.dat)"},
        {"truncated binary",
         [](const TempDir& d) {
             return writeComtrade(d, changed([](GeneratedComtrade& r) { r.dataType = "BINARY"; }), "rec",
                                  [](std::string& s) { s.resize(s.size() - 3); });
         },
         "rec.dat: truncated: holds 199 whole samples, the configuration declares 200"},
        {"truncated text",
         [](const TempDir& d) {
             return writeComtrade(d, GeneratedComtrade(), "rec",
                                  [](std::string& s) { s.resize(s.find("\r\n151,") + 2); });
         },
         "rec.dat: truncated: ends after 150 of the 200 samples"},
        {"channel count in the data",
         [](const TempDir& d) {
             return writeComtrade(d, GeneratedComtrade(), "rec",
                                  [](std::string& s) { s.erase(s.rfind(",", s.find("\r\n5,")) - 2, 2); });
         },
         "rec.dat:4: 6 values, but the configuration declares 5 channels"},
        {"no samples",
         [](const TempDir& d) {
             return writeComtrade(d, changed([](GeneratedComtrade& r) { r.rates = {{1000.0, 0}}; }));
         },
         "rec.cfg: the recording holds no samples"},
        {"no analog channels",
         [](const TempDir& d) { return writeComtrade(d, changed([](GeneratedComtrade& r) { r.analogs.clear(); })); },
         "rec.cfg: no analog channels"},
        {"cff without configuration",
         [](const TempDir& d) { return d.write("r.cff", "--- file type: DAT ASCII ---\n1,0,5\n"); },
         "r.cff: no CFG section before the data"},
        {"empty csv", [](const TempDir& d) { return d.write("x.csv", "\n\n"); },
         "x.csv: empty file, expected a header row"},
        {"csv header only", [](const TempDir& d) { return d.write("x.csv", "time,Va\n"); },
         "x.csv: no data rows below the header"},
        {"csv short row", [](const TempDir& d) { return d.write("x.csv", "time,Va,Ia\n0,1,2\n0.1,1\n0.2,1,2\n"); },
         "x.csv:3: 2 fields, the header has 3"},
        {"csv text value", [](const TempDir& d) { return d.write("x.csv", "t,Va\n0,1\n0.5,abc\n1,2\n"); },
         "x.csv:3: Va: 'abc' is not a number"},
        {"csv without rate", [](const TempDir& d) { return d.write("x.csv", "Va,Ia\n1,2\n"); },
         "x.csv: no time column (time, t, timestamp or seconds); give the sample rate"},
        {"csv time standing still", [](const TempDir& d) { return d.write("x.csv", "time,Va\n1,1\n1,2\n"); },
         "x.csv: the time column does not increase"},
        {"not a wav", [](const TempDir& d) { return d.write("x.wav", "RIFX...."); }, "x.wav: not a WAV file"},
        {"8-bit wav", [](const TempDir& d) { return d.write("x.wav", wavWithFormat(1, 8, 0)); },
         "x.wav: unsupported sample format (format tag 1, 8 bits)"},
        {"truncated wav", [](const TempDir& d) { return d.write("x.wav", wavWithFormat(1, 16, 10)); },
         "x.wav: truncated: the data chunk declares 200 bytes, the file holds 190"},
    };
    return all;
}

TEST(BadInput, EndsInOneLineNamingTheFileAndTheProblem) {
    for (const BadCase& bad : cases()) {
        SCOPED_TRACE(bad.name);
        TempDir dir;
        const std::string message = failureOf(bad.make(dir));
        EXPECT_NE(message.find(bad.expected), std::string::npos) << message;
        EXPECT_EQ(message.find('\n'), std::string::npos);
    }
}

// Damaged data must give values or a RecordingError, never a crash or a hang.
TEST(BadInput, SurvivesDamagedDataFiles) {
    std::mt19937 random(11);
    for (const std::string type : {"ASCII", "BINARY", "FLOAT32"}) {
        GeneratedComtrade recording;
        recording.dataType = type;
        const std::string good = datBytes(recording);
        for (int round = 0; round < 20; ++round) {
            TempDir dir;
            const std::string path = writeComtrade(dir, recording, "rec", [&](std::string& s) {
                for (int k = 0; k < 10; ++k) s[random() % s.size()] = static_cast<char>(random() % 256);
                s.resize(random() % (s.size() + 1));
            });
            const std::string message = failureOf(path);
            EXPECT_TRUE(message == "no error" || message.find("rec.") != std::string::npos) << message;
        }
    }
}

}  // namespace
