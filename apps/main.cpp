#include "apps/barcoder.h"

int main(int argc, char** argv) {
    Vorpa::Barcoder barcoder;
    barcoder.Initialise(argc, argv, "barcoding", "configuration.cfg");
    return barcoder.Run();
}
