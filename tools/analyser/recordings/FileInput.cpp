#include "recordings/FileInput.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "recordings/RecordingError.h"

namespace tarnel::recordings {

namespace fs = std::filesystem;

std::ifstream openInput(const std::string& path) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (!fs::exists(status)) throw RecordingError(path, "no such file");
    // A folder opens as a stream on some systems and then reads nothing.
    if (!fs::is_regular_file(status)) throw RecordingError(path, "not a regular file");
    errno = 0;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        const int reason = errno;
        throw RecordingError(
            path, std::string("cannot be opened") + (reason ? std::string(" (") + std::strerror(reason) + ")" : ""));
    }
    return in;
}

uint64_t fileSize(const std::string& path) {
    std::error_code error;
    const uintmax_t size = fs::file_size(path, error);
    if (error) throw RecordingError(path, "cannot tell its size (" + error.message() + ")");
    return size;
}

std::string lowerExtension(const std::string& path) {
    std::string extension = fs::path(path).extension().string();
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return extension;
}

}  // namespace tarnel::recordings
