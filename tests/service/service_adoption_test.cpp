// Objects that are there already when the service starts, as beside a share at work: the same ones
// go on being used, and no event in them is lost.
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "../tools/event_files.h"
#include "service_survival.h"

namespace kvtest {
namespace {

using std::chrono::seconds;

constexpr std::size_t kTableSize = PARAM_MAX_INDEX * sizeof(global_param_t);

class ServiceAdoption : public SurvivalTest {
protected:
    static std::size_t events_in_buffer() { return status_now()["staging"]["records"]; }
    static std::size_t all_events() { return events_in_files() + events_in_buffer(); }
    // No flush by time: an event is where it was put until a test moves it.
    static std::string staging_of(int size) {
        return "[SWEEPER]\nflush period = 86400\nstaging buffer size = " + std::to_string(size) +
               "\n";
    }
    // Two processes that put a hundred events a second into the buffer until they are told to stop.
    class Writers {
    public:
        Writers() {
            void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
            board_ = new (memory) Board{};
            for (pid_t& process : processes_)
                if ((process = fork()) == 0) write_until_stopped();
        }
        ~Writers() { munmap(board_, sizeof(Board)); }
        unsigned written() const { return board_->written; }
        unsigned refused() const { return board_->refused; }
        void stop() {
            board_->stop = true;
            for (const pid_t process : processes_) waitpid(process, nullptr, 0);
        }

    private:
        struct Board {
            std::atomic<bool> stop;
            std::atomic<unsigned> written;
            std::atomic<unsigned> refused;
        };
        [[noreturn]] void write_until_stopped() {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            global_params = nullptr;
            if (read_kavrin_config() != 0) _exit(1);
            std::string record = frame(numbered_event(1));
            while (!board_->stop) {
                auto* const data = reinterpret_cast<staging_data_t*>(record.data());
                ++(write_to_staging_buffer(data) == 0 ? board_->written : board_->refused);
                clear_log();
                usleep(20'000);
            }
            _exit(0);
        }
        Board* board_;
        pid_t processes_[2] = {};
    };
};

TEST_F(ServiceAdoption, EventsInTheBufferOutliveEveryEndOfTheService) {
    configure(staging_of(1'048'576));
    start();
    const SharedIds before = shared_ids();
    stage_events(0, 10);
    service().kill_it();
    stage_events(10, 5);  // nobody is there
    start();
    EXPECT_EQ(shared_ids(), before);
    EXPECT_EQ(all_events(), 15U);
    EXPECT_EQ(service().end(), 0);
    EXPECT_EQ(events_in_files(), 15U) << "an end flushes";
    stage_events(15, 4);
    start();
    EXPECT_EQ(shared_ids(), before);
    EXPECT_EQ(all_events(), 19U);
    EXPECT_EQ(ask({{"command", "flush"}})["result"]["records"], 4);
    EXPECT_EQ(events_in_files(), 19U);
}

TEST_F(ServiceAdoption, ATableIsWrittenInPlace) {
    configure("[VFS]\ndebug level = 3\n");
    start();
    const SharedIds before = shared_ids();
    EXPECT_EQ(shared_number(PARAM_DEBUG_LEVEL), 3);
    service().kill_it();
    configure("[VFS]\ndebug level = 7\n");
    start();
    EXPECT_EQ(shared_ids(), before);
    EXPECT_EQ(shared_number(PARAM_DEBUG_LEVEL), 7);
}

// As it is when a connection begins before the service has ever run.
TEST_F(ServiceAdoption, AnEmptyTableOfAnEarlyReaderIsFilled) {
    const ChildResult reader = run_child([] {
        global_params = nullptr;
        return read_kavrin_config();
    });
    ASSERT_EQ(reader.exit_code, 0);
    const int table = shared_ids().table;
    ASSERT_NE(table, -1);
    start();
    EXPECT_EQ(shared_ids().table, table);
    EXPECT_EQ(shared_number(PARAM_DEFAULT_USER_ID), 65'534);
    EXPECT_EQ(shared_number(PARAM_STAGING_BUFFER_SIZE), 1'048'576);
}

TEST_F(ServiceAdoption, ATableOfAnotherUserIsMadeAnew) {
    const key_t key = ftok("/dev/null", 3456);
    for (const bool give_away : {false, true}) {
        SCOPED_TRACE(give_away ? "given away to root" : "the user's own");
        const int foreign = make_segment(key, std::string(kTableSize, '\1'), 1000, give_away);
        start();
        EXPECT_NE(shared_ids().table, foreign);
        shmid_ds status{};
        ASSERT_EQ(shmctl(shared_ids().table, IPC_STAT, &status), 0);
        EXPECT_EQ(status.shm_perm.uid, 0U);
        EXPECT_EQ(status.shm_perm.cuid, 0U);
        EXPECT_EQ(status.shm_segsz, kTableSize);
        EXPECT_EQ(shared_number(PARAM_DEFAULT_USER_ID), 65'534);
        EXPECT_EQ(service().end(), 0);
        EXPECT_EQ(run_service({"--teardown"}).exit_code, 0);
    }
}

TEST_F(ServiceAdoption, ATableOfAnotherSizeIsMadeAnew) {
    make_segment(ftok("/dev/null", 3456), std::string(1000, '\0'), 0);
    start();
    EXPECT_EQ(shared_number(PARAM_DEFAULT_USER_ID), 65'534);
}

TEST_F(ServiceAdoption, ALargerBufferTakesThePlaceOfTheOldOneWithoutALoss) {
    configure(staging_of(65'536));
    start();
    stage_events(0, 20);
    const int old = shared_ids().staging;
    configure(staging_of(131'072));
    service().signal(SIGHUP);
    EXPECT_TRUE(within(seconds(5), [] { return status_now()["staging"]["size"] == 131'072; }))
        << service().log();
    EXPECT_NE(shared_ids().staging, old);
    EXPECT_EQ(shared_number(PARAM_STAGING_BUFFER_SIZE), 131'072);
    EXPECT_EQ(all_events(), 20U);
    stage_events(20, 5);
    EXPECT_EQ(all_events(), 25U);
    EXPECT_EQ(system_v_objects("shm").size(), 2U) << "the old buffer is left";
}

TEST_F(ServiceAdoption, ALargerBufferTakesItsPlaceUnderWriters) {
    configure(staging_of(65'536));
    start();
    Writers writers;
    for (const int size : {131'072, 262'144, 524'288}) {
        const unsigned before = writers.written();
        EXPECT_TRUE(within(seconds(5), [&] { return writers.written() > before + 20; }));
        configure(staging_of(size));
        service().signal(SIGHUP);
        EXPECT_TRUE(within(seconds(10), [size] { return status_now()["staging"]["size"] == size; }))
            << service().log();
    }
    const unsigned before = writers.written();
    EXPECT_TRUE(within(seconds(5), [&] { return writers.written() > before + 20; }));
    writers.stop();
    EXPECT_EQ(writers.refused(), 0U);
    EXPECT_EQ(all_events(), writers.written());
    EXPECT_FALSE(file_exists("/kavrin/.conf/kavrin_event_status.dirty"));
}

TEST_F(ServiceAdoption, ASmallerBufferDoesNotTakeThePlaceOfALargerOne) {
    configure(staging_of(131'072));
    start();
    stage_events(0, 3);
    const SharedIds before = shared_ids();
    configure(staging_of(65'536));
    service().signal(SIGHUP);
    EXPECT_TRUE(service().logs("131072 bytes"));
    EXPECT_EQ(shared_ids(), before);
    EXPECT_EQ(shared_number(PARAM_STAGING_BUFFER_SIZE), 131'072) << "the real size";
    service().kill_it();
    start();
    EXPECT_EQ(shared_ids(), before);
    EXPECT_EQ(shared_number(PARAM_STAGING_BUFFER_SIZE), 131'072);
    EXPECT_EQ(status_now()["staging"]["size"], 131'072);
    EXPECT_EQ(all_events(), 3U);
    stage_events(3, 3);
    EXPECT_EQ(all_events(), 6U);
}

// Left by a process that died between taking and giving back in another way than the kernel's.
TEST_F(ServiceAdoption, ASemaphoreThatLetsTwoInIsSetRight) {
    start();
    service().kill_it();
    const int set = shared_ids().staging_semaphore;
    ASSERT_EQ(semctl(set, 0, SETVAL, 5), 0);
    start();
    EXPECT_EQ(shared_ids().staging_semaphore, set);
    EXPECT_EQ(semctl(set, 0, GETVAL), 1);
}

// The library ends a process that meets such values.
TEST_F(ServiceAdoption, MapSemaphoresThatCannotBeAreMadeAnew) {
    start();
    serve(1);
    service().kill_it();
    ASSERT_EQ(semctl(shared_ids().semaphores, 0, SETVAL, 7), 0);
    start();
    EXPECT_EQ(served_generation(), 1) << service().log();
    serve(2);
    expect_nothing_left();
}

}  // namespace
}  // namespace kvtest
