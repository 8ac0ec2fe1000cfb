// Writes recordings for the reader tests into a temporary folder: COMTRADE
// files of sines with known scaling in every data type, and WAV files.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "recordings/RecordingReader.h"

namespace recordings_test {

namespace fs = std::filesystem;

constexpr double kPi = 3.141592653589793;

class TempDir {
  public:
    TempDir() {
        static std::atomic<unsigned> counter{0};
        path = fs::temp_directory_path() /
               ("tarnel_recordings_" + std::to_string(std::random_device{}()) + "_" + std::to_string(counter++));
        fs::create_directories(path);
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    std::string file(const std::string& name) const { return (path / name).string(); }
    std::string write(const std::string& name, const std::string& bytes) const {
        std::ofstream(file(name), std::ios::binary) << bytes;
        return file(name);
    }

  private:
    fs::path path;
};

struct GeneratedAnalog {
    std::string name, phase, unit;
    double a = 1.0, b = 0.0;
    double amplitude = 100.0, phaseShift = 0.0;  // of the recorded value, in `unit`
    double primary = 1.0, secondary = 1.0;
    char side = 'P';
};

struct GeneratedComtrade {
    std::string revision = "1999";  // "" or "1991" write the 1991 layout, with or without the year
    std::string dataType = "ASCII";
    std::vector<GeneratedAnalog> analogs = {{"VA", "A", "V", 0.01, 0.5, 325.0, 0.0},
                                            {"IA", "A", "A", 0.002, -0.1, 14.0, -0.5}};
    size_t digitals = 3;
    std::vector<std::pair<double, uint64_t>> rates = {{1000.0, 200}};  // rate, last sample
    bool missingTimes = false;
};

// The recorded value of channel c at sample n: a sine of 20 samples per period.
inline double recorded(const GeneratedComtrade& recording, size_t c, uint64_t n) {
    const GeneratedAnalog& a = recording.analogs[c];
    return a.amplitude * std::sin(2.0 * kPi * static_cast<double>(n) / 20.0 + a.phaseShift);
}

inline double stored(const GeneratedComtrade& recording, size_t c, uint64_t n) {
    const double x = (recorded(recording, c, n) - recording.analogs[c].b) / recording.analogs[c].a;
    return recording.dataType == "FLOAT32" ? static_cast<double>(static_cast<float>(x)) : std::round(x);
}

std::string cfgText(const GeneratedComtrade& recording);
std::string datBytes(const GeneratedComtrade& recording);

// Writes NAME.cfg and NAME.dat, the data changed by `changeData`; returns the .cfg path.
inline std::string writeComtrade(const TempDir& dir, const GeneratedComtrade& recording,
                                 const std::string& name = "rec",
                                 const std::function<void(std::string&)>& changeData = {}) {
    std::string data = datBytes(recording);
    if (changeData) changeData(data);
    dir.write(name + ".dat", data);
    return dir.write(name + ".cfg", cfgText(recording));
}

// Reads the whole recording in chunks of `chunk` samples.
inline std::vector<float> readAll(tarnel::recordings::RecordingReader& reader, size_t chunk = 7) {
    const size_t channels = reader.metadata().channels.size();
    std::vector<float> all, buffer(chunk * channels);
    while (size_t n = reader.readChunk(buffer.data(), chunk))
        all.insert(all.end(), buffer.begin(), buffer.begin() + n * channels);
    return all;
}

// 16/24/32-bit PCM (format 1) or 32-bit float (format 3) of `frames[k][c]` in [-1, 1).
std::string wavBytes(uint16_t format, unsigned bits, double rate, const std::vector<std::vector<double>>& frames,
                     bool extensible = false, bool oddChunkBeforeData = false);

inline std::string errorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no error";
}

}  // namespace recordings_test
