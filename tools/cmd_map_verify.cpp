// kavrinctl map verify: every record of an image against the laws of the format.
#include <fmt/core.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "command.h"
#include "image_check.h"
#include "map_query.h"
#include "map_source.h"
#include "terminal.h"

namespace kvadmin {
namespace {

struct Options {
    std::string file;
    bool json = false;
};

void print_document(const MapSource& source, const ImageReport& report) {
    nlohmann::json findings = nlohmann::json::array();
    for (const ImageFinding& finding : report.findings)
        findings.push_back({{"record", word_for(finding.record)},
                            {"region_offset", finding.region_offset},
                            {"file_offset", finding.file_offset},
                            {"path", finding.path},
                            {"message", finding.message}});
    print_json({{"source", source.name()},
                {"sound", report.sound()},
                {"walked", report.walked},
                {"bytes", source.bytes().size()},
                {"elements", report.elements},
                {"aces", report.aces},
                {"findings_total", report.findings_total},
                {"findings", findings}});
}

void print_text(const MapSource& source, const ImageReport& report) {
    for (const ImageFinding& finding : report.findings) fmt::print("{}\n", line_for(finding));
    if (report.findings_total > report.findings.size())
        fmt::print("and {} more\n", report.findings_total - report.findings.size());
    if (report.sound()) {
        fmt::print("{} is {}: {} elements, {} ACEs, {} bytes\n", source.name(),
                   coloured(stdout, Colour::kGreen, "sound"), report.elements, report.aces,
                   source.bytes().size());
        return;
    }
    fmt::print("{} is {}: {} {} found{}\n", source.name(),
               coloured(stdout, Colour::kRed, "damaged"), report.findings_total,
               report.findings_total == 1 ? "fault" : "faults",
               report.walked ? ""
                             : "; its records were not looked at, because the header does not "
                               "say where they are");
}

Exit verify(const Options& options) {
    use_library();
    const MapSource source = MapSource::open(options.file, "map verify");
    const ImageReport report = check_image(source.bytes());
    if (options.json) {
        print_document(source, report);
    } else {
        print_text(source, report);
    }
    return report.sound() ? Exit::kDone : Exit::kInvalidInput;
}

}  // namespace

void register_map_verify(CLI::App& map) {
    CLI::App* command =
        map.add_subcommand("verify", "Check every record of the live map, or of a persisted one");
    const auto options = std::make_shared<Options>();
    command->add_option("file", options->file,
                        "The map file to check (default: the live map, as root)");
    add_json_option(*command, options->json);
    on_run(*command, [options] { return verify(*options); });
}

}  // namespace kvadmin
