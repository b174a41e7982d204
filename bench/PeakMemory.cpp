// Runs a command and prints its peak resident memory in kilobytes on stderr's last line.
// A child's peak counts the memory of the process it was started from, so the benchmark
// scripts start commands through this small one rather than from an interpreter.
#include <cstdio>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: quorlin_peak_memory <command> [arguments...]\n", stderr);
        return 2;
    }
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[1], argv + 1);
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child) {
        return 1;
    }
    std::fprintf(stderr, "peak-kb %ld\n", usage.ru_maxrss);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
