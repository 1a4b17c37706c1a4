// tav-quicklook RASTER FILE.png [--spectrum]: the preview `tavtransform -quicklook` writes, for any raster.
#include "Quicklook.h"

#include <cstdio>
#include <string>

int main(int argc, char** argv)
{
    if (argc < 3 || argc > 4 || (argc == 4 && std::string(argv[3]) != "--spectrum")) {
        std::fprintf(stderr, "Usage: tav-quicklook RASTER FILE.png [--spectrum]\n");
        return 2;
    }
    const std::string problem = WriteQuicklook(argv[1], argv[2], argc == 4);
    if (problem.empty())
        return 0;
    std::fprintf(stderr, "ERROR: %s\n", problem.c_str());
    return 1;
}
