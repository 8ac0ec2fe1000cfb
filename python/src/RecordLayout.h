// The layout of the result records, field by field, from which the Python
// layer builds numpy dtypes that view the records without copying fields.
#pragma once

#include <nanobind/nanobind.h>

namespace tarnel::bindings {

// {record name: (size, [(field, format or record name, offset, count), ...])}
nanobind::dict recordLayouts();

}  // namespace tarnel::bindings
