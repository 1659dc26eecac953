#ifndef VELD_PLATFORM_SPAWN_H
#define VELD_PLATFORM_SPAWN_H

#include <functional>
#include <sys/types.h>

/**
 * Starts argv[0] with argv in a child process and tells whether it runs.
 * In the child, prepare() runs first (async-signal-safe calls only: the
 * caller may have threads), then execve with envp, or execvp with the
 * inherited environment when envp is null. Returns the child's pid once the
 * program has replaced it; -1 with *error set to errno when the fork or the
 * exec failed (such a child has been reaped already).
 */
pid_t spawnProgram(char *const argv[], char *const envp[], const std::function<void()> &prepare, int *error);

#endif
