// orqcam: every camera operation of the SDK from the command line, over the public API.
#include "Run.h"

int main(int argc, char** argv) {
    return orqcam::Run(std::vector<std::string>(argv + 1, argv + argc));
}
