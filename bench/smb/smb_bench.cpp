// Operations per second of SMB clients on several shares of one smbd: what the VFS module costs
// where users meet it. The client is libsmbclient, one process and one connection for each client
// and share. For each operation the shares take their turns, and each round begins with another
// share, so that what else the machine does falls on all of them alike. The server's processor time
// is taken, too. Prints one line of tab-separated values for each measurement; bench/smb/run starts
// the server, bench/smb/table makes medians and ratios of them.
#include <fcntl.h>
#include <getopt.h>
#include <libsmbclient.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Settings {
    std::string server = "127.0.0.1";
    std::string user;
    std::string password;
    std::string folder;  // of the clients: each has a folder in it that is named by its number
    std::vector<std::string> shares;
    std::vector<int> clients = {1, 4};
    std::vector<std::string> operations;  // none: all
    int rounds = 21;
    double scale = 1;  // of how often each operation is done in a turn
    std::string smbd;  // the id of the process whose children serve
};

Settings settings;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "bench_smb: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

double now() {
    using Seconds = std::chrono::duration<double>;
    return Seconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The time that smbd's connections had the processor, all of their threads.
double processor_seconds() {
    namespace fs = std::filesystem;
    double nanoseconds = 0;

    if (settings.smbd.empty()) return 0;
    std::ifstream children("/proc/" + settings.smbd + "/task/" + settings.smbd + "/children");
    for (std::string child; children >> child;) {
        std::error_code ended;  // a process or a thread may end while we look
        for (const auto& thread : fs::directory_iterator("/proc/" + child + "/task", ended)) {
            double spent = 0;
            std::ifstream(thread.path() / "schedstat") >> spent;
            nanoseconds += spent;
        }
    }
    return nanoseconds / 1e9;
}

// --- What a client does. Each answers how many operations it did. --------------------------------

constexpr int kSameNames = 10;
constexpr int kEntries = 1000;

struct Client {
    std::string folder;  // smb://SERVER/SHARE/FOLDER/NUMBER
    int round = 0;

    std::string made(int i) const {
        return folder + "/made-" + std::to_string(round) + "-" + std::to_string(i);
    }
    std::string renamed(int i) const {
        return folder + "/renamed-" + std::to_string(round) + "-" + std::to_string(i);
    }
    // One of the files that the share was set up with.
    std::string entry(int i) const {
        char name[32];
        std::snprintf(name, sizeof name, "/thousand/entry-%04d", i % kEntries);
        return folder + name;
    }
};

void look_at(const std::string& path) {
    struct stat st;
    if (smbc_stat(path.c_str(), &st) != 0) fail("stat " + path);
}

int create(const Client& client, int times) {
    static const char contents[] = "one small write\n";

    for (int i = 0; i < times; i++) {
        const std::string path = client.made(i);
        const int fd = smbc_open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0644);
        if (fd < 0) fail("create " + path);
        if (smbc_write(fd, contents, sizeof contents - 1) != sizeof contents - 1)
            fail("write " + path);
        if (smbc_close(fd) != 0) fail("close " + path);
    }
    return times;
}

int stat_same(const Client& client, int times) {
    for (int i = 0; i < times; i++) look_at(client.entry(i % kSameNames));
    return times;
}

int stat_many(const Client& client, int times) {
    for (int i = 0; i < times; i++) look_at(client.entry(i));
    return times;
}

int list(const Client& client, int times) {
    const std::string folder = client.folder + "/thousand";

    for (int i = 0; i < times; i++) {
        const int listing = smbc_opendir(folder.c_str());
        if (listing < 0) fail("list " + folder);
        int seen = 0;
        while (const smbc_dirent* entry = smbc_readdir(listing))
            if (entry->name[0] != '.') seen++;
        if (smbc_closedir(listing) != 0) fail("close " + folder);
        if (seen != kEntries) fail(folder + " has " + std::to_string(seen) + " entries");
    }
    return times;
}

int rename_made(const Client& client, int times) {
    for (int i = 0; i < times; i++)
        if (smbc_rename(client.made(i).c_str(), client.renamed(i).c_str()) != 0)
            fail("rename " + client.made(i));
    return times;
}

int unlink_renamed(const Client& client, int times) {
    for (int i = 0; i < times; i++)
        if (smbc_unlink(client.renamed(i).c_str()) != 0) fail("unlink " + client.renamed(i));
    return times;
}

int mkdir_rmdir(const Client& client, int times) {
    const std::string folder = client.folder + "/folder";

    for (int i = 0; i < times; i++) {
        if (smbc_mkdir(folder.c_str(), 0755) != 0) fail("mkdir " + folder);
        if (smbc_rmdir(folder.c_str()) != 0) fail("rmdir " + folder);
    }
    return times;
}

struct Operation {
    const char* name;
    int times;  // in a turn, by each client
    int (*run)(const Client&, int times);
    bool is_always_run;  // others work on what it leaves
};

// In this order: what create makes is renamed and then removed. A creation makes the module forget
// its verdicts, so the first look at many names after it asks the map for each.
const Operation operations[] = {
    {"create", 100, create, true},           {"stat_many", 400, stat_many, false},
    {"stat_same", 400, stat_same, false},    {"list", 3, list, false},
    {"rename", 100, rename_made, true},      {"unlink", 100, unlink_renamed, true},
    {"mkdir_rmdir", 60, mkdir_rmdir, false},
};

bool is_wanted(const Operation& operation) {
    if (settings.operations.empty()) return true;
    for (const std::string& name : settings.operations)
        if (name == operation.name) return true;
    return false;
}

// --- The processes. ------------------------------------------------------------------------------

constexpr int kEnd = -1;

struct Command {
    int operation;  // or kEnd
    int times;
    int round;
};

struct Answer {
    double begin;
    double end;
    int done;
};

struct Worker {
    pid_t process;
    int commands;
    int answers;
};

void authenticate(const char*, const char*, char* workgroup, int workgroup_size, char* user,
                  int user_size, char* password, int password_size) {
    std::snprintf(workgroup, workgroup_size, "%s", "TEST");
    std::snprintf(user, user_size, "%s", settings.user.c_str());
    std::snprintf(password, password_size, "%s", settings.password.c_str());
}

[[noreturn]] void work(const std::string& share, int number, int commands, int answers) {
    SMBCCTX* context = smbc_new_context();
    if (context == nullptr) fail("smbc_new_context");
    smbc_setFunctionAuthData(context, authenticate);
    if (smbc_init_context(context) == nullptr) fail("smbc_init_context");
    smbc_set_context(context);

    Client client;
    client.folder = "smb://" + settings.server + "/" + share + "/" + settings.folder + "/" +
                    std::to_string(number);
    look_at(client.folder);  // connects

    Command command;
    while (read(commands, &command, sizeof command) == sizeof command &&
           command.operation != kEnd) {
        Answer answer;
        client.round = command.round;
        answer.begin = now();
        answer.done = operations[command.operation].run(client, command.times);
        answer.end = now();
        if (write(answers, &answer, sizeof answer) != sizeof answer) fail("answer");
    }
    smbc_free_context(context, 1);
    std::exit(0);
}

Worker start_worker(const std::string& share, int number) {
    int commands[2];
    int answers[2];

    if (pipe(commands) != 0 || pipe(answers) != 0) fail("pipe");
    std::fflush(stdout);
    const pid_t process = fork();
    if (process < 0) fail("fork");
    if (process == 0) {
        close(commands[1]);
        close(answers[0]);
        work(share, number, commands[0], answers[1]);
    }
    close(commands[0]);
    close(answers[1]);
    return {process, commands[1], answers[0]};
}

// Lets all workers do it at the same time and answers from the first's beginning to the last's end.
Answer measure(const std::vector<Worker>& workers, const Command& command) {
    Answer all{1e300, 0, 0};

    for (const Worker& worker : workers)
        if (write(worker.commands, &command, sizeof command) != sizeof command) fail("command");
    for (const Worker& worker : workers) {
        Answer answer;
        errno = EPIPE;
        if (read(worker.answers, &answer, sizeof answer) != sizeof answer) fail("a client died");
        if (answer.begin < all.begin) all.begin = answer.begin;
        if (answer.end > all.end) all.end = answer.end;
        all.done += answer.done;
    }
    return all;
}

// The share whose turn it is: each round begins with another one, and every second round goes
// through them backwards.
std::size_t share_of_turn(int round, std::size_t turn) {
    const std::size_t count = settings.shares.size();

    return (round + (round % 2 == 0 ? turn : count - 1 - turn)) % count;
}

// One process for each client of each share. Who comes first gets other processors than who comes
// last, so they take turns in this, too.
std::vector<std::vector<Worker>> start_workers(int clients, int round) {
    std::vector<std::vector<Worker>> shares(settings.shares.size());

    for (std::size_t turn = 0; turn < shares.size(); turn++) {
        const std::size_t share = share_of_turn(round, turn);
        for (int number = 1; number <= clients; number++)
            shares[share].push_back(start_worker(settings.shares[share], number));
    }
    return shares;
}

void end_workers(const std::vector<std::vector<Worker>>& shares) {
    const Command end{kEnd, 0, 0};

    for (const std::vector<Worker>& workers : shares) {
        for (const Worker& worker : workers) {
            int status = 0;
            if (write(worker.commands, &end, sizeof end) != sizeof end) fail("command");
            if (waitpid(worker.process, &status, 0) < 0 || status != 0) fail("a client's end");
            close(worker.commands);
            close(worker.answers);
        }
    }
}

int times_of(const Operation& operation, int clients, bool warms_up) {
    const double times = operation.times * settings.scale / (clients > 1 ? 2 : 1);
    return std::max(1, static_cast<int>(warms_up ? times / 10 : times));
}

void take_turns(const std::vector<std::vector<Worker>>& shares, int i, int round, bool warms_up) {
    const Operation& operation = operations[i];

    if (!operation.is_always_run && !is_wanted(operation)) return;
    for (std::size_t turn = 0; turn < shares.size(); turn++) {
        const std::size_t share = share_of_turn(round, turn);
        const int clients = static_cast<int>(shares[share].size());
        const double before = processor_seconds();
        const Answer answer =
            measure(shares[share], {i, times_of(operation, clients, warms_up), round});
        const double spent = processor_seconds() - before;
        const double seconds = answer.end - answer.begin;
        if (warms_up || !is_wanted(operation)) continue;
        std::printf("%d\t%s\t%s\t%d\t%d\t%.6f\t%.1f\t%.1f\n", clients, operation.name,
                    settings.shares[share].c_str(), round, answer.done, seconds,
                    answer.done / seconds, 1e6 * spent / answer.done);
        std::fflush(stdout);
    }
}

// A single client and its server take turns, one processor is enough for them. On two, most of what
// is measured is one of them being woken up, and it is chance whether they get two.
void choose_processors(int clients) {
    static cpu_set_t all;
    static const bool known = sched_getaffinity(0, sizeof all, &all) == 0;
    cpu_set_t one;

    if (!known || settings.smbd.empty()) return;
    CPU_ZERO(&one);
    for (int i = CPU_SETSIZE - 1; i >= 0 && CPU_COUNT(&one) == 0; i--)
        if (CPU_ISSET(i, &all)) CPU_SET(i, &one);
    const cpu_set_t& chosen = clients == 1 ? one : all;
    // Both hand it on to the processes that they start.
    for (const pid_t process : {getpid(), std::atoi(settings.smbd.c_str())})
        if (sched_setaffinity(process, sizeof chosen, &chosen) != 0) fail("sched_setaffinity");
}

// Every round connects anew: which processors several clients and their servers happen to get stays
// the same while they live, and makes more of a difference than some of the modules.
void measure_all(int clients) {
    choose_processors(clients);
    for (int round = 1; round <= settings.rounds; round++) {
        const auto shares = start_workers(clients, round);
        for (const bool warms_up : {true, false})
            for (int i = 0; i < static_cast<int>(std::size(operations)); i++)
                take_turns(shares, i, round, warms_up);
        end_workers(shares);
    }
}

std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> found;
    std::istringstream stream(text);
    for (std::string word; std::getline(stream, word, ',');)
        if (!word.empty()) found.push_back(word);
    return found;
}

[[noreturn]] void usage() {
    std::fputs(
        "usage: bench_smb --user NAME --password WORD --folder PATH --shares A,B,…\n"
        "                 [--server NAME] [--clients 1,4] [--rounds 21] [--operations A,B,…]\n"
        "                 [--scale 1.0] [--smbd PROCESS]\n",
        stderr);
    std::exit(64);
}

void read_settings(int argc, char** argv) {
    static const option options[] = {
        {"server", 1, nullptr, 's'},     {"user", 1, nullptr, 'u'},   {"password", 1, nullptr, 'p'},
        {"folder", 1, nullptr, 'f'},     {"shares", 1, nullptr, 'S'}, {"clients", 1, nullptr, 'c'},
        {"operations", 1, nullptr, 'o'}, {"rounds", 1, nullptr, 'r'}, {"scale", 1, nullptr, 'x'},
        {"smbd", 1, nullptr, 'm'},       {nullptr, 0, nullptr, 0},
    };
    for (int letter; (letter = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (letter) {
            case 's':
                settings.server = optarg;
                break;
            case 'u':
                settings.user = optarg;
                break;
            case 'p':
                settings.password = optarg;
                break;
            case 'f':
                settings.folder = optarg;
                break;
            case 'S':
                settings.shares = words(optarg);
                break;
            case 'o':
                settings.operations = words(optarg);
                break;
            case 'r':
                settings.rounds = std::atoi(optarg);
                break;
            case 'x':
                settings.scale = std::atof(optarg);
                break;
            case 'm':
                settings.smbd = optarg;
                break;
            case 'c':
                settings.clients.clear();
                for (const std::string& number : words(optarg))
                    settings.clients.push_back(std::atoi(number.c_str()));
                break;
            default:
                usage();
        }
    }
    if (optind != argc || settings.user.empty() || settings.folder.empty() ||
        settings.shares.empty() || settings.rounds < 1)
        usage();
}

}  // namespace

int main(int argc, char** argv) {
    read_settings(argc, argv);
    std::puts("clients\toperation\tshare\tround\tdone\tseconds\tper_second\tserver_us");
    for (const int clients : settings.clients) measure_all(clients);
}
