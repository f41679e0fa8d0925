/* SPDX-License-Identifier: MIT */
/* A host in plain C: it includes every header and calls every function once. Beside keel it links
 * the client libraries that two families are for. */
#define _DEFAULT_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
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
#include <xconvert.h>
#include <xdb_mysql.h>
#include <xfifo.h>
#include <xfsproc.h>
#include <xftp.h>
#include <xgetopt.h>
#include <xhd.h>
#include <xhd_ata.h>
#include <xhd_scsi.h>
#include <xid.h>
#include <xini.h>
#include <xinotify.h>
#include <xlog.h>
#include <xmemory.h>
#include <xnet.h>
#include <xpool.h>
#include <xqueue.h>
#include <xqueue2.h>
#include <xsocket.h>
#include <xstdio.h>
#include <xstring.h>
#include <xthread.h>
#include <xthread_util.h>
#include <xtime.h>
#include <xudpcomm.h>
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
    char *pipe_path = fpath_dup(directory, "fifo");
    CHECK(Mkfifo(pipe_path, 0600) == 0 && fexist(pipe_path, 4) == 0 && Unlink(pipe_path) == 0);
    free(pipe_path);

    pid_t child = fork();
    if (child == 0)
        err_sys("nobody reads this: %d", 1);
    int status = 0;
    CHECK(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 1);

    ifi_info *interfaces = get_ifi_info(AF_INET), *made = NULL, **tail = &made;
    CHECK(is_ifi_info_exist(interfaces, "lo") == 1 && free_ifi_info(interfaces) == NULL);
    ifi_info *record = add_ifi_info(&tail, "eth0");
    CHECK(record == made && tail == &record->ifi_next && strcmp(record->ifi_name, "eth0") == 0);
    record->ifi_mtu = 1500;
    release_ifi_info(record);
    CHECK(record->ifi_mtu == 0 && free_ifi_info(made) == NULL);
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

static int take_item(char *line, void *array, size_t size, size_t count, int index) {
    if ((size_t)index == count)
        return -1;
    snprintf((char *)array + (size_t)index * size, size, "%s", line);
    return 0;
}

static void use_xconf_settings(const char *directory) {
    char *path = fpath_dup(directory, "settings.conf");
    char value[16], items[2][8];
    int port = 0;
    CHECK(file_cover(path, "# ports\nport = 80\nhosts {\none\ntwo }\n") > 0);
    CHECK(finsert(path, "port", '=', "8080") == 0 && fremove(path, "port", '=', "80") == 0);
    CHECK(fmodify(path, "port", '=', "81") == 0 && foperate(path, 1, "port", '=', "82") == 0);
    CHECK(flookup(path, "port", '=', value, sizeof value) == value && strcmp(value, "82") == 0);
    CHECK(bulk_lookup(path, "hosts", items, sizeof items[0], 2, take_item) == 2);
    CHECK(strcmp(items[0], "one") == 0 && strcmp(items[1], "two") == 0);
    CHECK(file_replace_value(path, "port", "=", "%d,%d", 83, 84) == 0);
    CHECK(file_replace_value_value(path, "port", "=", ",", 1, "%d", 85) == 0);
    CHECK(file_lookup_value(path, "port", "=", "%*d,%d", &port) == 0 && port == 84);
    free(path);
}

static void use_xconf_cleanup(const char *directory) {
    unsigned usage = 101;
    float free_gb = -1;
    fs_limit limit = {FS_LIMIT_USAGE | FS_LIMIT_FREE | FS_LIMIT_AGE, 100, 0, 0};
    CHECK(get_fs_info(directory, &usage, &free_gb) == 0 && usage <= 100 && free_gb >= 0);
    CHECK(check_fs_info(directory, &limit) == 0 && fcleanup(directory, &limit) == 0);
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

static void use_xconvert(void) {
    static const convert_desc table[] = {{1, "one"}, {2, "two"}};
    unsigned char bytes[2];
    char text[5];
    uint32_t value = 0;
    CHECK(convert_str2bcd(bytes, sizeof bytes, "123") == 2 && bytes[0] == 0x01 && bytes[1] == 0x23);
    CHECK(convert_str2bch(bytes, sizeof bytes, "0a1b") == 2);
    CHECK(convert_bch2str(text, sizeof text, bytes, 2) == 0 && strcmp(text, "0A1B") == 0);
    CHECK(convert_desc2enum(table, 2, "two", &value) == 0 && value == 2);
    CHECK(strcmp(convert_enum2desc(table, 2, 1), "one") == 0);
}

static int options_seen;

static int take_option(int value, int index) {
    options_seen += value == 'a' && strcmp(optarg, "1") == 0 && index == options_seen;
    return 0;
}

static void use_xgetopt(char *program) {
    static const struct option options[] = {
        {"b", 0, NULL, 'b'}, {"all", 1, NULL, 'a'}, {NULL, 0, NULL, 0}};
    char first[] = "-a1", second[] = "--all=1";
    char *argv[] = {program, first, second, NULL};
    xgetopt(3, argv, "a:", options, take_option, "usage\n");
    CHECK(options_seen == 2 && optind == 3);
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

static void *copy_half(void **dst, void **src, uint64_t size, va_list ap) {
    (void)ap;
    return memcpy(*dst, *src, size / 2);
}

static void *move_slot(fifo *ring, void **dst, void **src, ...) {
    va_list ap;
    va_start(ap, src);
    void *moved = fifo_slot_rdwr(dst, src, ring->slot_size, ap);
    va_end(ap);
    return moved;
}

static void use_xfifo(void) {
    fifo *ring = fifo_new(1, 1, 2, 3);
    void *item = xmalloc(0, 8);
    CHECK(move_slot(ring, &ring->slots[0], &item) == &item && item == NULL);
    ring->count = 1;
    CHECK(fifo_expand(ring) == 0 && ring->capacity == 3 && ring->expandable == 0);
    CHECK(fifo_slots_resize(ring, 0) == 0 && fifo_del(ring) == 0);
}

static void use_xqueue(void) {
    ring_queue_param param = {2, 8, 0, 0, 0};
    ring_queue *queue = queue_new(&param);
    char in[8] = "abcdefg", out[8] = "-------";
    void *from = in, *to = out;
    CHECK(queue_push(queue, &from, 0, NULL) == 0 && queue_pop(queue, &to, 0, copy_half) == 0);
    CHECK(strcmp(out, "abcd---") == 0);
    CHECK(queue_lock(queue) == 0 && queue_slots_resize(queue, 16) == 0 && queue_unlock(queue) == 0);
    CHECK(queue->fifo->slot_size == 16 && queue_del(queue) == 0);
    CHECK(is2power32(64) == 1 && is2power32(65) == 0);
}

static void use_xqueue2(void) {
    blocking_queue queue;
    char text[4];
    CHECK(queue_init(&queue, 3) == 0);
    CHECK(queue_put(&queue, "one", 3) == 0 && queue_tryput(&queue, "", 0) == 0);
    CHECK(queue_timedput(&queue, "three", 5, 1) == 0 && queue_size(&queue) == 3);
    CHECK(queue_get(&queue, text, sizeof text) == 3 && memcmp(text, "one", 3) == 0);
    CHECK(queue_tryget(&queue, text, sizeof text) == 0);
    CHECK(queue_timedget(&queue, text, sizeof text, 1) == -1 && errno == ENOBUFS);
    CHECK(queue_destroy(&queue) == 0);
}

static void use_xid(void) {
    idproducer *ids = idproducer_new(0, NULL);
    CHECK(idproducer_alloc(ids, NULL) == 0 && idproducer_alloc(ids, NULL) == 1);
    CHECK(idproducer_free(ids, 0, NULL) == 0 && find_next_zero_bit(0, ids) == 0);
    CHECK(test_and_set_bit(0, ids) == 0 && find_next_zero_bit(0, ids) == 2);
    CHECK(test_and_clr_bit(0, ids) == 0 && idproducer_free(ids, 0, NULL) == -1);
    CHECK(idproducer_del(ids) == 0);
}

static void use_xpool(void) {
    pool sizes;
    CHECK(pool_create(&sizes, 6, 12) == 0 && pool_resize(&sizes) == 0);
    sizes.idle = 0;
    CHECK(pool_resize(&sizes) == 2);
}

static void *post(void *semaphore) {
    sem_post(semaphore);
    return semaphore;
}

static void *leave(void *self) {
    thread_exit(self, self);
}

static void use_xthread(void) {
    thread *joined = thread_new(0), *stopped = thread_new(0), *made = thread_new(1);
    sem_t done;
    void *result = NULL;
    sem_init(&done, 0, 0);
    CHECK(thread_start(joined, post, &done) == 0 && thread_join(joined, &result) == 0);
    CHECK(result == &done && joined->retval == &done && thread_trystop(joined) == 0);
    CHECK(thread_start(stopped, leave, stopped) == 0 && thread_detach(stopped) == 0);
    CHECK(thread_stop(stopped) == 0 && stopped->retval == stopped && stopped->state == 3);

    made->routine = post;
    made->arg = &done;
    CHECK(thread_proc(made) == &done && thread_trystop(made) == 0);
    thread_unlock(made);
    thread_necrology_to_pool(made);
    thread_necrology_to_self(made);
    CHECK(made->state == 3 && thread_trystop(made) == 0);
    CHECK(thread_del(joined) == 0 && thread_del(stopped) == 0 && thread_del(made) == 0);
    CHECK(strcmp(thread_stat_descs[3].text, "Stop") == 0);

    thread *retired = thread_new(0);
    CHECK(thread_start(retired, thread_exit_for_pool, retired) == 0);
    CHECK(thread_join(retired, &result) == 0 && result == NULL && retired->state == 3);
    CHECK(thread_stop(retired) == 0 && thread_del(retired) == 0);

    threadpool *workers = threadpool_new(6, 12, 4, 4, 16);
    CHECK(threadpool_exec(workers, post, &done) == 0);
    thread *worker = thread_new_for_pool(workers), *another = thread_new(1);
    CHECK(worker != NULL && thread_del_for_pool(worker) == 0);
    another->pool = workers;
    CHECK(thread_start(another, thread_run_for_pool, another) == 0);
    CHECK(thread_del_for_pool(another) == 0);
    for (int posts = 0; posts < 3; posts++)
        sem_wait(&done);
    CHECK(threadpool_del(workers) == 0 && strcmp(threadpool_stat_descs[1].text, "Inactive") == 0);
    sem_destroy(&done);
}

static void use_xtime(void) {
    sem_t done;
    sem_init(&done, 0, 0);
    timer *clock = timer_new();
    CHECK(timer_exec(clock, post, &done) == 0 && timer_start(clock, post, &done, 1) == 0);
    sem_wait(&done);
    sem_wait(&done);
    int id = timer_schedule(clock, post, &done, 3600000, -1, 1);
    CHECK(id == 1 && timer_cancel(clock, id) == 0);

    pthread_mutex_lock(&clock->lock);
    timertask *soon = timertask_new(clock, post, &done, 1, 1, 0);
    timertask *late = timertask_new(clock, post, &done, 2000, 1, 0);
    CHECK(timertask_sort(&soon, &late) < 0);
    timertask_del(&soon);
    timertask_del(&late);
    CHECK(soon == NULL && late == NULL);
    timer_unlock(&clock->lock);
    thread *second = thread_new(0);
    CHECK(thread_start(second, timer_run, clock) == 0 && thread_stop(second) == 0);
    CHECK(thread_join(second, NULL) == 0 && thread_del(second) == 0);
    CHECK(timer_del(clock) == 0);
    sem_destroy(&done);
}

static void use_xnet(void) {
    static const char missing[] = "missing";
    unsigned short flags = 0;
    unsigned address = 0;
    char text[16];
    CHECK(get_if_flags("lo", &flags) == 0 && (flags & IFF_LOOPBACK) != 0);
    CHECK(get_ifaddr(missing, text, sizeof text) == -1 && set_ifaddr(missing, "10.0.0.1") == -1);
    CHECK(get_if_addr(missing, &address) == -1 && set_if_addr(missing, address) == -1);
    CHECK(get_if_netmask(missing, &address) == -1 && set_if_netmask(missing, address) == -1);
    CHECK(hostname2addr("127.0.0.1", text, sizeof text, &address) == 0);
    CHECK(strcmp(text, "127.0.0.1") == 0 && address == htonl(INADDR_LOOPBACK));
}

static void use_xsocket(void) {
    xsocket *endpoint = socket_open(AF_INET, SOCK_DGRAM, 0);
    xsockaddr here;
    CHECK(socket_addr(&here.sa, AF_INET, "127.0.0.1", 0) == 0 && socket_len(&here.sa) == 16);
    CHECK(bind(endpoint->fd, &here.sa, sizeof here.in) == 0 && socket_close(endpoint) == 0);
}

static int64_t take(udpcomm *u, char *data, size_t size, struct sockaddr *peer) {
    CHECK(size == 5 && strcmp(data, "hello") == 0 && peer->sa_family == AF_INET);
    CHECK(u->recv_count == 1 && u->recv_bytes == 5);
    return sem_post(u->arg);
}

static void use_xudpcomm(void) {
    sem_t arrived;
    sem_init(&arrived, 0, 0);
    udpcomm *u = udpcomm_open(AF_INET, "127.0.0.1", 0);
    xsockaddr here;
    socklen_t length = sizeof here;
    CHECK(udpcomm_start(u, take, &arrived) == 0 && udpcomm_detach(u) == 0);
    CHECK(getsockname(u->sock->fd, &here.sa, &length) == 0 && udpcomm_switch(u, 0) == 0);
    CHECK(udpcomm_send(u, "hello", 5, &here.sa) == -1 && udpcomm_switch(u, 1) == 0);
    CHECK(udpcomm_send(u, "hello", 5, &here.sa) == 5 && u->send_count == 1);
    sem_wait(&arrived);
    CHECK(udpcomm_close(u) == 0 && sem_destroy(&arrived) == 0);
}

static void use_xfsproc_readers(void) {
    uptime_val up;
    boot_time boot;
    uint64_t processors = 0;
    cpu_stat ticks;
    mem_stat memory;
    net_dev_stat lo;
    static disk_stat disks[4];
    static mount_stat mounts[4];
    CHECK(uptime1(&up) == 0 && up.sec > 0 && boottime1(&boot) == 0 && boot.sec > 0);
    CHECK(cpuinfo(NULL, &processors) == 0 && processors > 0);
    CHECK(cpustat(NULL, &ticks) == 0 && ticks.idle > 0);
    CHECK(meminfo(NULL, &memory) == 0 && memory.mem_total > memory.mem_used);
    CHECK(net_dev(NULL, NULL, 0, NULL, 0) >= 0 && net_dev_info(NULL, "lo", &lo) == 0);
    CHECK(diskstats(NULL, disks, 4) >= 0);
    CHECK((fstab(mounts, 4) == -1) == (access("/etc/mtab", F_OK) == -1)); // a bare system has none
}

static void use_xfsproc_processes(void) {
    static const char absent[] = "no process is called so";
    proc_stat stat = {0};
    proc_info self;
    char line[2048];
    pid_t pid = 0;
    CHECK(get_system_stat() == 0 && ss.ncpu >= 2);
    CHECK(get_stat_by_pid(getpid(), &stat) == 0 && stat.ppid == getppid());
    CHECK(get_process_stat(&stat, &ss, 1) == 0 && stat.mem_usage > 0);
    CHECK(get_cmdline_by_pid(getpid(), line, sizeof line) == line);
    CHECK(proc_snapshot(getpid(), &self) == 0 && pname_cmp(&self, self.name) == 0);
    CHECK(find_pid_by_name(self.name, &pid, 1) >= 1 && pid > 0);
    CHECK(pkill(absent) == 0 && fuser(self.exe, NULL, 0) >= 0 && finuse(absent) == -1);
}

static void use_xfsproc_monitor(const char *directory) {
    char path[64];
    snprintf(path, sizeof path, "%s/watch.conf", directory);
    CHECK(file_cover(path, "proc1 = first, /bin, true\nproc2 = second\n") > 0);
    proc_monitor monitor;
    CHECK(proc_monitor_init(&monitor, path, '=') == 0 && monitor.list->count == 2);
    CHECK(proc_monitor_refresh(&monitor) == 0);
    proc_monitor_item *first = proc_monitor_search(&monitor, "first");
    const char *name = "first";
    CHECK(proc_info_compar(&name, &first) == 0 && proc_start(first) == 0);
    CHECK((int)first->run_status == proc_run_status(0, 0));
    const int result = proc_monitor_operate(&monitor, "second", PROC_OP_START);
    CHECK(strcmp(proc_operate_error_message[result], "Failed start.") == 0);
    CHECK(proc_stop(INT32_MAX) == -1 && proc_monitor_destroy(&monitor) == 0);
    void *block = malloc(1);
    proc_info_free(&block);
}

static void use_xftp(const char *directory) {
    static const char nobody[] = "ftp://127.0.0.1:1/";
    const ftp_opt quiet = {5, 5, 0, 0, 0, NULL};
    char path[64];
    snprintf(path, sizeof path, "%s/fetched", directory);
    CHECK(ftp_upload(nobody, "/dev/null", "user", "secret", &quiet) == CURLE_COULDNT_CONNECT);
    CHECK(ftp_download(nobody, path, "user", "secret", &quiet) == CURLE_COULDNT_CONNECT);
    CHECK(ftp_command(nobody, "user", "secret", &quiet, "NOOP", NULL) == CURLE_COULDNT_CONNECT);
    CHECK(ftp_rename(nobody, "user", "secret", &quiet, "a", "b") == CURLE_COULDNT_CONNECT);
}

static void use_xdb_mysql(void) {
    static MySQLConfig config = {.unix_socket = "/nowhere/mysql.sock"};
    static MySQLConnection connection;
    CHECK(MySQLConnectionInit(&connection, &config) == 0);
    CHECK(connection.connect(&connection) == 2002 && connection.destroy(&connection) == 0);
}

static void use_xhd(void) {
    unsigned char cdb[6] = {0};
    unsigned char sense[32];
    unsigned length = 0;
    unsigned sense_length = sizeof sense;
    char serial[SCSI_SERIAL_SIZE];
    CHECK(scsi_open("/dev/null") == -1 && scsi_close(-1) == -1);
    CHECK(scsi_io(-1, cdb, sizeof cdb, 0, NULL, &length, sense, &sense_length) == -1);
    CHECK(scsi_inquiry_unit_serial_number(-1, serial, sizeof serial) == -1);
    CHECK(ata_serial_no(serial, sizeof serial, "/dev/null") == -1);
    CHECK(scsi_serial_no(serial, sizeof serial, "/dev/null") == -1 && hd_serial_no(NULL, 0) == -1);
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
    use_xconf_settings(directory);
    use_xconf_cleanup(directory);
    use_xini(directory);
    use_xconvert();
    use_xgetopt(argv[0]);
    use_xfifo();
    use_xqueue();
    use_xqueue2();
    use_xid();
    use_xpool();
    use_xthread();
    use_xtime();
    use_xnet();
    use_xsocket();
    use_xudpcomm();
    use_xlog(argv, directory);
    use_xfsproc_readers();
    use_xfsproc_processes();
    use_xfsproc_monitor(directory);
    use_xftp(directory);
    use_xdb_mysql();
    use_xhd();
    CHECK(Systemf("rm -r %s", directory) == 0);
    return failures == 0 ? 0 : 1;
}
