// One SMB connection, as a Samba module serves it: for each operation the hook before it, the
// operation itself as root, the credentials given back, the hook after it. Runs in the user's own
// process, see sim_process.h.
//
// A file is opened twice over, as smbd does it: the SMB create call opens the file through the
// module's open hook, so both pairs of hooks run, the inner one as root.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kavrin.h"
#include "sim_report.h"
#include "sim_script.h"

namespace kvadmin {

class SimConnection {
public:
    SimConnection(std::string user, std::string share, bool audit);
    ~SimConnection();
    SimConnection(const SimConnection&) = delete;
    SimConnection& operator=(const SimConnection&) = delete;

    SimOutcome connect();
    // An operation, or kDisconnect.
    SimOutcome perform(const SimStatement& statement);

    // The record, for the handler of SIGUSR1.
    kv_connection_private_data_t* record() { return data_.get(); }

private:
    // sim_connection.cpp
    SimOutcome run(const SimStatement& statement);
    SimOutcome disconnect();
    SimOutcome cache() const;
    SimOutcome look(const std::string& path, bool follow);
    SimOutcome change_folder(std::string path);
    SimOutcome statistics(std::string path);
    SimOutcome set_times(const std::string& path);
    SimOutcome deletable(std::string path) const;

    // sim_folders.cpp
    SimOutcome make_folder(const std::string& path);
    SimOutcome remove_folder(const std::string& path);
    SimOutcome create_folder(const std::string& path);
    SimOutcome open_folder(const std::string& path, bool to_delete);
    SimOutcome list(const std::string& path, const std::string& way);
    SimOutcome list_entries(const std::string& path, void* folder);

    // sim_files.cpp
    enum class Work : std::uint8_t { kNothing, kRead, kWrite };
    struct Create {
        std::string path;
        std::uint32_t disposition = 1;  // FILE_OPEN
        bool writes = false;
        bool to_delete = false;
        int flags = 0;  // of open(2), besides those that the disposition gives
        Work work = Work::kNothing;
        std::string text;  // to write
    };
    SimOutcome create_file(const Create& create);
    SimOutcome create_as(const SimStatement& statement);
    SimOutcome open_file(const SimStatement& statement);
    SimOutcome delete_open(const std::string& path);
    SimOutcome rename_path(std::string from, std::string to);
    SimOutcome unlink_file(std::string path);
    int open_through_hooks(const std::string& path, int flags, e_open_mode_t mode, bool to_delete,
                           SimOutcome& outcome);
    void work_and_close(int file, const Create& create, SimOutcome& outcome);

    std::string full(const std::string& path) const { return share_ + "/" + path; }
    const char* root() const { return share_.c_str(); }
    bool is_folder(const std::string& path) const;

    std::unique_ptr<kv_connection_private_data_t> data_;
    std::string user_;
    std::string share_;
    std::string cwd_;
    bool audit_;
    bool connected_ = false;
};

// Shared by the operations
// -------------------------------------------------------------------------

// A hook that said no; errno is its.
SimOutcome refused_by(const char* hook);
// A hook that said yes, and what the operation answered (errno is its).
SimOutcome allowed_and(int result);
inline bool is_done(const SimOutcome& outcome) {
    return outcome.disk == "done";
}
// Gives the user's credentials back after an operation; errno survives.
void give_back(kv_perm_ctx_t*& context);

}  // namespace kvadmin
