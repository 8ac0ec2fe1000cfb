#include "RecordingTestSupport.h"

#include <sstream>

namespace recordings_test {

namespace {

void putLe(std::string& out, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

void putFloat(std::string& out, float value) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    putLe(out, bits, 4);
}

uint64_t timeStamp(const GeneratedComtrade& recording, uint64_t n) {
    // Microseconds through the rate sections.
    double t = 0.0;
    uint64_t first = 0;
    for (const auto& [rate, last] : recording.rates) {
        const uint64_t inSection = std::min(n, last) - std::min(n, first);
        t += static_cast<double>(inSection) / (rate > 0 ? rate : 1000.0);
        first = last;
    }
    return static_cast<uint64_t>(std::llround(t * 1e6));
}

void putBinaryRecord(std::string& out, const GeneratedComtrade& recording, uint64_t n) {
    putLe(out, n + 1, 4);
    putLe(out, recording.missingTimes ? 0xFFFFFFFFu : timeStamp(recording, n), 4);
    for (size_t c = 0; c < recording.analogs.size(); ++c) {
        const double x = stored(recording, c, n);
        if (recording.dataType == "BINARY") putLe(out, static_cast<uint16_t>(static_cast<int16_t>(x)), 2);
        if (recording.dataType == "BINARY32") putLe(out, static_cast<uint32_t>(static_cast<int32_t>(x)), 4);
        if (recording.dataType == "FLOAT32") putFloat(out, static_cast<float>(x));
    }
    putLe(out, n & 1, 2 * ((recording.digitals + 15) / 16));
}

}  // namespace

std::string cfgText(const GeneratedComtrade& recording) {
    const bool old = recording.revision.empty() || recording.revision == "1991";
    std::ostringstream cfg;
    cfg.precision(17);
    cfg << "Test station,rig" << (recording.revision.empty() ? "" : "," + recording.revision) << "\r\n";
    cfg << recording.analogs.size() + recording.digitals << "," << recording.analogs.size() << "A,"
        << recording.digitals << "D\r\n";
    for (size_t c = 0; c < recording.analogs.size(); ++c) {
        const GeneratedAnalog& a = recording.analogs[c];
        // Empty skew and real min/max, as real recorders write them.
        cfg << c + 1 << "," << a.name << "," << a.phase << ",," << a.unit << "," << a.a << "," << a.b
            << ",,-32767.0,32767.0";
        if (!old) cfg << "," << a.primary << "," << a.secondary << "," << a.side;
        cfg << "\r\n";
    }
    for (size_t d = 0; d < recording.digitals; ++d) cfg << d + 1 << ",S" << d + 1 << (old ? "" : ",,") << ",0\r\n";
    cfg << "50\r\n" << recording.rates.size() << "\r\n";
    for (const auto& [rate, last] : recording.rates) cfg << rate << "," << last << "\r\n";
    cfg << "01/02/2024,10:00:00.000000\r\n01/02/2024,10:00:00.100000\r\n" << recording.dataType << "\r\n";
    if (!old) cfg << "1\r\n";
    return cfg.str();
}

std::string datBytes(const GeneratedComtrade& recording) {
    std::string out;
    const uint64_t total = recording.rates.back().second;
    for (uint64_t n = 0; n < total; ++n) {
        if (recording.dataType != "ASCII") {
            putBinaryRecord(out, recording, n);
            continue;
        }
        out += std::to_string(n + 1) + "," + (recording.missingTimes ? "" : std::to_string(timeStamp(recording, n)));
        for (size_t c = 0; c < recording.analogs.size(); ++c)
            out += "," + std::to_string(static_cast<int64_t>(stored(recording, c, n)));
        for (size_t d = 0; d < recording.digitals; ++d) out += n & 1 ? ",1" : ",0";
        out += "\r\n";
    }
    return out;
}

std::string wavBytes(uint16_t format, unsigned bits, double rate, const std::vector<std::vector<double>>& frames,
                     bool extensible, bool oddChunkBeforeData) {
    const size_t channels = frames.front().size(), width = bits / 8;
    std::string data;
    for (const auto& frame : frames)
        for (double v : frame) {
            if (format == 3)
                putFloat(data, static_cast<float>(v));
            else
                putLe(data, static_cast<uint64_t>(std::llround(v * std::ldexp(1.0, static_cast<int>(bits) - 1))),
                      width);
        }
    std::string fmt;
    putLe(fmt, extensible ? 0xFFFE : format, 2);
    putLe(fmt, channels, 2);
    putLe(fmt, static_cast<uint64_t>(rate), 4);
    putLe(fmt, static_cast<uint64_t>(rate) * channels * width, 4);
    putLe(fmt, channels * width, 2);
    putLe(fmt, bits, 2);
    if (extensible) {
        putLe(fmt, 22, 2);
        putLe(fmt, bits, 2);
        putLe(fmt, 0, 4);
        putLe(fmt, format, 2);  // the sub-format GUID starts with the format tag
        fmt += std::string("\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71", 14);
    }
    std::string body = "WAVEfmt ";
    putLe(body, fmt.size(), 4);
    body += fmt;
    if (oddChunkBeforeData)
        body += std::string(
            "LIST\x03\x00\x00\x00"
            "abc"
            "\x00",
            12);  // padded to an even size
    body += "data";
    putLe(body, data.size(), 4);
    body += data;
    std::string file = "RIFF";
    putLe(file, body.size(), 4);
    return file + body;
}

}  // namespace recordings_test
