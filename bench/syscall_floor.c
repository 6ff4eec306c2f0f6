/* The system calls of one faithful survey, made with no Python around them: the floor that the
 * module's survey is measured against.
 *
 *   cc -O2 -Wall -Wextra -o syscall_floor bench/syscall_floor.c
 *   ./syscall_floor HOME REPO [SURVEYS_PER_BATCH [BATCHES]]
 *
 * For each skills directory of each agent, under HOME and under REPO, and then for each skill's
 * SKILL.md under the resolved directory, it walks the path component by component as Python 3.11's
 * os.path.realpath(strict=True) does (an lstat for every component, a readlink for every link, the
 * per-call cache of links already seen); a file that resolves inside its directory is then tested with
 * stat, as Path.is_file does, and its head read with open, fstat, one read of 2048 bytes and close.
 * The buffered reader's ioctl and lseek are left out: the floor is what the survey needs, not what
 * the host's io module happens to do. Both roots must be absolute, which spares the getcwd that
 * realpath makes for a relative one. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum { HEAD = 2048, MAX_LINKS = 40 };

static const char *const USER_ROOTS[] = {".claude/skills", ".codeium/windsurf/skills", ".copilot/skills",
                                         ".cursor/skills"};
static const char *const PROJECT_ROOTS[] = {".claude/skills", ".cursor/skills", ".github/skills",
                                            ".windsurf/skills"};
static const char *const SKILLS[] = {"lumeno", "lumeno-map", "lumeno-wiki"};

static struct {
    long lstat, readlink, stat, open, fstat, read, close;
} calls;
static long files_read;

/* The links met by one realpath call: a link seen again is taken from here, or, still unresolved,
 * is a loop. */
struct seen {
    int count;
    struct {
        char link[PATH_MAX];
        char real[PATH_MAX];
        int resolved;
    } entry[MAX_LINKS];
};

static int join(char *out, const char *dir, const char *name)
{
    size_t len = strlen(dir);
    int n = snprintf(out, PATH_MAX, "%s%s%s", dir, len && dir[len - 1] == '/' ? "" : "/", name);
    if (n < 0 || n >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

/* posixpath._joinrealpath in strict mode, for an absolute `path`: resolves `rest` onto it in place.
 * Returns 0, or -1 with errno set where Python would raise. */
static int join_real(char *path, const char *rest_in, struct seen *seen)
{
    char rest[PATH_MAX], newpath[PATH_MAX];
    struct stat st;
    if (strlen(rest_in) >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    strcpy(rest, rest_in);
    if (rest[0] == '/')
        strcpy(path, "/");
    for (char *name = rest, *next; name; name = next) {
        next = strchr(name, '/');
        if (next)
            *next++ = '\0';
        if (!*name || !strcmp(name, "."))
            continue;
        if (!strcmp(name, "..")) {
            char *slash = strrchr(path, '/');
            slash[slash == path ? 1 : 0] = '\0';
            continue;
        }
        if (join(newpath, path, name))
            return -1;
        calls.lstat++;
        if (lstat(newpath, &st))
            return -1;
        if (!S_ISLNK(st.st_mode)) {
            strcpy(path, newpath);
            continue;
        }
        int i = 0;
        while (i < seen->count && strcmp(seen->entry[i].link, newpath))
            i++;
        if (i < seen->count) {
            if (seen->entry[i].resolved) {
                strcpy(path, seen->entry[i].real);
                continue;
            }
            calls.stat++; /* Python stats the link to raise ELOOP */
            return stat(newpath, &st) ? -1 : (errno = ELOOP, -1);
        }
        if (seen->count == MAX_LINKS) {
            errno = ELOOP;
            return -1;
        }
        seen->count++;
        strcpy(seen->entry[i].link, newpath);
        seen->entry[i].resolved = 0;
        char target[PATH_MAX];
        calls.readlink++;
        ssize_t n = readlink(newpath, target, sizeof target - 1);
        if (n < 0)
            return -1;
        target[n] = '\0';
        if (join_real(path, target, seen))
            return -1;
        strcpy(seen->entry[i].real, path);
        seen->entry[i].resolved = 1;
    }
    return 0;
}

static int realpath_strict(char *out, const char *path)
{
    struct seen seen; /* not zeroed whole: that would cost more than the calls it sits beside */
    seen.count = 0;
    out[0] = '\0';
    return join_real(out, path, &seen);
}

/* PurePath.is_relative_to, component-wise. */
static int inside(const char *real, const char *root)
{
    size_t n = strlen(root);
    return !strncmp(real, root, n) && (real[n] == '/' || real[n] == '\0' || root[n - 1] == '/');
}

static void read_head(const char *path)
{
    char head[HEAD];
    struct stat st;
    calls.stat++;
    if (stat(path, &st) || !S_ISREG(st.st_mode))
        return;
    calls.open++;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    calls.fstat++;
    calls.read++;
    if (!fstat(fd, &st) && read(fd, head, sizeof head) > 0)
        files_read++;
    calls.close++;
    close(fd);
}

static void survey_scope(const char *base, const char *const *roots)
{
    char dir[PATH_MAX], root[PATH_MAX], file[PATH_MAX], real[PATH_MAX];
    for (int r = 0; r < 4; r++) {
        if (join(dir, base, roots[r]) || realpath_strict(root, dir))
            continue; /* not there: every skill of it answers None */
        for (int s = 0; s < 3; s++) {
            if (snprintf(file, sizeof file, "%s/%s/SKILL.md", root, SKILLS[s]) >= (int)sizeof file)
                continue;
            if (!realpath_strict(real, file) && inside(real, root))
                read_head(real);
        }
    }
}

static void survey(const char *home, const char *repo)
{
    survey_scope(home, USER_ROOTS);
    survey_scope(repo, PROJECT_ROOTS);
}

static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

static int by_value(const void *a, const void *b)
{
    double x = *(const double *)a, y = *(const double *)b;
    return (x > y) - (x < y);
}

int main(int argc, char **argv)
{
    if (argc < 3 || argv[1][0] != '/' || argv[2][0] != '/') {
        fprintf(stderr, "usage: %s /ABSOLUTE/HOME /ABSOLUTE/REPO [SURVEYS_PER_BATCH [BATCHES]]\n", argv[0]);
        return 2;
    }
    long number = argc > 3 ? atol(argv[3]) : 200;
    int batches = argc > 4 ? atoi(argv[4]) : 15;
    if (number < 1 || batches < 1 || batches > 1000) {
        fprintf(stderr, "%s: SURVEYS_PER_BATCH and BATCHES must be positive (BATCHES at most 1000)\n", argv[0]);
        return 2;
    }

    survey(argv[1], argv[2]); /* counts one survey, and warms the caches as the other side's warm-up does */
    long per_survey = calls.lstat + calls.readlink + calls.stat + calls.open + calls.fstat + calls.read +
                      calls.close;
    printf("syscall floor: %ld files read per survey\n", files_read);
    printf("  %ld system calls per survey: %ld lstat, %ld readlink, %ld stat, %ld open, %ld fstat, %ld read, "
           "%ld close\n",
           per_survey, calls.lstat, calls.readlink, calls.stat, calls.open, calls.fstat, calls.read,
           calls.close);

    static double times[1000];
    for (int b = 0; b < batches; b++) {
        double start = now();
        for (long i = 0; i < number; i++)
            survey(argv[1], argv[2]);
        times[b] = (now() - start) / (double)number * 1e6;
    }
    printf("  batches, us per survey:");
    for (int b = 0; b < batches; b++)
        printf(" %.1f", times[b]);
    printf("\n");
    qsort(times, (size_t)batches, sizeof times[0], by_value);
    printf("  %.1f us per survey (median of %d batches of %ld; IQR %.1f-%.1f, range %.1f-%.1f)\n",
           times[batches / 2], batches, number, times[batches / 4], times[(3 * batches) / 4], times[0],
           times[batches - 1]);
    return 0;
}
