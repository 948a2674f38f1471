// Runs a command and writes what it cost into a file: seconds of wall time, of user and of system time, and the most
// KiB of memory that it, or a process that it waited for, had at one time. A program of its own since a child's memory
// counts from that of the process it was split off from, and this one has next to none.
//
// Usage: run_measured FIGURES COMMAND [ARGUMENT...]; ends with the command's exit status.
#include <chrono>
#include <cstdio>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static double Seconds(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

int main(int argc, char **argv)
{
    FILE *figures = argc > 2 ? fopen(argv[1], "we") : nullptr;
    if (figures == nullptr) {
        perror("run_measured");
        return 1;
    }
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[2], argv + 2);
        perror(argv[2]);
        _exit(127);
    }
    int status = 0;
    rusage usage = {};
    if (child < 0 || wait4(child, &status, 0, &usage) != child) {
        perror("run_measured");
        return 1;
    }
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    fprintf(figures, "%.6f %.6f %.6f %ld\n", wall.count(), Seconds(usage.ru_utime), Seconds(usage.ru_stime),
            usage.ru_maxrss);
    if (fclose(figures) != 0) {
        perror("run_measured");
        return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
