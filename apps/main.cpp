#include <exception>
#include <iostream>

#include "apps/barcoder.h"
#include "apps/heap_pages.h"
#include "common/logger.h"
#include "pair_alignment/kernel_stats.h"

int main(int argc, char** argv) {
    Vorpa::RestartWithHugeHeapPages(argv);
    // Configuration errors found while preparing the run are fatal; they end
    // the process like option errors do, with status 255.
    try {
        Vorpa::Barcoder barcoder;
        if (const auto status = barcoder.Initialise(argc, argv, "barcoding", "configuration.cfg")) return *status;
        const int status = barcoder.Run();
        // VB_KERNEL_STATS=1: how fast the alignment kernel ran in this process.
        if (PairAlignment::KernelStatsEnabled()) std::cerr << PairAlignment::KernelStatsSummary() << std::endl;
        return status;
    } catch (const Vorpa::RunRefused&) {
        // Already reported (log, and standard error when quiet).
        Common::ShutdownLogging();
        return 255;
    } catch (const std::exception& e) {
        std::cerr << "Error: " << e.what() << std::endl;
        return 255;
    }
}
