/* SPDX-License-Identifier: MIT */
#include "allocations.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include "memory_sweep.h"
#include "processes.h"
#include "xdb_mysql.h"
#include "xfsproc.h"
#include "xftp.h"
#include "xhd.h"
#include "xhd_ata.h"
#include "xhd_scsi.h"

namespace keel_test {

namespace {

/* ---- The machine ----------------------------------------------------------------------------- */

/* A reader that opens its file itself. */
sweep_row reads_kernel(const char *function, const std::function<int()> &read) {
    return {{function}, {returns}, [=](trial &memory) {
                const int got = memory.of(read);
                memory.expect(got >= 0 || (memory.failed() && got == -1));
                memory.expect(read() >= 0);
            }};
}

std::vector<sweep_row> rows_of_the_machine() {
    static uptime_val up;
    static boot_time boot;
    static std::uint64_t count;
    static cpu_stat cpu;
    static mem_stat mem;
    static net_dev_stat net;
    static disk_stat disk;
    static mount_stat mounted;
    static proc_stat self;
    return {
        reads_kernel("uptime1", [] { return uptime1(&up); }),
        reads_kernel("boottime1", [] { return boottime1(&boot); }),
        reads_kernel("cpuinfo", [] { return cpuinfo(nullptr, &count); }),
        reads_kernel("cpustat", [] { return cpustat(nullptr, &cpu); }),
        reads_kernel("meminfo", [] { return meminfo(nullptr, &mem); }),
        reads_kernel("net_dev", [] { return net_dev(nullptr, &net, 0, nullptr, 0); }),
        reads_kernel("net_dev_info", [] { return net_dev_info(nullptr, "lo", &net); }),
        reads_kernel("diskstats", [] { return diskstats(nullptr, &disk, 1); }),
        reads_kernel("fstab", [] { return fstab(&mounted, 1); }),
        sweep_row(
            {"get_system_stat"}, {no_memory, silence},
            [](trial &memory) { memory.expect(memory.of([] { return get_system_stat(); }) == 0); })
            .for_good(),
        sweep_row({"get_system_stat"}, {silence},
                  [](trial &memory) { memory.of([] { return get_system_stat(); }); })
            .where("again"),
        {{"get_stat_by_pid"},
         {returns, silence},
         [](trial &memory) {
             const int got = memory.of([] { return get_stat_by_pid(getpid(), &self); });
             memory.expect(got == 0 || (memory.failed() && got == -1));
         }},
    };
}

/* ---- Processes ------------------------------------------------------------------------------- */

/* A sleeper under a name of its own. Its program is made but once: for a moment after its end it
 * may not be written to. */
class sleeper {
  public:
    explicit sleeper(const trial &memory)
        : sleeping_(program_at(memory / "sleeper"), {memory / "sleeper", "1000"}) {}
    pid_t pid() const { return sleeping_.pid(); }

  private:
    static std::string program_at(const std::string &path) {
        return std::filesystem::exists(path) ? path : copy_program("/bin/sleep", path);
    }

    process sleeping_;
};

/* A process that cannot be looked at for want of memory is none. */
sweep_row finds(const char *function, const std::function<int()> &find) {
    return sweep_row({function}, {returns, silence},
                     [=](trial &memory) {
                         const sleeper one(memory);
                         const int found = memory.of(find);
                         memory.expect(found == 1 || (memory.failed() && found == 0));
                     })
        .among_own_processes();
}

void take_snapshot(trial &memory) {
    proc_info self{};
    const int got = memory.of([&] { return proc_snapshot(getpid(), &self); });
    memory.expect(got == 0 || (memory.failed() && got == -1));
    memory.expect(self.pid == (got == 0 ? getpid() : 0));
    memory.expect(proc_snapshot(getpid(), &self) == 0);
}

void make_monitor(trial &memory) {
    const std::string path = memory / "conf";
    write_file(path, "proc1 = sleeper, /opt, sleeper -d\n");
    proc_monitor made{};
    const int got = memory.of([&] { return proc_monitor_init(&made, path.c_str(), '='); });
    memory.expect(got == 0 || (memory.failed() && got == -1 && made.list == nullptr));
    memory.expect(got == 0 || proc_monitor_init(&made, path.c_str(), '=') == 0);
    memory.expect(proc_monitor_search(&made, "sleeper") != nullptr);
    proc_monitor_destroy(&made);
}

void refresh_monitor(trial &memory) {
    const sleeper one(memory);
    proc_monitor made{};
    proc_monitor_init(&made, "/dev/null", '=');
    proc_monitor_operate(&made, "sleeper", PROC_OP_CREATE);
    memory.of([&] { return proc_monitor_refresh(&made); });
    const std::uint32_t status = proc_monitor_search(&made, "sleeper")->run_status;
    memory.expect(status == PROC_STARTED || (memory.failed() && status == PROC_NOT_RUNNING));
    proc_monitor_destroy(&made);
}

void operate_monitor(trial &memory) {
    proc_monitor made{};
    proc_monitor_init(&made, "/dev/null", '=');
    proc_monitor_operate(&made, "one", PROC_OP_CREATE);
    memory.of([&] {
        proc_monitor_operate(&made, "one", PROC_OP_STOP);
        proc_monitor_operate(&made, "one", PROC_OP_REMOVE);
        proc_monitor_search(&made, "one");
        proc_monitor_destroy(&made);
    });
}

std::vector<sweep_row> rows_of_processes() {
    return {
        sweep_row({"fuser"}, {returns, silence},
                  [](trial &memory) {
                      write_file(memory / "file", "x");
                      const int file = open((memory / "file").c_str(), O_RDONLY | O_CLOEXEC);
                      const std::string path = memory / "file";
                      const int found = memory.of([&] { return fuser(path.c_str(), nullptr, 0); });
                      memory.expect(found == 1 || (memory.failed() && found == 0));
                      close(file);
                  })
            .among_own_processes(),
        sweep_row({"finuse"}, {returns, silence},
                  [](trial &memory) {
                      write_file(memory / "file", "x");
                      const std::string path = memory / "file";
                      memory.expect(memory.of([&] { return finuse(path.c_str()); }) == 0);
                  })
            .among_own_processes(),
        finds("find_pid_by_name", [] { return find_pid_by_name("sleeper", nullptr, 0); }),
        finds("pkill", [] { return pkill("sleeper"); }),
        {{"proc_snapshot"}, {returns, silence}, take_snapshot},
        {{"get_cmdline_by_pid", "pname_cmp", "get_process_stat", "proc_run_status",
          "proc_info_compar", "proc_info_free", "proc_stop"},
         {},
         [](trial &memory) {
             const sleeper one(memory);
             void *block = std::malloc(1);
             memory.of([&] {
                 proc_info info{};
                 proc_stat stat{};
                 const char *name = "name";
                 get_cmdline_by_pid(getpid(), info.cmdline, sizeof info.cmdline);
                 pname_cmp(&info, name);
                 get_process_stat(&stat, &ss, 0);
                 proc_run_status(1, 2);
                 proc_info_compar(&name, &name);
                 proc_info_free(&block);
                 proc_stop(one.pid());
             });
         }},
        {{"proc_monitor_init"},
         {returns, no_memory, named("proc_monitor_init"), named("proc_monitor_operate")},
         make_monitor},
        sweep_row({"proc_monitor_refresh"}, {returns, silence}, refresh_monitor)
            .among_own_processes(),
        {{"proc_monitor_operate"},
         {no_memory, named("proc_monitor_operate")},
         [](trial &memory) {
             proc_monitor made{};
             proc_monitor_init(&made, "/dev/null", '=');
             memory.of([&] { return proc_monitor_operate(&made, "one", PROC_OP_CREATE); });
             proc_monitor_destroy(&made);
         }},
        sweep_row({"proc_monitor_operate", "proc_monitor_search", "proc_monitor_destroy"}, {},
                  operate_monitor)
            .where("at_rest"),
        {{"proc_start"},
         {returns},
         [](trial &memory) {
             proc_monitor_item item{};
             std::strcpy(item.info.cwd, "/bin");
             std::strcpy(item.info.cmdline, "true");
             memory.expect(memory.of([&] { return proc_start(&item); }) ==
                           (memory.failed() ? -1 : 0));
         }},
    };
}

/* ---- Transfers, devices, database ------------------------------------------------------------ */

const ftp_opt quiet = {5, 5, 0, 0, 0, nullptr};

/* Nobody listens there. */
constexpr char nowhere[] = "ftp://127.0.0.1:1/directory/";

/* A call that libcurl has a part in; `no_handle` is its result without a handle. */
sweep_row transfers(const char *function, std::vector<child_result> endings, int no_handle,
                    const std::function<int(const char *)> &call) {
    return sweep_row({function}, std::move(endings),
                     [=](trial &memory) {
                         const std::string path = memory / "local";
                         write_file(path, "content");
                         const int got = memory.of([&] { return call(path.c_str()); });
                         const bool told = got == no_handle || got == CURLE_OUT_OF_MEMORY ||
                                           got == CURLE_COULDNT_RESOLVE_HOST;
                         memory.expect(got == CURLE_COULDNT_CONNECT || (memory.failed() && told));
                         memory.expect(content_of(path) == "content");
                         memory.expect(call(path.c_str()) == CURLE_COULDNT_CONNECT);
                     })
        .cold()
        .with_others([] { curl_global_init(CURL_GLOBAL_ALL); });
}

const std::string no_server =
    "MySQL connect Error: Can't connect to local server through socket '/nowhere' (2)\n";

const std::string client_without_memory = "MySQL connect Error: Client run out of memory\n";

void load_client_library() {
    mysql_library_init(0, nullptr, nullptr);
}

void connect(trial &memory) {
    MySQLConfig config{};
    std::strcpy(config.unix_socket, "/nowhere");
    MySQLConnection connection{};
    MySQLConnectionInit(&connection, &config);
    const int lost = memory.of([&] { return connection.connect(&connection); });
    memory.expect(lost != 0);
    mysql_close(&connection.handle);
}

std::vector<sweep_row> rows_of_transfers() {
    return {
        transfers(
            "ftp_upload", {returns}, CURLE_GOT_NOTHING,
            [](const char *path) { return ftp_upload(nowhere, path, "user", "secret", &quiet); }),
        transfers(
            "ftp_download", {returns}, CURLE_GOT_NOTHING,
            [](const char *path) { return ftp_download(nowhere, path, "user", "secret", &quiet); }),
        transfers("ftp_command", {returns}, CURLE_QUOTE_ERROR,
                  [](const char *) {
                      return ftp_command(nowhere, "user", "secret", &quiet, "NOOP", "PWD", nullptr);
                  }),
        transfers("ftp_rename", {returns, silence}, CURLE_QUOTE_ERROR,
                  [](const char *) {
                      return ftp_rename(nowhere, "user", "secret", &quiet, "from", "to");
                  }),
        sweep_row({"MySQLConnectionInit"}, {returns},
                  [](trial &memory) {
                      const MySQLConfig config{};
                      MySQLConnection connection{};
                      const int made =
                          memory.of([&] { return MySQLConnectionInit(&connection, &config); });
                      memory.expect(made == (memory.failed() ? -1 : 0));
                      memory.expect(made == 0 || MySQLConnectionInit(&connection, &config) == 0);
                      mysql_close(&connection.handle);
                  })
            .with_others(load_client_library),
        sweep_row({"MySQLConnectionInit"},
                  {returns_after(no_server), returns_after(client_without_memory)}, connect)
            .where("connect")
            .with_others(load_client_library)
            .ends(returns_after(no_server)),
        {{"ata_serial_no", "scsi_serial_no", "scsi_open", "scsi_close", "scsi_io",
          "scsi_inquiry_unit_serial_number", "hd_serial_no"},
         {},
         [](trial &memory) {
             memory.of([] {
                 char serial[SCSI_SERIAL_SIZE];
                 unsigned char request[6] = {};
                 unsigned length = 0;
                 unsigned sense = 0;
                 ata_serial_no(serial, sizeof serial, "/dev/null");
                 scsi_serial_no(serial, sizeof serial, "/dev/null");
                 scsi_open("/dev/null");
                 scsi_close(-1);
                 scsi_io(-1, request, 6, 0, nullptr, &length, nullptr, &sense);
                 scsi_inquiry_unit_serial_number(-1, serial, sizeof serial);
                 hd_serial_no(serial, sizeof serial);
             });
         }},
    };
}

} // namespace

std::vector<sweep_row> rows_of_the_system() {
    return joined({rows_of_the_machine(), rows_of_processes(), rows_of_transfers()});
}

} // namespace keel_test
