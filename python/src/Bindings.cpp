// The extension module tarnel64._core: the streaming module, the analyser
// run, and the record layouts. The Python package wraps these with checked
// arguments, dtypes and DataFrames.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include "FileAnalysis.h"
#include "ModuleColumns.h"
#include "RecordLayout.h"
#include "StreamingModule.h"
#include "tarnel/CudaErrorHandling.h"
#include "tarnel/DeviceBackend.h"

namespace nb = nanobind;
using namespace nb::literals;

namespace tarnel {}
using namespace tarnel;
using tarnel::bindings::SampleArray;
using tarnel::bindings::StreamingModule;

NB_MODULE(_core, m) {
    m.doc() = "Bindings of the tarnel64 library; use the tarnel64 package instead.";
    nb::exception<GpuException>(m, "DeviceError", PyExc_RuntimeError);

    nb::class_<StreamingModule>(m, "StreamingModule")
        .def(nb::init<int>(), "backend"_a)
        .def("configure", &StreamingModule::configure, "settings"_a)
        .def_prop_ro("backend", &StreamingModule::backendName)
        .def("write", &StreamingModule::write<float>, "voltages"_a, "currents"_a)
        .def("write", &StreamingModule::write<double>, "voltages"_a, "currents"_a)
        .def("schedule", &StreamingModule::schedule, "first_sample"_a, "length"_a, "frequency"_a)
        .def("sync", &StreamingModule::sync)
        .def("result_ready", &StreamingModule::resultReady)
        .def("results", &StreamingModule::results, "max_results"_a = 0)
        .def("period_values", &StreamingModule::periodValues)
        .def(
            "ring",
            [](nb::handle self, const std::string& kind, unsigned channel) {
                return nb::cast<StreamingModule&>(self).ring(kind, channel, self);
            },
            "kind"_a, "channel"_a)
        .def_prop_ro("voltages", &StreamingModule::voltages)
        .def_prop_ro("currents", &StreamingModule::currents)
        .def_prop_ro("phases", &StreamingModule::phases)
        .def_prop_ro("next_sample", &StreamingModule::nextSample)
        .def_prop_ro("ring_length", &StreamingModule::ringLength);

    m.def("analyse_file", &tarnel::bindings::analyseFile, "path"_a, "options"_a);
    m.def("analyse_arrays", &tarnel::bindings::analyseArrays, "voltages"_a, "currents"_a, "options"_a);
    m.def("block_columns", &tarnel::bindings::blockColumns, "records"_a, "sample_rate"_a, "grid"_a, "currents"_a);
    m.def("period_columns", &tarnel::bindings::periodColumns, "records"_a, "sample_rate"_a, "grid"_a, "currents"_a);
    m.def("record_layouts", &tarnel::bindings::recordLayouts);
    m.def("cuda_available", &tarnel::isCudaDeviceAvailable);
}
