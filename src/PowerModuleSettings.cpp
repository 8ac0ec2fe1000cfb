// Settings changes as single steps: a setter or the end of an update either
// takes effect whole, rebuilt where needed, or is refused and leaves every
// setting, getter and buffer as it was.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "PowerModuleImpl.h"
#include "tarnel/CudaErrorHandling.h"

namespace tarnel {

namespace {

// Rethrows the exception being handled with `call` named in its message,
// keeping its kind so that the C interface maps it to the same status.
[[noreturn]] void rethrowNaming(const std::string& call) {
    try {
        throw;
    } catch (const GpuException& e) {
        throw GpuException(std::string(e.what()) + " (" + call + " was not applied)");
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument(call + " refused: " + e.what());
    } catch (const std::logic_error& e) {
        throw std::logic_error(call + " refused: " + e.what());
    } catch (const std::exception& e) {
        throw std::runtime_error(call + " failed: " + e.what());
    }
}

}  // namespace

PowerModule::PowerModuleImpl::Settings PowerModule::PowerModuleImpl::effectiveSettings() const {
    Settings s;
    s.config = config;
    s.bufferLength = buffers.getBufferLength();
    s.bufferDuration = buffers.getBufferDuration();
    s.sampleRateSet = sampleRateSet;
    return s;
}

void PowerModule::PowerModuleImpl::installSettings(const Settings& s) {
    config = s.config;
    buffers.setBufferLengthAndDuration(s.bufferLength, s.bufferDuration);
    sampleRateSet = s.sampleRateSet;
}

void PowerModule::PowerModuleImpl::changeSettings(const std::string& call, const std::function<void(Settings&)>& change,
                                                  bool rebuilds) {
    std::lock_guard<std::mutex> lock(updateMutex);
    try {
        Settings next = pendingSettings ? *pendingSettings : effectiveSettings();
        change(next);
        // Inside an update the settings only need to fit together when it ends.
        if (pendingSettings) {
            *pendingSettings = next;
            return;
        }
        commitSettings(next, rebuilds);
    } catch (...) {
        rethrowNaming(call);
    }
}

void PowerModule::PowerModuleImpl::commitSettings(const Settings& next, bool rebuilds) {
    const std::string problem = tarnel::findUnbuildableSettings(next);
    if (!problem.empty()) throw std::invalid_argument(problem);
    const Settings previous = effectiveSettings();
    installSettings(next);
    if (!rebuilds) return;
    try {
        initialize();
    } catch (...) {
        installSettings(previous);
        recoverFromFailedRebuild();
        throw;
    }
}

// A rebuild that failed part-way (a device allocation, a plan) rebuilds the
// previous settings. The rings may have been reallocated on the way, so the
// measurement in progress is dropped; if even that rebuild fails the module
// stays unbuilt until a rebuild succeeds.
void PowerModule::PowerModuleImpl::recoverFromFailedRebuild() {
    if (!rebuildTouchedDevice) return;
    dropMeasurement();
    try {
        initialize();
    } catch (...) {
        rebuildFailed = true;
    }
}

void PowerModule::PowerModuleImpl::dropMeasurement() {
    std::lock_guard<std::mutex> lock(resultsMutex);
    resultsQueue.clear();
    currentQueueItem.reset();
    periodStartQueue.clear();
    periodResultsQueue.clear();
    periodResultsQueue2.clear();
    currentPeriodStart.reset();
    currentPeriodItem.reset();
    lastPeriodItem2.reset();
}

void PowerModule::PowerModuleImpl::beginUpdate() {
    std::lock_guard<std::mutex> lock(updateMutex);
    if (updateCount.fetch_add(1) == 0) pendingSettings = effectiveSettings();
}

void PowerModule::PowerModuleImpl::endUpdate() {
    std::lock_guard<std::mutex> lock(updateMutex);
    if (updateCount.load() <= 0) throw std::logic_error("endUpdate without a matching beginUpdate");
    if (updateCount.fetch_sub(1) - 1 != 0) return;
    // The update closes whatever happens; a refused one leaves the settings
    // that were in effect before it.
    const Settings next = *pendingSettings;
    pendingSettings.reset();
    try {
        commitSettings(next, true);
    } catch (...) {
        rethrowNaming("endUpdate");
    }
}

void PowerModule::PowerModuleImpl::setSampleRate(double sampleRate, int sampleRateDivider) {
    changeSettings(tarnel::describeCall("setSampleRate", sampleRate, static_cast<double>(sampleRateDivider)),
                   [&](Settings& s) {
                       tarnel::requirePositiveFinite(sampleRate, "the sample rate");
                       tarnel::require(sampleRateDivider >= 1, "the sample rate divider must be at least 1");
                       s.config.sampleRate = sampleRate;
                       s.config.sampleRateDivider = sampleRateDivider;
                       // The ring keeps its length in samples; its duration follows the rate.
                       s.bufferDuration = static_cast<double>(s.bufferLength) / sampleRate;
                       s.sampleRateSet = true;
                   });
}

void PowerModule::PowerModuleImpl::setBufferLength(unsigned long long length) {
    changeSettings(tarnel::describeCall("setBufferLength", length), [&](Settings& s) {
        tarnel::require(length >= 1, "the buffer length must be at least 1 sample");
        if (length > tarnel::kMaxBufferLength)
            throw std::invalid_argument("the buffer length must be at most " +
                                        std::to_string(tarnel::kMaxBufferLength) + " samples");
        s.bufferLength = length;
        s.bufferDuration = static_cast<double>(length) / s.config.sampleRate;
    });
}

void PowerModule::PowerModuleImpl::setStaticFrequency(double frequency, double tolerance) {
    changeSettings(tarnel::describeCall("setStaticFrequency", frequency, tolerance), [&](Settings& s) {
        tarnel::requirePositiveFinite(frequency, "the frequency");
        tarnel::require(!std::isnan(tolerance), "the tolerance must be a number");
        const double t = std::max(std::min(tolerance, 0.5), 0.001);
        s.config.variableFrequency = false;
        s.config.minFrequency = (1.0 - t) * frequency;
        s.config.maxFrequency = (t + 1.0) * frequency;
    });
}

void PowerModule::PowerModuleImpl::setVariableFrequency(double minFrequency, double maxFrequency) {
    changeSettings(tarnel::describeCall("setVariableFrequency", minFrequency, maxFrequency), [&](Settings& s) {
        tarnel::requirePositiveFinite(minFrequency, "the minimum frequency");
        tarnel::requirePositiveFinite(maxFrequency, "the maximum frequency");
        tarnel::require(minFrequency <= maxFrequency, "the minimum frequency must not lie above the maximum frequency");
        s.config.variableFrequency = true;
        s.config.minFrequency = minFrequency;
        s.config.maxFrequency = maxFrequency;
    });
}

}  // namespace tarnel
