#pragma once
// One chi-square test of a direction sampler against its own density, shared
// by every sampler through a small adapter. The sphere is cut into bins equal
// in cos(theta) (or in theta, for densities that are piecewise constant in
// theta) and in phi (theta measured from +z of the sampler's frame); each
// bin's expected count is the density integrated over it on a fine sub-grid;
// samples that report failure form one more category whose expectation is the
// density's missing mass. Bins expected below 5 are pooled.
#include "shaders/VecMath.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace qv::test {

struct DirSample {
    float3 dir;      // unit direction
    double pdf = 0;  // the sampler's reported solid-angle density; 0 = failed sample
};

class DirectionSampler {
public:
    virtual ~DirectionSampler() = default;
    virtual DirSample sample(uint32_t& seed) const = 0;
    virtual double pdf(float3 dir) const = 0; // solid-angle density
    virtual std::string name() const = 0;
};

struct ChiSquareResult {
    double pValue = 1;
    double statistic = 0;
    int dof = 0;
    double pdfMass = 0;           // integral of the density over the sphere
    double failedFraction = 0;    // samples that reported failure
    double worstPdfMismatch = 0;  // largest relative gap between reported and evaluated pdf
    double mismatchFraction = 0;  // samples whose reported and evaluated pdf differ by more than 1e-3
};

enum class PolarBins { cosine, theta };

// Regularised upper incomplete gamma Q(a, x) (Numerical Recipes: series below
// a + 1, continued fraction above).
inline double gammaQ(double a, double x) {
    if (x <= 0) return 1.0;
    double gln = std::lgamma(a);
    if (x < a + 1) {
        double sum = 1.0 / a, del = sum, ap = a;
        for (int n = 0; n < 1000; ++n) {
            ap += 1;
            del *= x / ap;
            sum += del;
            if (std::fabs(del) < std::fabs(sum) * 1e-14) break;
        }
        return 1.0 - sum * std::exp(-x + a * std::log(x) - gln);
    }
    double b = x + 1 - a, c = 1e300, d = 1 / b, h = d;
    for (int i = 1; i < 1000; ++i) {
        double an = -i * (i - a);
        b += 2;
        d = an * d + b;
        if (std::fabs(d) < 1e-300) d = 1e-300;
        c = b + an / c;
        if (std::fabs(c) < 1e-300) c = 1e-300;
        d = 1 / d;
        double del = d * c;
        h *= del;
        if (std::fabs(del - 1) < 1e-14) break;
    }
    return std::exp(-x + a * std::log(x) - gln) * h;
}

inline ChiSquareResult chiSquareTest(const DirectionSampler& s, uint32_t seed, int sampleCount, int cosBins = 16,
                                     int phiBins = 32, int subdiv = 16, PolarBins polar = PolarBins::cosine) {
    ChiSquareResult r;
    const int nb = cosBins * phiBins;
    std::vector<double> observed(nb + 1, 0.0), expected(nb + 1, 0.0);
    auto binOf = [&](float3 d) {
        double c = std::fmin(std::fmax(double(d.z), -1.0), 1.0);
        double t = polar == PolarBins::cosine ? (c + 1) * 0.5 : 1.0 - std::acos(c) / M_PI;
        int ci = std::min(int(t * cosBins), cosBins - 1);
        double phi = std::atan2(double(d.y), double(d.x));
        if (phi < 0) phi += 2 * M_PI;
        int pi = std::min(int(phi / (2 * M_PI) * phiBins), phiBins - 1);
        return ci * phiBins + pi;
    };
    int failed = 0;
    for (int i = 0; i < sampleCount; ++i) {
        DirSample d = s.sample(seed);
        if (!(d.pdf > 0)) {
            ++failed;
            observed[nb] += 1;
            continue;
        }
        observed[binOf(d.dir)] += 1;
        double p = s.pdf(d.dir);
        double gap = std::fabs(p - d.pdf) / std::fmax(d.pdf, 1e-12);
        r.worstPdfMismatch = std::fmax(r.worstPdfMismatch, gap);
        if (gap > 1e-3) r.mismatchFraction += 1.0 / sampleCount;
    }
    // Expected counts: midpoint rule on a subdiv x subdiv grid inside each bin
    // (in theta: the solid angle of a sub-cell is sin(theta) dtheta dphi).
    const double dc = 2.0 / (cosBins * subdiv), dt = M_PI / (cosBins * subdiv);
    const double dphi = 2 * M_PI / (phiBins * subdiv);
    for (int ci = 0; ci < cosBins * subdiv; ++ci) {
        double c, st, dmeasure;
        if (polar == PolarBins::cosine) {
            c = -1 + (ci + 0.5) * dc;
            st = std::sqrt(std::fmax(0.0, 1 - c * c));
            dmeasure = dc;
        } else {
            double theta = M_PI - (ci + 0.5) * dt; // bin 0 holds the lowest directions, as with cosines
            c = std::cos(theta);
            st = std::sin(theta);
            dmeasure = st * dt;
        }
        for (int pi = 0; pi < phiBins * subdiv; ++pi) {
            double phi = (pi + 0.5) * dphi;
            float3 d{float(st * std::cos(phi)), float(st * std::sin(phi)), float(c)};
            double mass = s.pdf(d) * dmeasure * dphi;
            expected[(ci / subdiv) * phiBins + pi / subdiv] += mass;
            r.pdfMass += mass;
        }
    }
    r.failedFraction = double(failed) / sampleCount;
    expected[nb] = std::fmax(0.0, 1.0 - r.pdfMass);
    for (double& e : expected) e *= sampleCount;

    // Pool small bins (in order of expectation) until each pool expects 5 or more.
    std::vector<int> order(nb + 1);
    for (int i = 0; i <= nb; ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](int a, int b) { return expected[a] < expected[b]; });
    double poolE = 0, poolO = 0, stat = 0;
    int cats = 0;
    for (int i : order) {
        poolE += expected[i];
        poolO += observed[i];
        if (poolE >= 5) {
            stat += (poolO - poolE) * (poolO - poolE) / poolE;
            ++cats;
            poolE = poolO = 0;
        }
    }
    if (poolO > 0 || poolE > 0) {
        // A remainder too small to stand alone: observations with almost no
        // expectation are what the test exists to catch, so count it fully.
        double e = std::fmax(poolE, 1e-3);
        stat += (poolO - e) * (poolO - e) / e;
        ++cats;
    }
    r.statistic = stat;
    r.dof = std::max(cats - 1, 1);
    r.pValue = gammaQ(0.5 * r.dof, 0.5 * stat);
    return r;
}

} // namespace qv::test
