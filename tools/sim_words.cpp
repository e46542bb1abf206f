// See sim_words.h.
#include "sim_words.h"

#include <algorithm>
#include <utility>

namespace kvadmin {
namespace {

constexpr std::string_view kBlanks = " \t\r";

class Splitter {
public:
    Splitter(std::string_view line, std::size_t number) : line_(line), number_(number) {}

    SimLine split() {
        for (;;) {
            const std::size_t begin = line_.find_first_not_of(kBlanks, at_);
            if (begin == std::string_view::npos || line_[begin] == '#') break;
            at_ = begin;
            SimWord word{{}, begin + 1, line_[begin] == '"'};
            if (!(word.quoted ? take_quoted(word) : take_plain(word))) break;
            result_.words.push_back(std::move(word));
        }
        if (!result_.words.empty()) {
            const std::size_t begin = result_.words.front().column - 1;
            result_.text = line_.substr(begin, at_ - begin);
        }
        return std::move(result_);
    }

private:
    bool take_plain(SimWord& word) {
        const std::size_t end = std::min(line_.find_first_of(kBlanks, at_), line_.size());
        word.text = line_.substr(at_, end - at_);
        at_ = end;
        const std::size_t quote = word.text.find('"');
        if (quote == std::string::npos) return true;
        return refuse(word.column + quote,
                      "a quote inside of a word; put the whole word in quotes");
    }

    bool take_quoted(SimWord& word) {
        for (++at_; at_ < line_.size(); ++at_) {
            const char c = line_[at_];
            if (c == '"') return ends_here();
            if (c == '\\') {
                const char next = at_ + 1 < line_.size() ? line_[at_ + 1] : ' ';
                if (next != '"' && next != '\\')
                    return refuse(at_ + 1, "only \\\" and \\\\ stand after a backslash in quotes");
                ++at_;
            }
            word.text += line_[at_];
        }
        return refuse(word.column, "this quote has no closing quote on its line");
    }

    bool ends_here() {
        ++at_;
        if (at_ == line_.size() || kBlanks.find(line_[at_]) != std::string_view::npos) return true;
        return refuse(at_ + 1, "a blank must follow a closing quote");
    }

    bool refuse(std::size_t column, const char* message) {
        result_.errors.push_back({number_, column, message});
        return false;
    }

    std::string_view line_;
    std::size_t number_;
    std::size_t at_ = 0;
    SimLine result_;
};

}  // namespace

SimLine split_sim_line(std::string_view line, std::size_t number) {
    return Splitter(line, number).split();
}

}  // namespace kvadmin
