// The gate in front of the builder. The builder trusts the announced counts and ends its process on
// nearly every deviation from the grammar, so whatever may ever be built is checked here first, and
// the law is: a pair that is clean() builds without an assertion, without a cancelled parse and
// with every cursor inside its region.
//
// One streaming pass a file, in memory bounded by the nesting limit and the largest single ACL.
// json_lexer cuts the tokens; lint_size and lint_data hold the two grammars; this file joins them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kvadmin {

enum class Severity {
    kWarning,    // builds, but surely not what was meant
    kViolation,  // must not reach the builder
    kUnreadable  // the machine refused to give us the file
};

enum class PairFile { kSize, kData };

// One thing that is wrong. Lines and columns count from 1, columns in characters; all three are 0
// when the finding is about the file and not about a place in it.
struct Finding {
    Severity severity = Severity::kViolation;
    PairFile file = PairFile::kData;
    std::uint64_t line = 0;
    std::uint64_t column = 0;
    std::uint64_t byte = 0;  // offset from the start of the file
    std::string path;        // "/Shared/Docs"; empty outside of every element
    std::string message;     // what is wrong and what to do about it
};

// What the data file holds, counted as the size file announces it.
struct LintCounts {
    std::uint64_t elements = 0;    // the root included
    std::uint64_t aces = 0;        // user and group entries of every ACL
    std::uint64_t name_bytes = 0;  // decoded names and one byte each
};

struct LintReport {
    std::string size_path;
    std::string data_path;

    // The first findings of each file in their order, the size file's first. The totals below count
    // those that were not kept, too.
    std::vector<Finding> findings;
    std::uint64_t violations = 0;
    std::uint64_t warnings = 0;
    std::uint64_t unreadable = 0;

    LintCounts counts;             // true counts; final only when counted
    bool counted = false;          // the data file was read to its end
    LintCounts announced;          // 0 where the size file says nothing usable
    bool size_read = false;        // the size file was read to its end
    bool fixable = false;          // new counts alone would make this pair clean
    std::uint32_t image_size = 0;  // bytes of the image, 0 unless the pair is clean

    // The other values of the size file, decoded; unset ones are missing or unusable.
    struct Identity {
        bool has_map_name = false, has_version = false;
        bool has_generation = false, has_timestamp = false;
        std::string map_name;
        std::string version;
        std::uint32_t generation = 0;
        std::int64_t timestamp = 0;
    } identity;

    bool clean() const { return violations == 0 && unreadable == 0; }
};

struct LintOptions {
    std::size_t kept_findings = 100;           // per file and severity
    std::uint64_t largest_image = 0x7FFFF000;  // bytes; one write() must persist it
    // Told the bytes of the data file seen so far, now and then.
    std::function<void(std::uint64_t)> on_progress;
};

// Checks a pair of files. Never throws on account of what they hold or of how they fail to open:
// everything is in the report.
LintReport lint_pair(const std::string& size_path, const std::string& data_path,
                     const LintOptions& options = {});

// The same over open files (read from where they stand), so that a caller that also builds can be
// sure what was checked, and over texts in memory.
LintReport lint_descriptors(int size_fd, const std::string& size_path, int data_fd,
                            const std::string& data_path, const LintOptions& options = {});
LintReport lint_texts(std::string_view size_text, std::string_view data_text,
                      const LintOptions& options = {});

// "data.json:12:7: /Shared/Docs: what is wrong, and what to do", without a line end; control
// characters of hostile names are made visible.
std::string describe(const LintReport& report, const Finding& finding);

// All kept findings, at most `limit` of them, then "and N more" and the verdict.
void print_report(std::FILE* stream, const LintReport& report, std::size_t limit = 100);
std::string report_as_json(const LintReport& report);

}  // namespace kvadmin
