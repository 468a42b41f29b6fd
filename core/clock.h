// The two clocks of the report: the process clock in milliseconds, for scene
// parsing, and the system time in units of 100 nanoseconds, for the rest.
#pragma once

#include <cstdint>

uint64_t processClockMilliseconds();
uint64_t systemTime100ns();
