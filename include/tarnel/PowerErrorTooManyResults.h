// Raised by the C interface's getResults when the finished results do not fit
// the caller's array; the C interface turns it into status 2.
#pragma once

#include <stdexcept>

#include "tarnel/Export.h"

namespace tarnel {

class TARNEL_API PowerErrorTooManyResults : public virtual std::runtime_error {
  public:
    explicit PowerErrorTooManyResults(const char* message) : std::runtime_error(message) {}
    PowerErrorTooManyResults(const PowerErrorTooManyResults& other) = default;
    PowerErrorTooManyResults& operator=(const PowerErrorTooManyResults& other) = default;
    ~PowerErrorTooManyResults() override;
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::PowerErrorTooManyResults;
#endif
