// A small permission map kept as paths with their entries, and written as the pair of files that a
// build takes.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "sim_script.h"

namespace kvadmin {

class SimMap {
public:
    // Gives a path its entries, in place of those it had; the way to it is made when it is not
    // there. "/" is the root.
    void set(const std::string& path, const std::vector<SimAce>& aces);
    bool empty() const { return !touched_; }

    struct Pair {
        std::string size_json;
        std::string data_json;
    };
    Pair pair() const;

private:
    struct Element {
        std::string name;
        std::vector<SimAce> aces;
        std::vector<Element> children;  // in the order of their making
    };
    struct Counts {
        std::size_t elements = 0;
        std::size_t aces = 0;
        std::size_t names = 0;
    };
    static void append(std::string& out, const Element& element, Counts& counts);

    Element root_{"/", {}, {}};
    bool touched_ = false;
};

}  // namespace kvadmin
