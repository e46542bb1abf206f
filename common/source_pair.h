// The two files a map is built from, held open from the check to the end of the build. The library
// removes the paths it was given even when a load fails, so it gets private links to the files; the
// files themselves go away only after success.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "lint.h"

namespace kvadmin {

class SourcePair {
public:
    // Opens both; failing that is a CommandError with kFailure.
    SourcePair(const std::string& size_path, const std::string& data_path);

    // Checks both; once, for it reads them to their ends.
    LintReport check(const std::function<void(std::uint64_t)>& on_progress) const;
    // A report that is not clean: its first lines on standard error, then a CommandError.
    void refuse_unless_clean(const LintReport& report) const;
    // Fails when either file is not, byte for byte as far as its marks tell, what was checked.
    void refuse_if_changed() const;
    // Removes both, unless something else lies there by now.
    void remove(std::vector<std::string>& remarks) const;

    const std::string& real_size_path() const { return size_.real_path; }
    const std::string& real_data_path() const { return data_.real_path; }

private:
    struct Source {
        std::string path;       // as it was given
        std::string real_path;  // absolute, without links
        Descriptor file;
        struct stat seen;  // before the check
    };
    static Source open_source(const std::string& path);
    static bool is_changed(const Source& source);
    static void remove(const Source& source, std::vector<std::string>& remarks);

    Source size_;
    Source data_;
};

// A folder that nobody else reads, with a link to each file. It has a fixed name, so that the next
// build finds and clears what a killed one left.
class PrivateLinks {
public:
    explicit PrivateLinks(const SourcePair& pair);
    ~PrivateLinks();
    PrivateLinks(const PrivateLinks&) = delete;
    PrivateLinks& operator=(const PrivateLinks&) = delete;
    std::string size_path() const;
    std::string data_path() const;
    static void clear_left();  // what a killed build left; the lock is held
};

}  // namespace kvadmin
