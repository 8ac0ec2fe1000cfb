#include "recordings/ComtradeFiles.h"

#include <filesystem>
#include <optional>
#include <sstream>

#include "recordings/FileInput.h"
#include "recordings/RecordingError.h"
#include "recordings/TextParsing.h"

namespace tarnel::recordings {

namespace {

namespace fs = std::filesystem;

// The file beside `path` with the other extension, in whichever case it was
// written: recorders on case-insensitive systems mix "X.CFG" with "X.dat".
std::string sibling(const std::string& path, const std::string& lowerExt) {
    const std::string upperExt = toUpper(lowerExt);
    std::string capitalised = lowerExt;
    capitalised[1] = upperExt[1];
    for (const std::string& ext : {lowerExt, upperExt, capitalised}) {
        const std::string candidate = fs::path(path).replace_extension(ext).string();
        if (fs::exists(candidate)) return candidate;
    }
    throw RecordingError(path, "no " + lowerExt + " file beside it (expected " +
                                   fs::path(path).replace_extension(lowerExt).filename().string() + ")");
}

std::string readAll(const std::string& path) {
    std::ifstream in = openInput(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

ComtradeSource fromSeparateFiles(const std::string& cfgPath, const std::string& datPath) {
    ComtradeSource source;
    source.configName = cfgPath;
    source.configText = readAll(cfgPath);
    source.dataName = datPath;
    openInput(datPath);  // fails here, with its name, if it cannot be read
    source.dataSize = fileSize(datPath);
    return source;
}

// "--- file type: DAT BINARY: 1234 ---" gives "DAT BINARY: 1234"; other lines nothing.
std::optional<std::string> sectionMarker(const std::string& line) {
    const std::string upper = toUpper(trim(line));
    const std::string prefix = "--- FILE TYPE:";
    if (upper.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
    std::string_view type = trim(std::string_view(upper).substr(prefix.size()));
    while (!type.empty() && type.back() == '-') type.remove_suffix(1);
    return std::string(trim(type));
}

void startData(ComtradeSource& source, const std::string& marker, uint64_t offset, uint64_t size) {
    source.dataOffset = offset;
    source.dataSize = size - offset;
    const size_t colon = marker.find(':');
    if (marker.compare(0, 10, "DAT BINARY") != 0 || colon == std::string::npos) return;
    const std::optional<uint64_t> declared = parseCount(std::string_view(marker).substr(colon + 1));
    if (!declared) throw RecordingError(source.configName, "DAT section with an unreadable byte count: " + marker);
    source.dataSize = std::min(*declared, source.dataSize);
}

// The sections of a .cff come as CFG, INF, HDR, DAT; only the configuration
// is kept in memory, and reading stops where the samples begin.
ComtradeSource fromCombinedFile(const std::string& path) {
    ComtradeSource source;
    source.configName = source.dataName = path;
    std::ifstream in = openInput(path);
    const uint64_t size = fileSize(path);
    LineReader lines(in);
    std::string line, section;
    bool sawConfig = false;
    while (lines.next(line)) {
        if (const std::optional<std::string> marker = sectionMarker(line)) {
            section = *marker;
            if (section.compare(0, 3, "DAT") == 0) {
                if (!sawConfig) break;
                const std::streamoff next = in.tellg();
                source.dataLinesBefore = lines.lineNumber();
                startData(source, section, next < 0 ? size : static_cast<uint64_t>(next), size);
                return source;
            }
            if (section == "CFG") source.configLinesBefore = lines.lineNumber();
            sawConfig = sawConfig || section == "CFG";
        } else if (section == "CFG") {
            source.configText += line + "\n";
        }
    }
    throw RecordingError(path, sawConfig ? "no DAT section" : "no CFG section before the data");
}

}  // namespace

ComtradeSource locateComtrade(const std::string& path) {
    const std::string extension = lowerExtension(path);
    if (extension == ".cff") return fromCombinedFile(path);
    if (extension == ".dat") {
        openInput(path);
        return fromSeparateFiles(sibling(path, ".cfg"), path);
    }
    openInput(path);
    return fromSeparateFiles(path, sibling(path, ".dat"));
}

}  // namespace tarnel::recordings
