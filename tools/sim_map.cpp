// See sim_map.h.
#include "sim_map.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "pair_writer.h"

namespace kvadmin {
namespace {

// One of an ACL's two lists of ids and masks.
std::size_t append_ids(std::string& out, const std::vector<SimAce>& aces, bool groups) {
    std::size_t count = 0;
    for (const SimAce& ace : aces) {
        if (ace.group != groups) continue;
        out += fmt::format("{}\"{}\":{}", count == 0 ? "" : ",", ace.id, ace.mask);
        ++count;
    }
    return count;
}

}  // namespace

void SimMap::set(const std::string& path, const std::vector<SimAce>& aces) {
    touched_ = true;
    Element* element = &root_;
    for (std::size_t begin = path == "/" ? path.size() : 0; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string name = path.substr(begin, end - begin);
        auto& children = element->children;
        auto child = std::find_if(children.begin(), children.end(),
                                  [&name](const Element& known) { return known.name == name; });
        if (child == children.end()) {
            children.push_back({name, {}, {}});
            child = std::prev(children.end());
        }
        element = &*child;
        begin = end + 1;
    }
    element->aces = aces;
}

SimMap::Pair SimMap::pair() const {
    Pair pair;
    Counts counts;
    pair.data_json = "[{\"NUMCHILDREN\":1},";
    append(pair.data_json, root_, counts);
    pair.data_json += "]\n";
    pair.size_json = fmt::format(
        "{{\"MAPNAME\":\"smb-sim\",\"VERSION\":\"1\",\"GENERATIONNUM\":1,\"TIMESTAMP\":0,"
        "\"TOTALFSELEMS\":{},\"TOTALACES\":{},\"TOTALNAMELEN\":{}}}\n",
        counts.elements, counts.aces, counts.names);
    return pair;
}

void SimMap::append(std::string& out, const Element& element, Counts& counts) {
    ++counts.elements;
    counts.aces += element.aces.size();
    counts.names += element.name.size() + 1;
    std::string users;
    std::string groups;
    const std::size_t user_count = append_ids(users, element.aces, false);
    const std::size_t group_count = append_ids(groups, element.aces, true);
    out += "{\"DIR\":";
    append_json_string(out, element.name);
    out += fmt::format(
        ",\"ACL\":[{{\"NUMUSERS\":{}}},{{\"NUMGROUPS\":{}}},{{\"USERS\":{{{}}}}},"
        "{{\"GROUPS\":{{{}}}}}],\"CHILDREN\":[{{\"NUMCHILDREN\":{}}}",
        user_count, group_count, users, groups, element.children.size());
    for (const Element& child : element.children) {
        out += ',';
        append(out, child, counts);
    }
    out += "]}";
}

}  // namespace kvadmin
