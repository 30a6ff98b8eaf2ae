#include <exception>
#include <iostream>

#include "apps/barcoder.h"

int main(int argc, char** argv) {
    // Configuration errors found while preparing the run are fatal; they end
    // the process like option errors do, with status 255.
    try {
        Vorpa::Barcoder barcoder;
        barcoder.Initialise(argc, argv, "barcoding", "configuration.cfg");
        return barcoder.Run();
    } catch (const std::exception& e) {
        std::cerr << "Error: " << e.what() << std::endl;
        return 255;
    }
}
