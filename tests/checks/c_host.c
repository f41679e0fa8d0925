/* SPDX-License-Identifier: MIT */
/* A host in plain C: it includes every header, links keel alone, and calls every function once. */
#define _DEFAULT_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <xconf.h>
#include <xfsproc.h>
#include <xini.h>
#include <xinotify.h>
#include <xlog.h>
#include <xmemory.h>
#include <xstdio.h>
#include <xstring.h>
#include <xthread_util.h>
#include <xutil.h>
#include <xwrap.h>

static int failures;

#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            printf("%s:%d: %s\n", __FILE__, __LINE__, #condition);                                 \
            failures++;                                                                            \
        }                                                                                          \
    } while (0)

/* Compares and frees a new string. */
static int same(char *made, const char *expected) {
    int equal = made != NULL && strcmp(made, expected) == 0;
    free(made);
    return equal;
}

static void use_xmemory(void) {
    char *block = xcalloc(0, 8);
    CHECK(block != NULL && block[0] == 0 && block[7] == 0);
    block[7] = 'x';
    block = xrealloc(0, block, 16);
    CHECK(block != NULL && block[7] == 'x');
    xfree(0, block);
    block = xmalloc(0, 8);
    CHECK(block != NULL);
    xfree(0, block);
}

static void use_xwrap(void) {
    char text[] = "a,b";
    char *save = NULL;
    CHECK(same(Strdup("copy"), "copy"));
    CHECK(Strchr(text, ',') == text + 1 && Strrchr(text, 'b') == text + 2);
    CHECK(strcmp(Strtok_r(text, ",", &save), "a") == 0);
    CHECK(System("exit 3") == -1 && Systemf("exit %d", 0) == 0);
    char *block = Malloc(8);
    CHECK(block != NULL);
    block[7] = 'x';
    block = Realloc(block, 16);
    CHECK(block != NULL && block[7] == 'x');
    free(block);
    block = Calloc(2, 8);
    CHECK(block != NULL && block[0] == 0 && block[15] == 0);
    free(block);
    CHECK(Sysconf(_SC_PAGESIZE) > 0);

    sem_t semaphore;
    CHECK(Sem_init(&semaphore, 0, 1) == 0 && Sem_wait(&semaphore) == 0);
    CHECK(Sem_trywait(&semaphore) == -1 && Sem_timedwait(&semaphore, 0) == -1);
    CHECK(Sem_post(&semaphore) == 0 && Sem_destroy(&semaphore) == 0);

    pthread_mutex_t mutex;
    CHECK(Pthread_mutex_init(&mutex, NULL) == 0 && Pthread_mutex_lock(&mutex) == 0);
    CHECK(Pthread_mutex_trylock(&mutex) == -1 && errno == EBUSY);
    CHECK(Pthread_mutex_unlock(&mutex) == 0 && Pthread_mutex_destroy(&mutex) == 0);
}

static void use_xutil(const char *directory) {
    int available = -1;
    int endpoint = Socket(AF_UNIX, SOCK_DGRAM, 0);
    CHECK(Ioctl(endpoint, FIONREAD, &available) != -1 && available == 0);
    CHECK(Close(endpoint) == 0);
    char *fifo = fpath_dup(directory, "fifo");
    CHECK(Mkfifo(fifo, 0600) == 0 && fexist(fifo, 4) == 0 && Unlink(fifo) == 0);
    free(fifo);

    pid_t child = fork();
    if (child == 0)
        err_sys("nobody reads this: %d", 1);
    int status = 0;
    CHECK(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 1);
}

static void use_xinotify(const char *directory) {
    int events = Inotify_init();
    int watch = Inotify_add_watch(events, directory, IN_CREATE);
    CHECK(watch >= 0 && Inotify_rm_watch(events, watch) == 0);
    close(events);
}

static void use_xthread_util(void) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    pthread_mutex_lock(&mutex);
    CHECK(cond_timedwait(&condition, &mutex, 0) == ETIMEDOUT);
    pthread_mutex_unlock(&mutex);
    pthread_attr_t attributes;
    CHECK(attr_init(&attributes, 1, 1) == 0);
    pthread_attr_destroy(&attributes);
}

static void use_xstring(void) {
    char t1[] = " a ", t2[] = " a  b ", t3[] = " a b ", t4[] = "a = b", split[] = "a,b";
    CHECK(strcmp(strtrim1(t1), "a") == 0 && strcmp(strtrim2(t2), "a b") == 0);
    CHECK(strcmp(strtrim3(t3), "ab") == 0 && strcmp(strtrim4(t4, '='), "a=b") == 0);
    CHECK(same(strdup_ncat(3, "ab", "cd", NULL), "abc") && same(strdup_cat("a", "b", NULL), "ab"));
    CHECK(same(strdup_catf("%d", 7), "7") && same(strdup_insert("ac", 1, "b"), "abc"));
    CHECK(same(strdup_extract1("x=1;y=2", "y", ';', '='), "2"));
    char value[8];
    CHECK(varbind_find("x=50%%", "x", ';', '=', value, sizeof value) == value);
    CHECK(strcmp(value, "50%") == 0);
    char *fields[2];
    CHECK(str_split(split, ",", fields, 2) == 2 && strcmp(fields[1], "b") == 0);
    CHECK(strrcmp("a.log", ".log") == 0 && strrncmp("abc", "xbc", 3) == 0);
    char *text = NULL;
    CHECK(astrcatf(&text, "%s", "abc") == 3 && str_startwithf(text, "a%c", 'b') == 1);
    CHECK(strcmpf(text, "%s", "abc") == 0);
    free(text);
}

static void use_xstdio(const char *directory) {
    char *path = fpath_dup(directory, "lines");
    CHECK(file_cover(path, "one\r\ntwo\n") == 9);
    FILE *file = fopen(path, "r");
    char *line = NULL, last[16];
    int capacity = 0, length = 0;
    CHECK(_fgets(&line, &capacity, file, &length) == line && length == 4 && capacity == 80);
    free(line);
    CHECK(fsize(file) == 9 && fappended(file) == 4);
    int64_t cursor = fsize(file);
    fseek(file, cursor, SEEK_SET);
    CHECK(frgets(last, sizeof last, file, &cursor) == last && strcmp(last, "two\n") == 0);
    CHECK(set_fl(fileno(file), O_NONBLOCK) == 0 && clr_fl(fileno(file), O_NONBLOCK) == 0);
    CHECK(set_fd(fileno(file), FD_CLOEXEC) == 0 && clr_fd(fileno(file), FD_CLOEXEC) == 0);
    fclose(file);
    file = tmpfile();
    CHECK(hexdump(file, "abc", 3) == 3);
    fclose(file);
    free(path);
}

static void use_xconf(const char *directory) {
    char *path = Fpath_dup(directory, "state"), *copy = fpath_dup(directory, "copy");
    char text[16];
    long stamp = 0;
    CHECK(file_touch(path) == 0 && fexist(path, 0) == 0 && fmodified(path, &stamp) == 1);
    CHECK(file_cover(path, "%d", 12) == 2 && file_append(path, "%d", 3) == 1);
    CHECK(file_copy(path, copy) == 0 && file_sflush(copy, text, sizeof text) == 3);
    CHECK(strcmp(text, "123") == 0 && file_clear(path) == 0);
    int descriptor = open(path, O_RDONLY);
    CHECK(ftherein(descriptor, path) == 5);
    close(descriptor);
    free(path);
    free(copy);
}

static void use_xini(const char *directory) {
    char *path = fpath_dup(directory, "settings.ini");
    file_cover(path, "a = 1\n[s]\nb = 2\n");
    ini_table table = {NULL, 0};
    CHECK(ini_load(&table, path, "=") == 0 && table.count == 2);
    CHECK(strcmp(ini_get(&table, "a"), "1") == 0);
    CHECK(strcmp(ini_section_get(&table, "s", "b"), "2") == 0);
    FILE *file = tmpfile();
    CHECK(ini_print(&table, file) == 2 && ini_section_print(&table, file, "s") == 1);
    rewind(file);
    CHECK(ini_fload(&table, file, "=") == 0 && table.count == 5);
    fclose(file);
    CHECK(ini_unload(&table) == 0);
    free(path);
}

static void use_xlog(char *argv[], const char *directory) {
    static log_conf settings;
    settings.flags = LOG_CONF_NLOGS;
    settings.nlogs = 2;
    CHECK(log_init(argv, directory, &settings) == 0);
    int other = log_open("other");
    CHECK(other == 1 && log_print(other, 0x40, "%s", "hello") == 1);
    CHECK(log_dump(0, "abc", 3) == 3);
    CHECK(log_close(other) == 0 && log_destroy() == 0);
}

int main(int argc, char *argv[]) {
    (void)argc;
    char directory[] = "/tmp/keel-host-XXXXXX";
    if (mkdtemp(directory) == NULL)
        return 2;
    use_xmemory();
    use_xwrap();
    use_xutil(directory);
    use_xinotify(directory);
    use_xthread_util();
    use_xstring();
    use_xstdio(directory);
    use_xconf(directory);
    use_xini(directory);
    use_xlog(argv, directory);
    CHECK(get_system_stat() == 0 && ss.ncpu >= 2);
    CHECK(Systemf("rm -r %s", directory) == 0);
    return failures == 0 ? 0 : 1;
}
