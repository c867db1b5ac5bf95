#include "pathtracer/EnergyTables.h"

#include "shaders/BSDF.h"
#include "shaders/Records.h"

#include <tbb/blocked_range2d.h>
#include <tbb/parallel_for.h>

#include <chrono>

namespace qv {

EnergyTables buildEnergyTables() {
    auto start = std::chrono::steady_clock::now();
    EnergyTables t;
    t.dfg.resize(size_t(DFG_N) * DFG_N);
    t.dfgAvg.resize(DFG_N);
    // 1024 cells of 96 x 96 visible-normal samples each; the rows vary little in
    // cost, so an even split over the cells is enough.
    tbb::parallel_for(tbb::blocked_range2d<int>(0, DFG_N, 0, DFG_N), [&](const tbb::blocked_range2d<int>& r) {
        for (int y = r.rows().begin(); y != r.rows().end(); ++y)
            for (int x = r.cols().begin(); x != r.cols().end(); ++x) t.dfg[size_t(y) * DFG_N + x] = dfgGenCell(x, y);
    });
    for (int r = 0; r < DFG_N; ++r) t.dfgAvg[size_t(r)] = dfgAvgRow(t.dfg.data(), r);
    t.buildSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return t;
}

} // namespace qv
