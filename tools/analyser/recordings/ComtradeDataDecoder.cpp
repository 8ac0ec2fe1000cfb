#include "recordings/ComtradeDataDecoder.h"

#include "recordings/ComtradeAsciiDecoder.h"
#include "recordings/ComtradeBinaryDecoder.h"
#include "recordings/FileInput.h"

namespace tarnel::recordings {

std::unique_ptr<ComtradeDataDecoder> makeDataDecoder(const ComtradeConfig& config, const ComtradeSource& source) {
    std::ifstream in = openInput(source.dataName);
    in.seekg(static_cast<std::streamoff>(source.dataOffset));
    if (config.dataType == ComtradeDataType::Ascii)
        return std::make_unique<ComtradeAsciiDecoder>(std::move(in), config, source);
    return std::make_unique<ComtradeBinaryDecoder>(std::move(in), config, source);
}

}  // namespace tarnel::recordings
