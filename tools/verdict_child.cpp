// See verdict_child.h.
#include "verdict_child.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>

#include "build_child.h"
#include "descriptor.h"
#include "failure.h"
#include "kavrin.h"
#include "nearest_grant.h"

namespace kvadmin {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kTries = 5;

// The segment that readers use now, held while a verdict is asked for and explained. Offsets in a
// trail mean something in the image they come from only.
class CurrentMap {
public:
    CurrentMap() : id_(current_id()) {
        shmid_ds status{};
        if (id_ < 0 || shmctl(id_, IPC_STAT, &status) != 0) return;
        void* memory = shmat(id_, nullptr, SHM_RDONLY);
        if (memory == reinterpret_cast<void*>(-1)) return;
        bytes_ = {static_cast<const std::uint8_t*>(memory), status.shm_segsz};
        reader_ = ImageReader::open(bytes_);
    }
    ~CurrentMap() {
        if (!bytes_.empty()) shmdt(bytes_.data());
    }
    CurrentMap(const CurrentMap&) = delete;
    CurrentMap& operator=(const CurrentMap&) = delete;

    const ImageReader* reader() const { return reader_ ? &*reader_ : nullptr; }
    bool still_current() const { return current_id() == id_; }

private:
    static int current_id() {
        const int table = get_current_perm_table_index();
        return table < 0 ? -1 : get_current_perm_table_shmid(table);
    }

    int id_;
    std::span<const std::uint8_t> bytes_;
    std::optional<ImageReader> reader_;
};

void become(const Identity& who) {
    const bool done = setgroups(who.groups.size(), who.groups.data()) == 0 &&
                      setresgid(who.gid, who.gid, who.gid) == 0 && setresuid(0, who.uid, 0) == 0;
    if (done) return;
    std::perror("cannot take the caller's identity");
    _exit(1);
}

Answer ask(const VerdictJob& job, const Question& question, process_trustees_t* trustees) {
    Answer answer;
    answer.question = question;
    int nav = 0;
    answer.verdict =
        kavrin::enforce_with_trail(job.root.c_str(), question.path.c_str(), question.op, trustees,
                                   question.force_type, &nav, &answer.trail);
    answer.nav = nav != 0;
    return answer;
}

Answer ask_in_groups(const VerdictJob& job, const Question& question, std::vector<gid_t> groups) {
    process_trustees_t trustees{};
    trustees.euid = job.context.caller.uid;
    trustees.egid = job.context.caller.gid;
    trustees.num_sup_gids = static_cast<std::int32_t>(groups.size());
    trustees.gids = groups.data();
    return ask(job, question, &trustees);
}

Json answer_one(const VerdictJob& job, const ExplainContext& context, const Question& question) {
    const Answer answer = ask(job, question, nullptr);
    Json result{{"asked", question.asked},
                {"op", operation_name(question.op)},
                {"path", question.path},
                {"remark", question.remark},
                {"verdict", verdict_word(answer.verdict)},
                {"code", verdict_name(answer.verdict)},
                {"number", static_cast<int>(answer.verdict)},
                {"navigation_only", answer.nav}};
    if (!job.explain) return result;
    const std::vector<std::string> advice =
        nearest_grant(answer, context, [&job](const Question& again, const auto& groups) {
            return ask_in_groups(job, again, groups);
        });
    result["explanation"] = explanation_as_json(answer, context, advice);
    result["text"] = explanation_as_text(answer, context, advice);
    return result;
}

// All answers from one and the same map, unless maps change faster than they can be asked.
Json answer_all(const VerdictJob& job) {
    vfs_set_admins_powerusers(job.context.admins.gid, job.context.powerusers.gid);
    Json results;
    for (int i = 0; i < kTries; ++i) {
        const CurrentMap map;
        ExplainContext context = job.context;
        context.image = map.reader();
        become(job.context.caller);
        results = Json::array();
        for (const Question& question : job.questions)
            results.push_back(answer_one(job, context, question));
        if (seteuid(0) != 0) _exit(1);
        if (map.still_current()) break;
    }
    return results;
}

[[noreturn]] void be_the_child(const VerdictJob& job, pid_t parent, int result, int errors) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(1);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0 || dup2(null, STDOUT_FILENO) < 0 || dup2(errors, STDERR_FILENO) < 0) _exit(1);
    const std::string text = answer_all(job).dump(-1, ' ', false, Json::error_handler_t::replace);
    for (std::size_t sent = 0; sent < text.size();) {
        const ssize_t put = write(result, text.data() + sent, text.size() - sent);
        if (put <= 0) _exit(1);
        sent += static_cast<std::size_t>(put);
    }
    _exit(0);
}

std::string read_all(int file) {
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t got = read(file, buffer, sizeof buffer);
        if (got > 0) text.append(buffer, static_cast<std::size_t>(got));
        if (got == 0 || (got < 0 && errno != EINTR)) return text;
    }
}

[[noreturn]] void report_death(int status, const std::string& errors) {
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT)
        fail(Exit::kFailure, "the library stopped: {}; check the map with 'kavrinctl map verify'",
             last_words(errors));
    if (WIFSIGNALED(status))
        fail(Exit::kFailure,
             "asking for the verdict ended by signal {} ({}); check the map with 'kavrinctl map "
             "verify'",
             WTERMSIG(status), strsignal(WTERMSIG(status)));
    fail(Exit::kFailure, "the verdict could not be asked for: {}", last_words(errors));
}

}  // namespace

Json ask_in_child(const VerdictJob& job) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        fail(Exit::kFailure, "cannot make a pipe: {}", std::strerror(errno));
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    const Descriptor errors(memfd_create("standard error", MFD_CLOEXEC));
    if (!errors.valid()) fail(Exit::kFailure, "out of memory");
    std::fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) fail(Exit::kFailure, "cannot start a process: {}", std::strerror(errno));
    if (child == 0) be_the_child(job, parent, writing.get(), errors.get());
    writing.reset();

    const std::string text = read_all(reading.get());
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        lseek(errors.get(), 0, SEEK_SET);
        report_death(status, read_all(errors.get()));
    }
    return Json::parse(text);
}

}  // namespace kvadmin
