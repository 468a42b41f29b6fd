#include "core/exponent.h"

#include <cmath>

float exponentTable[256];

void fillExponentTable() {
    for (int i = 0; i < 256; ++i) exponentTable[i] = std::ldexp(1.0f, i - 136);
}
