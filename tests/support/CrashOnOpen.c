/* Preloaded into the daemon by tests: opening the file named by
 * QUORVIA_CRASH_ON_OPEN ends the process with SIGSEGV on the opening thread,
 * as a media library that crashes on that file would; so does making the
 * file named by QUORVIA_CRASH_ON_CREATE (an open with O_CREAT), as a death
 * at that moment would. The thread creation numbered QUORVIA_FAIL_THREAD
 * (from 1) fails with EAGAIN, as under a process limit, and so does every fork
 * from the one numbered QUORVIA_FAIL_FORK (a forked process counts on). It defines both open
 * and open64, so the C library's names must not be redirected to the 64-bit
 * ones here. */
#undef _FILE_OFFSET_BITS
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int isNamed(const char* variable, const char* path) {
    const char* chosen = getenv(variable);
    return chosen != NULL && path != NULL && strcmp(chosen, path) == 0;
}

static void crashIfChosen(const char* path, int flags) {
    if (isNamed("QUORVIA_CRASH_ON_OPEN", path) ||
        ((flags & O_CREAT) != 0 && isNamed("QUORVIA_CRASH_ON_CREATE", path))) {
        raise(SIGSEGV);
    }
}

/* A name relative to a folder descriptor is taken where that folder lies. */
static void crashIfChosenAt(int dir, const char* path, int flags) {
    char link[64];
    char full[8192];
    ssize_t size;
    if (path == NULL || path[0] == '/' || dir == AT_FDCWD) {
        crashIfChosen(path, flags);
        return;
    }
    snprintf(link, sizeof(link), "/proc/self/fd/%d", dir);
    size = readlink(link, full, sizeof(full) / 2);
    if (size > 0) {
        snprintf(full + size, sizeof(full) - (size_t)size, "/%s", path);
        crashIfChosen(full, flags);
    }
}

static mode_t modeOf(int flags, va_list args) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? (mode_t)va_arg(args, int) : 0;
}

#define WRAP_OPEN(name)                                                               \
    int name(const char* path, int flags, ...) {                                      \
        static int (*real)(const char*, int, ...);                                    \
        va_list args;                                                                 \
        va_start(args, flags);                                                        \
        const mode_t mode = modeOf(flags, args);                                      \
        va_end(args);                                                                 \
        crashIfChosen(path, flags);                                                   \
        if (real == NULL) {                                                           \
            real = (int (*)(const char*, int, ...))dlsym(RTLD_NEXT, #name);           \
        }                                                                             \
        return real(path, flags, mode);                                               \
    }

#define WRAP_OPENAT(name)                                                        \
    int name(int dir, const char* path, int flags, ...) {                        \
        static int (*real)(int, const char*, int, ...);                          \
        va_list args;                                                            \
        va_start(args, flags);                                                   \
        const mode_t mode = modeOf(flags, args);                                 \
        va_end(args);                                                            \
        crashIfChosenAt(dir, path, flags);                                       \
        if (real == NULL) {                                                      \
            real = (int (*)(int, const char*, int, ...))dlsym(RTLD_NEXT, #name); \
        }                                                                        \
        return real(dir, path, flags, mode);                                     \
    }

#define WRAP_FOPEN(name)                                                              \
    FILE* name(const char* path, const char* how) {                                   \
        static FILE* (*real)(const char*, const char*);                               \
        crashIfChosen(path, how[0] == 'r' ? 0 : O_CREAT);                             \
        if (real == NULL) {                                                           \
            real = (FILE * (*)(const char*, const char*)) dlsym(RTLD_NEXT, #name);    \
        }                                                                             \
        return real(path, how);                                                       \
    }

WRAP_OPEN(open)
WRAP_OPEN(open64)
WRAP_OPENAT(openat)
WRAP_OPENAT(openat64)
WRAP_FOPEN(fopen)
WRAP_FOPEN(fopen64)

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) {
    static int (*real)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static int created;
    const char* failing = getenv("QUORVIA_FAIL_THREAD");
    if (failing != NULL && __atomic_add_fetch(&created, 1, __ATOMIC_SEQ_CST) == atoi(failing)) {
        return EAGAIN;
    }
    if (real == NULL) {
        real = (int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*))dlsym(
            RTLD_NEXT, "pthread_create");
    }
    return real(thread, attributes, run, argument);
}

pid_t fork(void) {
    static pid_t (*real)(void);
    static int forked;
    const char* failing = getenv("QUORVIA_FAIL_FORK");
    if (failing != NULL && __atomic_add_fetch(&forked, 1, __ATOMIC_SEQ_CST) >= atoi(failing)) {
        errno = EAGAIN;
        return -1;
    }
    if (real == NULL) {
        real = (pid_t(*)(void))dlsym(RTLD_NEXT, "fork");
    }
    return real();
}
