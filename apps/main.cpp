#include <exception>
#include <iostream>

#include "apps/barcoder.h"
#include "pair_alignment/kernel_stats.h"

int main(int argc, char** argv) {
    // Configuration errors found while preparing the run are fatal; they end
    // the process like option errors do, with status 255.
    try {
        Vorpa::Barcoder barcoder;
        barcoder.Initialise(argc, argv, "barcoding", "configuration.cfg");
        const int status = barcoder.Run();
        // VB_KERNEL_STATS=1: how fast the alignment kernel ran in this process.
        if (PairAlignment::KernelStatsEnabled()) std::cerr << PairAlignment::KernelStatsSummary() << std::endl;
        return status;
    } catch (const std::exception& e) {
        std::cerr << "Error: " << e.what() << std::endl;
        return 255;
    }
}
