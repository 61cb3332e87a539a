/// The programs that first_bench starts.
#ifndef TALLOWIN_BENCH_FIRSTREPORT_H
#define TALLOWIN_BENCH_FIRSTREPORT_H

#include <cstdio>
#include <ctime>
#include <exception>
#include <string>

namespace kvxbench {

/// The body of `main`. Calls `makeUrl` with the configuration directory, the only argument. Prints the processor
/// seconds of the call and the URL, a line each. An exception is printed; the exit status is then 1.
template <class MakeUrl>
int reportFirst(int argc, char** argv, MakeUrl makeUrl) {
    try {
        auto const now = [] {
            timespec time = {};
            ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
            return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
        };
        double const begin = now();
        std::string const url = makeUrl(std::string(argc > 1 ? argv[1] : ""));
        std::printf("%.9f\n%s\n", now() - begin, url.c_str());
        return 0;
    } catch (std::exception const& failure) {
        std::fprintf(stderr, "%s: %s\n", argv[0], failure.what());
        return 1;
    }
}

}  // namespace kvxbench

#endif
