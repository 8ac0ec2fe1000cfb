#include "RecordingFuzzSupport.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <vector>

#include "recordings/ChannelMapping.h"
#include "recordings/OpenRecording.h"
#include "recordings/RecordingError.h"

namespace tarnel::fuzz {

namespace {

namespace fs = std::filesystem;

// With TARNEL_FUZZ_TRACE set, each input's outcome is printed.
const bool tracing = std::getenv("TARNEL_FUZZ_TRACE") != nullptr;

// Bounds the chunk buffer whatever the channel count.
constexpr size_t kValuesPerChunk = 1 << 16;

class ScratchFolder {
  public:
    ScratchFolder() {
        path = fs::temp_directory_path() / ("tarnel_fuzz_" + std::to_string(::getpid()));
        fs::create_directories(path);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    fs::path path;
};

const fs::path& scratchFolder() {
    static ScratchFolder folder;
    return folder.path;
}

[[noreturn]] void fail(const std::string& path, const char* what, const char* message) {
    std::fprintf(stderr, "reader broke its promise on %s: %s\n  %s\n", path.c_str(), what, message);
    std::abort();
}

void readAllSamples(recordings::RecordingReader& reader) {
    const size_t channels = reader.metadata().channels.size();
    const size_t chunk = std::max<size_t>(1, kValuesPerChunk / std::max<size_t>(1, channels));
    std::vector<float> out(chunk * channels);
    uint64_t total = 0;
    while (const size_t read = reader.readChunk(out.data(), chunk)) {
        if (read > chunk) fail(reader.metadata().fileName, "readChunk delivered more than asked for", "");
        total += read;
    }
    if (total != reader.metadata().totalSamples)
        fail(reader.metadata().fileName, "delivered a different number of samples than announced", "");
}

// Runs one step of reading; a RecordingError is a valid answer if its message
// is one line naming a file of the recording.
template <typename Step>
void guarded(const std::string& path, Step&& step) {
    try {
        step();
    } catch (const recordings::RecordingError& e) {
        const std::string message = e.what();
        if (tracing) std::fprintf(stderr, "refused: %s\n", e.what());
        if (message.find('\n') != std::string::npos) fail(path, "message of more than one line", e.what());
        if (message.compare(0, scratchFolder().string().size(), scratchFolder().string()) != 0)
            fail(path, "message that does not start with the file", e.what());
    } catch (const std::exception& e) {
        fail(path, "an exception other than RecordingError", e.what());
    }
}

}  // namespace

std::string writeScratchFile(const std::string& name, const void* bytes, size_t size) {
    const fs::path file = scratchFolder() / name;
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        .write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
    return file.string();
}

void readRecording(const std::string& path, const recordings::RecordingOptions& options) {
    std::unique_ptr<recordings::RecordingReader> reader;
    guarded(path, [&] { reader = recordings::openRecording(path, options); });
    if (reader == nullptr) return;
    // A recording whose channels cannot be mapped without options is still read.
    guarded(path, [&] { recordings::mapChannels(reader->metadata(), recordings::MappingOptions{}); });
    guarded(path, [&] {
        readAllSamples(*reader);
        if (tracing) std::fprintf(stderr, "read %s\n", reader->metadata().format.c_str());
    });
}

}  // namespace tarnel::fuzz
