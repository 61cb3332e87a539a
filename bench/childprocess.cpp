#include "bench/childprocess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/require.h"

namespace kvxbench {

namespace {

double secondsOf(timeval const& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments) {
    int in[2];
    int out[2];
    require(::pipe2(in, O_CLOEXEC) == 0 && ::pipe2(out, O_CLOEXEC) == 0, "no pipe");
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    int const status = ::posix_spawn(&m_Process, pointers[0], &actions, nullptr, pointers.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    m_In = ::fdopen(in[1], "w");
    m_Out = ::fdopen(out[0], "r");
    require(status == 0 && m_In != nullptr && m_Out != nullptr, "cannot start a program");
}

ChildProcess::~ChildProcess() {
    bool isDone = false;
    reap(isDone);
}

void ChildProcess::write(std::string const& line) {
    require(std::fputs((line + "\n").c_str(), m_In) >= 0 && std::fflush(m_In) == 0, "a program takes no input");
}

std::string ChildProcess::readLine() {
    std::string line;
    for (int byte = 0; (byte = std::fgetc(m_Out)) != '\n';) {
        require(byte != EOF, "a program ends early");
        line += static_cast<char>(byte);
    }
    return line;
}

double ChildProcess::wait() {
    bool isDone = false;
    double const seconds = reap(isDone);
    require(isDone, "a program fails");
    return seconds;
}

double ChildProcess::reap(bool& isDone) {
    if (m_Process == -1) {
        return 0;
    }
    std::fclose(m_In);
    while (std::fgetc(m_Out) != EOF) {
    }
    std::fclose(m_Out);
    int status = 0;
    rusage usage = {};
    isDone = ::wait4(m_Process, &status, 0, &usage) == m_Process && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    m_Process = -1;
    return secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime);
}

}  // namespace kvxbench
