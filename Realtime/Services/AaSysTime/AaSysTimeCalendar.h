// The conversion shared by the calendar time functions, kept apart so that it can be checked
// against fixed times.
#pragma once

#include <cstdint>
#include <ctime>

#include "AaSysTime.h"

namespace Olm {

// Fills the calendar record from a broken-down time (struct tm counts years from 1900 and months
// from 0) and the microseconds of the same reading.
void fillCalendarTime(const std::tm& broken, uint32_t microseconds, SAaTime& out);

}  // namespace Olm
