// The 256 powers of two that decode an RGBE exponent byte.
#pragma once

extern float exponentTable[256];

// Entry i becomes 2 to the power (i - 136).
void fillExponentTable();
