// A discrete distribution over weighted entries, sampled through a guide
// array so that a draw costs a few steps however long the table is.
#pragma once

#include <vector>

struct Distribution {
    int count = 0;
    std::vector<float> cdf;     // count + 1 entries, the last 1.0
    std::vector<float> pdf;     // count entries, normalised weights
    std::vector<int> guide;     // count + 1 entries
    double total = 0.0;
};

void initializeDistribution(Distribution& d, int count);
inline void setWeight(Distribution& d, int i, float w) { d.pdf[i] = w; }
// Normalises the weights and fills the guide. All-zero weights are the
// caller's to avoid.
void finishDistribution(Distribution& d);
int sample(const Distribution& d, float u);
inline float probability(const Distribution& d, int i) { return d.pdf[i]; }
void releaseDistribution(Distribution& d);
