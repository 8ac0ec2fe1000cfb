// A PowerModule for Python: configured from one set of named settings,
// samples copied into its rings from numpy arrays, results as record tables.
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "tarnel/PowerModule.h"
#include "tarnel/ZeroCrossingDetector.h"

namespace tarnel {}
namespace tarnel::bindings {

using namespace tarnel;

template <typename T>
using SampleArray = nanobind::ndarray<const T, nanobind::ndim<2>, nanobind::c_contig, nanobind::device::cpu>;

class StreamingModule {
  public:
    explicit StreamingModule(int backend);

    // Applies every setting in one rebuild and starts at sample 0. Names and
    // value types are checked by the Python layer; unknown names are refused.
    void configure(const nanobind::dict& settings);
    const char* backendName() const;

    template <typename T>
    void write(SampleArray<T> voltages, SampleArray<T> currents);
    void schedule(uint64_t firstSample, int length, double frequency);
    void sync();
    bool resultReady() const;
    nanobind::dict results(int maxResults);
    nanobind::object periodValues();

    // The ring of one channel ("u" or "i"), shared with the module; `owner` keeps it alive.
    nanobind::object ring(const std::string& kind, unsigned channel, nanobind::handle owner);

    unsigned voltages() const { return static_cast<unsigned>(voltageRings.size()); }
    unsigned currents() const { return static_cast<unsigned>(currentRings.size()); }
    unsigned phases() const { return module.getPhasesCount(); }
    uint64_t written() const { return next - first; }
    uint64_t nextSample() const { return next; }
    uint64_t ringLength() const { return length; }

  private:
    template <typename T>
    void copyIntoRings(const SampleArray<T>& voltages, const SampleArray<T>& currents, size_t count);
    void trackPeriods(size_t count);

    PowerModule module;
    std::unique_ptr<ZeroCrossingDetector> detector;
    bool periodsStarted = false;
    std::vector<float*> voltageRings, currentRings;
    uint64_t length = 0, first = 0, next = 0;
};

}  // namespace tarnel::bindings
