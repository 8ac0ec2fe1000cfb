// Small formulas shared by block results and period values.
#pragma once

#include <algorithm>
#include <cmath>

namespace tarnel {

// sqrt(a^2 - b^2), never negative: the quadrature part of a total a with an in-phase part b.
inline double nonNegativeRoot(double a, double b) { return std::sqrt(std::max(a * a - b * b, 0.0)); }

// P / S when S is positive, else 0.
inline double ratioOrZero(double p, double s) { return s > 0.0 ? p / s : 0.0; }

}  // namespace tarnel
