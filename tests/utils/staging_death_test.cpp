// Processes that die inside the staging buffer's code: a flusher at each call that it makes, before
// and after it, and a writer at every single instruction that touches the segment. Whatever they
// leave, the semaphore is free, the buffer walks, and no record is in two pending files or in none.
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <set>

#include "call_probe.h"
#include "staging_fixture.h"

namespace {

using kvtest::append;
using kvtest::Call;
using kvtest::CallMade;
using kvtest::CallProbe;
using kvtest::held;
using kvtest::pending_payloads;

using Texts = std::vector<std::string>;

class StagingDeath : public kvtest::StagingTest {
protected:
    // The buffer holds exactly as many whole records as its header says.
    static void expect_walk() {
        const kvtest::Held look = held();
        const auto found = kvtest::payloads(look.records());
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(found->size(), look.num_records);
    }
    // The contents of temporary files that were left.
    Texts temporaries() const {
        Texts contents;
        for (const std::string& name : kvtest::files_in(folder_)) {
            if (name.starts_with("kvtemp"))
                contents.push_back(kvtest::read_file(folder_ + "/" + name));
        }
        return contents;
    }
};

struct Step {
    const char* name;
    Call kind;
    int nth;
    bool after;
    bool buffer_emptied;  // the records are in the temporary or the pending file only
    bool published;       // a pending file has them
};

constexpr Step kSteps[] = {
    {"before the name", Call::clock, 1, false, false, false},
    {"before the temporary", Call::make_temporary, 1, false, false, false},
    {"after the temporary", Call::make_temporary, 1, true, false, false},
    {"before the wait", Call::semop, 1, false, false, false},
    {"after the wait", Call::semop, 1, true, false, false},
    {"before the attach", Call::shmat, 1, false, false, false},
    {"after the attach", Call::shmat, 1, true, false, false},
    {"before the write", Call::write, 1, false, false, false},
    {"after the write", Call::write, 1, true, false, false},
    {"before the sync", Call::sync, 1, false, false, false},
    {"after the sync", Call::sync, 1, true, false, false},
    {"after the close", Call::close, 1, true, false, false},
    {"before the post", Call::semop, 2, false, true, false},
    {"after the post", Call::semop, 2, true, true, false},
    {"before the rename", Call::rename, 1, false, true, false},
    {"after the rename", Call::rename, 1, true, true, true},
};

TEST_F(StagingDeath, FlusherMayDieAtEveryCall) {
    leaves_temporaries_ = true;
    for (const Step& step : kSteps) {
        SCOPED_TRACE(step.name);
        use_folder(kvtest::make_temp_dir());
        ASSERT_EQ(initialize_staging_buffer(), 0);
        ASSERT_EQ(append("one"), 0);
        ASSERT_EQ(append("two"), 0);
        const std::string records = held().records();

        const pid_t flusher = fork();
        if (flusher == 0) {
            CallProbe probe;
            const auto die_there = [&](const CallMade& call) {
                if (call.kind == step.kind && call.nth == step.nth) raise(SIGKILL);
            };
            if (step.after) {
                probe.after = die_there;
            } else {
                probe.before = [&](const CallMade& call) {
                    die_there(call);
                    return 0;
                };
            }
            flush_staging_buffer();
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(flusher, &status, 0), flusher);
        ASSERT_TRUE(WIFSIGNALED(status)) << "it never came there";

        EXPECT_EQ(kvtest::semaphore_value(), 1);
        expect_walk();
        EXPECT_EQ(held().num_records, step.buffer_emptied ? 0u : 2u);
        EXPECT_EQ(kvtest::pending_in(folder_).size(), step.published ? 1u : 0u);
        EXPECT_LE(temporaries().size(), 1u);
        if (step.buffer_emptied && !step.published) {
            EXPECT_EQ(temporaries(), Texts{records});
        }

        // The others go on as if nothing had been.
        ASSERT_EQ(append("three"), 0);
        EXPECT_EQ(flush_staging_buffer(), 1);
        Texts expected{"one", "two", "three"};
        if (step.buffer_emptied && !step.published) expected = {"three"};
        EXPECT_EQ(pending_payloads(folder_), expected);
    }
}

TEST_F(StagingDeath, WriterMayDieAtEveryCall) {
    for (const bool after : {false, true}) {
        for (const auto& [kind, nth] :
             {std::pair{Call::semop, 1}, {Call::shmat, 1}, {Call::semop, 2}}) {
            SCOPED_TRACE(std::to_string(static_cast<int>(kind)) + (after ? " after" : " before"));
            ASSERT_EQ(initialize_staging_buffer(), 0);
            ASSERT_EQ(append("one"), 0);
            const pid_t writer = fork();
            if (writer == 0) {
                CallProbe probe;
                const auto die_there = [&, k = kind, n = nth](const CallMade& call) {
                    if (call.kind == k && call.nth == n) raise(SIGKILL);
                };
                probe.before = [&](const CallMade& call) {
                    if (!after) die_there(call);
                    return 0;
                };
                probe.after = [&](const CallMade& call) {
                    if (after) die_there(call);
                };
                append("two");
                _exit(0);
            }
            int status = 0;
            ASSERT_EQ(waitpid(writer, &status, 0), writer);
            ASSERT_TRUE(WIFSIGNALED(status));
            EXPECT_EQ(kvtest::semaphore_value(), 1);
            expect_walk();
            EXPECT_EQ(held().num_records, nth == 2 && kind == Call::semop ? 2u : 1u);
        }
    }
}

// Runs `body` in a child one instruction at a time and calls `look` between every two of them; a
// death at any instruction leaves what one of these looks saw. False where tracing is not allowed.
bool step_through(const std::function<void()>& body, const std::function<void()>& look) {
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(77);
        raise(SIGSTOP);
        body();
        _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
        look();
        if (testing::Test::HasFailure()) kill(child, SIGKILL);
        ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr);
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

using Fill = std::pair<unsigned, unsigned>;  // number of records, and where they end

// What `body` shows of the buffer between its instructions. A header that names two records must
// find these bytes of them.
std::set<Fill> fills_while(const std::function<void()>& body, const std::string& two_records) {
    staging_buffer_t* const watched = get_eventstore_staging_buffer();
    std::set<Fill> seen;
    const bool stepped = step_through(body, [&] {
        seen.insert({watched->num_records, watched->next_offset});
        if (watched->num_records != 2) return;
        EXPECT_EQ(std::memcmp(watched->data, two_records.data(), two_records.size()), 0);
    });
    put_eventstore_staging_buffer(watched);
    EXPECT_TRUE(stepped || seen.empty());
    return seen;
}

TEST_F(StagingDeath, WriterMayDieAtEveryInstruction) {
    ASSERT_EQ(append("one"), 0);
    kvtest::Frame second(std::string(200, '2'));
    const auto seen = fills_while([&] { write_to_staging_buffer(second.get()); },
                                  kvtest::frame("one") + second.text());
    if (seen.empty()) GTEST_SKIP() << "no tracing here";
    EXPECT_EQ(seen, (std::set<Fill>{{1, 16 + 11}, {2, 16 + 11 + 208}}));
}

TEST_F(StagingDeath, EmptyingMayDieAtEveryInstruction) {
    ASSERT_EQ(append("one"), 0);
    ASSERT_EQ(append("two"), 0);
    const std::string two = held().records();
    for (int (*const emptying)() : {initialize_staging_buffer, flush_staging_buffer}) {
        ASSERT_EQ(initialize_staging_buffer(), 0);
        ASSERT_EQ(append("one"), 0);
        ASSERT_EQ(append("two"), 0);
        const auto seen = fills_while([=] { emptying(); }, two);
        if (seen.empty()) GTEST_SKIP() << "no tracing here";
        EXPECT_EQ(seen, (std::set<Fill>{{2, 16 + 22}, {0, 16}}));
    }
}

}  // namespace
