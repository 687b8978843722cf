// The constant of the 1xRTT long-code computation that tests check on their own.
#pragma once

#include <cstdint>

namespace Olm {

constexpr unsigned kLongCodeBits = 42;

// x^(2^i) modulo the long code's characteristic polynomial, i = 0..41, bit j the coefficient of x^j.
extern const uint64_t kLongCodePowersOfX[kLongCodeBits];

}  // namespace Olm
