// withsandbox PROGRAM: runs PROGRAM DIRECTORY AUTOURL, with a fresh directory and the address of a sandbox that it
// starts for the occasion, and ends with the program's exit status.

#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <exception>
#include <string>

#include "sandbox/service.h"
#include "tests/sandbox/support/sandboxfixture.h"

extern char** environ;

namespace {

/// The program's exit status; -1 when it could not be started or did not end by itself.
int run(std::string program, std::string directory, std::string url) {
    char* const arguments[] = {program.data(), directory.data(), url.data(), nullptr};
    pid_t process = -1;
    if (::posix_spawn(&process, arguments[0], nullptr, nullptr, arguments, environ) != 0) {
        return -1;
    }
    int status = 0;
    return ::waitpid(process, &status, 0) == process && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: withsandbox PROGRAM\n", stderr);
        return 2;
    }
    try {
        sandboxtest::TemporaryDirectory const data;
        sandboxtest::TemporaryDirectory const shop;
        sandbox::Options options;
        options.m_DataDirectory = data.path();
        sandbox::Service service(options);
        service.start();
        return run(argv[1], shop.path(), service.addresses().m_Plain.m_Url + "/auto");
    } catch (std::exception const& failure) {
        std::fprintf(stderr, "withsandbox: %s\n", failure.what());
        return 1;
    }
}
