// Makes the first payment URL of a process as the peer does. For first_bench.
#include "bench/firstreport.h"
#include "bench/peer.h"

int main(int argc, char** argv) {
    return kvxbench::reportFirst(argc, argv, &kvxbench::peer::paymentUrl);
}
