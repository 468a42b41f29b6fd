#include "core/distribution.h"

#include <algorithm>

void initializeDistribution(Distribution& d, int count) {
    d.count = count;
    d.pdf.assign(size_t(count), 0.0f);
    d.cdf.assign(size_t(count) + 1, 0.0f);
    d.guide.assign(size_t(count) + 1, 0);
    d.total = 0.0;
}

namespace {
// First index in [first, last) whose cdf entry is above u, or last.
int firstAbove(const std::vector<float>& cdf, int first, int last, float u) {
    return int(std::upper_bound(cdf.begin() + first, cdf.begin() + last, u) - cdf.begin());
}
}  // namespace

void finishDistribution(Distribution& d) {
    const int n = d.count;
    double s = 0.0;
    for (int i = 0; i < n; ++i) {
        s += d.pdf[i];
        d.cdf[i] = float(s);
    }
    d.total = s;
    const float total = float(s);
    for (int i = 0; i < n; ++i) {
        d.cdf[i] /= total;
        d.pdf[i] /= total;
    }
    d.cdf[n] = 1.0f;
#pragma omp parallel for schedule(static)
    for (int i = 0; i < n; ++i) d.guide[i] = firstAbove(d.cdf, 0, n, float(i) / float(n));
    if (n > 0) d.guide[n] = n - 1;
}

int sample(const Distribution& d, float u) {
    int g = std::min(d.count - 1, int(float(d.count) * u));
    int first = d.guide[g], last = d.guide[g + 1];
    if (first >= last) return d.guide[g];
    return firstAbove(d.cdf, first, last, u);
}

void releaseDistribution(Distribution& d) {
    d.pdf = {};
    d.cdf = {};
    d.guide = {};
}
