/// Programs that a benchmark starts.
#ifndef TALLOWIN_BENCH_CHILDPROCESS_H
#define TALLOWIN_BENCH_CHILDPROCESS_H

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

namespace kvxbench {

/// A program that talks in lines over its standard input and output. Failures throw std::runtime_error.
class ChildProcess {
public:
    /// Starts `arguments[0]`, a path.
    explicit ChildProcess(std::vector<std::string> arguments);
    ChildProcess(ChildProcess const&) = delete;
    ChildProcess& operator=(ChildProcess const&) = delete;

    /// Ends its input and waits for it.
    ~ChildProcess();

    /// Sends a line, given without its end.
    void write(std::string const& line);

    /// Its next line without the end.
    std::string readLine();

    /// Ends its input, waits for it and requires that it succeeds. Returns the processor seconds of its whole life.
    double wait();

private:
    double reap(bool& isDone);

    pid_t m_Process = -1;  ///< -1 once it has been waited for.
    std::FILE* m_In = nullptr;
    std::FILE* m_Out = nullptr;
};

}  // namespace kvxbench

#endif
