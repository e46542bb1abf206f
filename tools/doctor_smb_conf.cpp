// Samba's installation and the shares of smb.conf that kavrin serves. testparm knows the file best;
// without it the file is read here, which takes includes and variables for plain text.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "child_output.h"
#include "doctor.h"

namespace kvadmin::doctor {
namespace {

constexpr std::chrono::seconds kLimit{10};

struct Section {
    std::string name;
    std::vector<std::pair<std::string, std::string>> parameters;
};

std::string trimmed(const std::string& text) {
    constexpr const char* kBlanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Samba takes no notice of case and blanks in the names of parameters.
std::string folded(const std::string& name) {
    std::string result;
    for (const char c : name)
        if (c != ' ' && c != '\t') result += c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    return result == "vfsobject" ? "vfsobjects" : result == "directory" ? "path" : result;
}

std::vector<Section> parse(const std::string& text) {
    std::vector<Section> sections{{"global", {}}};
    std::istringstream lines(text);
    std::string whole;
    for (std::string line; std::getline(lines, line);) {
        whole += trimmed(line);
        if (whole.ends_with('\\')) {
            whole.back() = ' ';
            continue;
        }
        const std::string entry = trimmed(std::exchange(whole, ""));
        const std::size_t equals = entry.find('=');
        if (entry.empty() || entry.front() == '#' || entry.front() == ';') continue;
        if (entry.front() == '[')
            sections.push_back({trimmed(entry.substr(1, entry.find(']') - 1)), {}});
        else if (equals != std::string::npos)
            sections.back().parameters.emplace_back(folded(entry.substr(0, equals)),
                                                    trimmed(entry.substr(equals + 1)));
    }
    return sections;
}

std::string find_program(const char* name) {
    for (const char* folder : {"/usr/sbin/", "/usr/bin/", "/usr/local/sbin/", "/usr/local/bin/",
                               "/usr/local/samba/sbin/", "/usr/local/samba/bin/"})
        if (access((std::string(folder) + name).c_str(), X_OK) == 0)
            return std::string(folder) + name;
    return "";
}

void read_shares(const std::vector<Section>& sections, SambaSetup& setup) {
    std::vector<std::pair<std::string, std::string>> global;
    for (const Section& section : sections)
        if (folded(section.name) == "global")
            global.insert(global.end(), section.parameters.begin(), section.parameters.end());
    for (const Section& section : sections) {
        if (folded(section.name) == "global") continue;
        SambaShare share{section.name, global};
        share.parameters.insert(share.parameters.end(), section.parameters.begin(),
                                section.parameters.end());
        const std::vector<std::string> modules = share.modules();
        if (std::find(modules.begin(), modules.end(), "kavrin") != modules.end())
            setup.shares.push_back(std::move(share));
    }
}

}  // namespace

std::string SambaShare::value(std::string_view parameter) const {
    const auto found = std::find_if(parameters.rbegin(), parameters.rend(),
                                    [parameter](const auto& p) { return p.first == parameter; });
    return found == parameters.rend() ? "" : found->second;
}

std::vector<std::string> SambaShare::modules() const {
    std::vector<std::string> names;
    std::string text = value("vfsobjects");
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == ',' || c == ';' || c == '"'; }, ' ');
    std::istringstream words(text);
    // A module may be followed by a colon and a name of its own.
    for (std::string word; words >> word;) names.push_back(word.substr(0, word.find(':')));
    return names;
}

SambaSetup read_samba_setup(const std::string& smb_conf) {
    SambaSetup setup;
    setup.smbd = find_program("smbd");
    if (!setup.smbd.empty()) {
        const std::string version = trimmed(run_program({setup.smbd, "-V"}, kLimit).text);
        setup.version = version.starts_with("Version ") ? version.substr(8) : version;
    }
    std::ifstream file(smb_conf);
    if (!file) {
        setup.problem = "cannot read " + smb_conf;
        return setup;
    }
    std::string text{std::istreambuf_iterator<char>(file), {}};
    if (const std::string testparm = find_program("testparm"); !testparm.empty()) {
        const ProgramOutput output = run_program({testparm, "-s", smb_conf}, kLimit);
        setup.parsed_by_samba = output.done && !output.text.empty();
        if (setup.parsed_by_samba)
            text = output.text;
        else
            setup.problem = "testparm does not accept " + smb_conf;
    }
    read_shares(parse(text), setup);
    return setup;
}

}  // namespace kvadmin::doctor
