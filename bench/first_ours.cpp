// Makes the first payment URL of a process with the library. For first_bench.
#include "bench/firstreport.h"
#include "bench/merchant.h"

int main(int argc, char** argv) {
    return kvxbench::reportFirst(
        argc, argv, [](std::string const& directory) { return kvxbench::Merchant(directory).paymentUrl(); });
}
