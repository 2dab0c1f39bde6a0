// Runs a command and, once it has ended, prints its peak resident size in KiB (from
// wait4) on a line after the command's own output. The driver measures curl and the
// Qt programs alike this way. Kept free of Qt so that its own size stays small: a
// child's peak includes what it inherited from this process until its exec.
#include <cstdio>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: nbrun COMMAND [ARGUMENT...]\n");
        return 2;
    }
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid < 0) {
        std::perror("fork");
        return 2;
    }
    if (pid == 0) {
        execvp(argv[1], argv + 1);
        std::perror(argv[1]);
        _exit(127);
    }
    int status = 0;
    rusage usage {};
    if (wait4(pid, &status, 0, &usage) < 0) {
        std::perror("wait4");
        return 2;
    }
    std::printf("%ld\n", usage.ru_maxrss);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return WEXITSTATUS(status);
}
