/* A library to preload into a program under test: it counts the program's file-changing calls
 * (opening for writing, writing, renaming, linking, removing, creating directories, setting
 * attributes and modes, truncating, copying) and kills the program with SIGKILL just before the
 * call numbered TOLVA_CRASH_AT. With TOLVA_CRASH_COUNT set it writes the number of calls it saw
 * to that file when the program exits normally. With TOLVA_VANISH set, the file at that path is
 * removed just before the program first touches it by its path for its data (listing its
 * attributes, linking it, opening it): a file that vanishes while the program copies it. With
 * TOLVA_REFUSE_WRITES set, every write into the file at that path fails as on a full disk. With
 * TOLVA_KEEP set, the file at that path cannot be removed, as on a file system that turned
 * read-only. */

#define _GNU_SOURCE
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

static long crashAt = -1;
static long calls = 0;
static const char* countFile = NULL;

static const char* vanish = NULL;
static const char* refuse = NULL;
static const char* keep = NULL;

/* The path of what `fd` has open, into `path`; its length, or -1. */
static ssize_t openPath(int fd, char* path, size_t size) {
    char link[32];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, path, size - 1);
    if (length >= 0)
        path[length] = '\0';
    return length;
}

static int refused(int fd) {
    char path[4096];
    return refuse && openPath(fd, path, sizeof path) >= 0 && strcmp(path, refuse) == 0;
}

static void vanishBefore(const char* path) {
    const char* target = __atomic_load_n(&vanish, __ATOMIC_ACQUIRE);
    if (!target || !path || strcmp(path, target) != 0)
        return;
    if (!__atomic_exchange_n(&vanish, NULL, __ATOMIC_ACQ_REL))
        return; /* another thread's call took it */
    int (*realUnlink)(const char*) = dlsym(RTLD_NEXT, "unlink");
    realUnlink(target);
}

/* The program may make calls on several threads at once: each call gets a number of its own. */
static void step(void) {
    if (__atomic_add_fetch(&calls, 1, __ATOMIC_RELAXED) == crashAt)
        kill(getpid(), SIGKILL);
}

__attribute__((constructor)) static void start(void) {
    /* A sanitizer runtime starts before this library and may already have written (with
     * log_path set, for one); those calls are none of the program's. */
    calls = 0;
    const char* at = getenv("TOLVA_CRASH_AT");
    if (at)
        crashAt = atol(at);
    countFile = getenv("TOLVA_CRASH_COUNT");
    vanish = getenv("TOLVA_VANISH");
    refuse = getenv("TOLVA_REFUSE_WRITES");
    keep = getenv("TOLVA_KEEP");
}

/* Whether `path`, taken relative to the directory open at `dir`, is the file to keep. */
static int kept(int dir, const char* path) {
    if (!keep || !path)
        return 0;
    if (dir == AT_FDCWD || path[0] == '/')
        return strcmp(path, keep) == 0;
    char full[4096];
    const ssize_t length = openPath(dir, full, sizeof full);
    if (length < 0)
        return 0;
    snprintf(full + length, sizeof full - (size_t)length, "/%s", path);
    return strcmp(full, keep) == 0;
}

__attribute__((destructor)) static void finish(void) {
    if (!countFile)
        return;
    char text[32];
    const int length = snprintf(text, sizeof text, "%ld\n", calls);
    int (*realOpen)(const char*, int, ...) = dlsym(RTLD_NEXT, "open");
    ssize_t (*realWrite)(int, const void*, size_t) = dlsym(RTLD_NEXT, "write");
    const int file = realOpen(countFile, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (file >= 0) {
        realWrite(file, text, (size_t)length);
        close(file);
    }
}

/* Every call is counted, then handed to the next definition of the same function, unless
 * `fails` holds: then it fails with `error`. */
#define COUNTED_UNLESS(result, name, parameters, arguments, fails, error)                          \
    result name parameters {                                                                       \
        static result(*next) parameters = NULL;                                                    \
        if (!next)                                                                                 \
            next = dlsym(RTLD_NEXT, #name);                                                        \
        step();                                                                                    \
        if (fails) {                                                                               \
            errno = error;                                                                         \
            return -1;                                                                             \
        }                                                                                          \
        return next arguments;                                                                     \
    }
#define COUNTED(result, name, parameters, arguments)                                               \
    COUNTED_UNLESS(result, name, parameters, arguments, 0, 0)
/* Writes fail as on a full disk, removals as on a file system that turned read-only. */
#define COUNTED_WRITE(name, parameters, arguments)                                                 \
    COUNTED_UNLESS(ssize_t, name, parameters, arguments, refused(fd), ENOSPC)
#define COUNTED_REMOVAL(name, parameters, arguments, dir, path)                                    \
    COUNTED_UNLESS(int, name, parameters, arguments, kept(dir, path), EROFS)

COUNTED_WRITE(write, (int fd, const void* data, size_t size), (fd, data, size))
COUNTED_WRITE(pwrite, (int fd, const void* data, size_t size, off_t at), (fd, data, size, at))
COUNTED_WRITE(pwrite64, (int fd, const void* data, size_t size, off64_t at), (fd, data, size, at))
COUNTED_WRITE(writev, (int fd, const struct iovec* parts, int count), (fd, parts, count))
COUNTED(int, rename, (const char* from, const char* to), (from, to))
COUNTED(int, renameat, (int fromDir, const char* from, int toDir, const char* to),
        (fromDir, from, toDir, to))
COUNTED(int, renameat2,
        (int fromDir, const char* from, int toDir, const char* to, unsigned int flags),
        (fromDir, from, toDir, to, flags))
int link(const char* from, const char* to) {
    static int (*next)(const char*, const char*) = NULL;
    if (!next)
        next = dlsym(RTLD_NEXT, "link");
    vanishBefore(from);
    step();
    return next(from, to);
}

#define VANISHING_LIST(name)                                                                       \
    ssize_t name(const char* path, char* list, size_t size) {                                      \
        static ssize_t (*next)(const char*, char*, size_t) = NULL;                                 \
        if (!next)                                                                                 \
            next = dlsym(RTLD_NEXT, #name);                                                        \
        vanishBefore(path);                                                                        \
        return next(path, list, size);                                                             \
    }
VANISHING_LIST(listxattr)
VANISHING_LIST(llistxattr)
COUNTED(int, linkat, (int fromDir, const char* from, int toDir, const char* to, int flags),
        (fromDir, from, toDir, to, flags))
COUNTED(int, symlink, (const char* target, const char* path), (target, path))
COUNTED(int, symlinkat, (const char* target, int dir, const char* path), (target, dir, path))
COUNTED_REMOVAL(unlink, (const char* path), (path), AT_FDCWD, path)
COUNTED_REMOVAL(unlinkat, (int dir, const char* path, int flags), (dir, path, flags), dir, path)
COUNTED(int, rmdir, (const char* path), (path))
COUNTED(int, mkdir, (const char* path, mode_t mode), (path, mode))
COUNTED(int, mkdirat, (int dir, const char* path, mode_t mode), (dir, path, mode))
COUNTED(int, setxattr,
        (const char* path, const char* name, const void* value, size_t size, int flags),
        (path, name, value, size, flags))
COUNTED(int, lsetxattr,
        (const char* path, const char* name, const void* value, size_t size, int flags),
        (path, name, value, size, flags))
COUNTED(int, fsetxattr, (int fd, const char* name, const void* value, size_t size, int flags),
        (fd, name, value, size, flags))
COUNTED(int, removexattr, (const char* path, const char* name), (path, name))
COUNTED(int, lremovexattr, (const char* path, const char* name), (path, name))
COUNTED(int, fremovexattr, (int fd, const char* name), (fd, name))
COUNTED(int, chmod, (const char* path, mode_t mode), (path, mode))
COUNTED(int, fchmod, (int fd, mode_t mode), (fd, mode))
COUNTED(int, fchmodat, (int dir, const char* path, mode_t mode, int flags),
        (dir, path, mode, flags))
COUNTED(int, truncate, (const char* path, off_t size), (path, size))
COUNTED(int, ftruncate, (int fd, off_t size), (fd, size))
COUNTED(int, ftruncate64, (int fd, off64_t size), (fd, size))
COUNTED(ssize_t, copy_file_range,
        (int in, off64_t* inAt, int out, off64_t* outAt, size_t size, unsigned int flags),
        (in, inAt, out, outAt, size, flags))
COUNTED(ssize_t, sendfile, (int out, int in, off_t* at, size_t size), (out, in, at, size))
COUNTED(ssize_t, sendfile64, (int out, int in, off64_t* at, size_t size), (out, in, at, size))

/* Opening counts only when it may change the file system. */
static mode_t modeArgument(int flags, va_list rest) {
    return (flags & (O_CREAT | O_TMPFILE)) ? va_arg(rest, mode_t) : 0;
}

static int writing(int flags) {
    return (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
}

#define UNPAREN(...) __VA_ARGS__
/* `leading`: the parameters before the path, in parentheses, each with its comma; `passed`:
 * their names, likewise. */
#define COUNTED_OPEN(name, leading, passed)                                                        \
    int name(UNPAREN leading const char* path, int flags, ...) {                                   \
        static int (*next)(UNPAREN leading const char*, int, ...) = NULL;                          \
        if (!next)                                                                                 \
            next = dlsym(RTLD_NEXT, #name);                                                        \
        va_list rest;                                                                              \
        va_start(rest, flags);                                                                     \
        const mode_t mode = modeArgument(flags, rest);                                             \
        va_end(rest);                                                                              \
        vanishBefore(path);                                                                        \
        if (writing(flags))                                                                        \
            step();                                                                                \
        return next(UNPAREN passed path, flags, mode);                                             \
    }
COUNTED_OPEN(open, (), ())
COUNTED_OPEN(open64, (), ())
COUNTED_OPEN(openat, (int dir, ), (dir, ))
COUNTED_OPEN(openat64, (int dir, ), (dir, ))

#define COUNTED_FOPEN(name)                                                                        \
    FILE* name(const char* path, const char* mode) {                                               \
        static FILE* (*next)(const char*, const char*) = NULL;                                     \
        if (!next)                                                                                 \
            next = dlsym(RTLD_NEXT, #name);                                                        \
        if (strpbrk(mode, "wa+"))                                                                  \
            step();                                                                                \
        return next(path, mode);                                                                   \
    }
COUNTED_FOPEN(fopen)
COUNTED_FOPEN(fopen64)
