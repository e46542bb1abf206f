// The data file's parser with an image to fill, for the tests that drive its callbacks: tokens that
// arrive unterminated, the stack read back from its bottom to its top, and the records' bytes.
#pragma once

#include <yajl/yajl_parse.h>

#include <algorithm>
#include <functional>
#include <initializer_list>

#include "load_fixture.h"

namespace kvtest {

using State = e_json_permdata_states;

constexpr const char* kStateNames[] = {"PERMDATA_STATE_STCHILDARRAY",
                                       "PERMDATA_STATE_STCHILDMAP",
                                       "PERMDATA_STATE_STACLARRAY",
                                       "PERMDATA_STATE_STUSERMAP",
                                       "PERMDATA_STATE_ENDUSERMAP",
                                       "PERMDATA_STATE_STGROUPMAP",
                                       "PERMDATA_STATE_ENDGROUPMAP",
                                       "PERMDATA_STATE_STNUMUSERMAP",
                                       "PERMDATA_STATE_ENDNUMUSERMAP",
                                       "PERMDATA_STATE_STNUMGROUPMAP",
                                       "PERMDATA_STATE_ENDNUMGROUPMAP",
                                       "PERMDATA_STATE_STUSERACLMAP",
                                       "PERMDATA_STATE_ENDUSERACLMAP",
                                       "PERMDATA_STATE_STGROUPACLMAP",
                                       "PERMDATA_STATE_ENDGROUPACLMAP",
                                       "PERMDATA_STATE_STNUMCHILDRENMAP",
                                       "PERMDATA_STATE_ENDNUMCHILDRENMAP",
                                       "PERMDATA_STATE_CHILDREN",
                                       "PERMDATA_STATE_NUMCHILDREN",
                                       "PERMDATA_STATE_NUMUSERS",
                                       "PERMDATA_STATE_NUMGROUPS",
                                       "PERMDATA_STATE_NAME",
                                       "PERMDATA_STATE_USERS",
                                       "PERMDATA_STATE_ACL",
                                       "PERMDATA_STATE_USERID",
                                       "PERMDATA_STATE_GROUPS",
                                       "PERMDATA_STATE_GROUPID",
                                       "PERMDATA_STATE_INVAL"};

inline bool is_one_of(State state, std::initializer_list<State> states) {
    return std::find(states.begin(), states.end(), state) != states.end();
}

// All states a stack element can have.
inline std::vector<State> all_states() {
    std::vector<State> states;
    for (int state = 0; state <= PERMDATA_STATE_INVAL; ++state)
        states.push_back(static_cast<State>(state));
    return states;
}

// Short names for the states that the tests name most.
constexpr State ARRAY = PERMDATA_STATE_STCHILDARRAY;
constexpr State MAP = PERMDATA_STATE_STCHILDMAP;
constexpr State ACL_ARRAY = PERMDATA_STATE_STACLARRAY;
constexpr State USER_MAP = PERMDATA_STATE_STUSERMAP;
constexpr State END_USER = PERMDATA_STATE_ENDUSERMAP;
constexpr State GROUP_MAP = PERMDATA_STATE_STGROUPMAP;
constexpr State NUM_USER = PERMDATA_STATE_STNUMUSERMAP;
constexpr State END_NUM_USER = PERMDATA_STATE_ENDNUMUSERMAP;
constexpr State NUM_GROUP = PERMDATA_STATE_STNUMGROUPMAP;
constexpr State END_NUM_GROUP = PERMDATA_STATE_ENDNUMGROUPMAP;
constexpr State USER_ACL = PERMDATA_STATE_STUSERACLMAP;
constexpr State GROUP_ACL = PERMDATA_STATE_STGROUPACLMAP;
constexpr State NUM_CHILD = PERMDATA_STATE_STNUMCHILDRENMAP;
constexpr State A = PERMDATA_STATE_ACL;
constexpr State C = PERMDATA_STATE_CHILDREN;
constexpr State COUNT = PERMDATA_STATE_NUMCHILDREN;
constexpr State END_NUM_CHILD = PERMDATA_STATE_ENDNUMCHILDRENMAP;

// A fresh image with room to spare and a summary that is the current one.
class Parser : public LoadTest {
protected:
    static constexpr std::uint32_t kElements = 40;
    static constexpr std::uint32_t kAces = 60;
    static constexpr std::uint32_t kNames = 2000;
    static constexpr std::uint32_t kSize = 176 + 60 * kElements + 12 * kAces + kNames;

    Parser() : summary_(empty_summary()), image_(kSize) {
        lay_out();
        memsummary = summary_.get();
    }
    ~Parser() override { memsummary = nullptr; }

    void lay_out() {
        summary_->membuf = image_.data();
        summary_->memsize = kSize;
        kavrin_be_header_t header{};
        header.total_fselems = kElements;
        header.total_aces = kAces;
        header.fselem_offset = 176;
        header.fselem_size = 24 * kElements;
        header.nameelem_offset = header.fselem_offset + header.fselem_size;
        header.nameelem_size = kNames + 12 * kElements;
        header.acl_offset = header.nameelem_offset + header.nameelem_size;
        header.acl_size = 12 * kAces + 8 * kElements;
        header.list_offset = header.acl_offset + header.acl_size;
        header.list_size = 16 * kElements;
        header.signature = KAVRIN_BE_HEADER_SIGNATURE;
        std::memcpy(image_.data(), &header, sizeof header);
    }

    // Tokens. A heap block of exactly the text's size has no terminator to lean on.
    static int key(std::string_view text) {
        const std::vector<unsigned char> bytes(text.begin(), text.end());
        return readperm_map_key(nullptr, bytes.data(), bytes.size());
    }
    static int text(std::string_view value) {
        const std::vector<unsigned char> bytes(value.begin(), value.end());
        return readperm_string(nullptr, bytes.data(), bytes.size());
    }
    static int number(std::string_view digits) {
        const std::vector<char> bytes(digits.begin(), digits.end());
        return readperm_number(nullptr, bytes.data(), bytes.size());
    }
    // "[", "]", "{", "}", "k:KEY", "s:STRING", "n:NUMBER".
    static int play(std::string_view token) {
        switch (token[0]) {
            case '[':
                return open_array();
            case ']':
                return close_array();
            case '{':
                return open_map();
            case '}':
                return close_map();
            case 'k':
                return key(token.substr(2));
            case 's':
                return text(token.substr(2));
            default:
                return number(token.substr(2));
        }
    }
    static int open_map() { return readperm_start_map(nullptr); }
    static int close_map() { return readperm_end_map(nullptr); }
    static int open_array() { return readperm_start_array(nullptr); }
    static int close_array() { return readperm_end_array(nullptr); }

    // The stack from its bottom to its top.
    std::vector<State> stack() const {
        std::vector<State> states;
        for (const oneway_list_elem_t* link = summary_->sth.sthead.first_elem; link != nullptr;
             link = link->next_elem)
            states.insert(states.begin(), reinterpret_cast<const jsonstack_t*>(link)->state);
        EXPECT_EQ(summary_->sth.totalelems, states.size());
        return states;
    }
    const jsonstack_t& top() const {
        return *reinterpret_cast<const jsonstack_t*>(summary_->sth.sthead.first_elem);
    }
    void push(State state, e_stelem_type type = STELEM_TYPE_INVALID, void* data = nullptr,
              std::uint32_t offset = 0) {
        ASSERT_EQ(push_stackelem_wstatedata(summary_.get(), state, offset, data, type),
                  SHM_MEMBE_OK);
    }
    void drop_all() {
        while (summary_->sth.sthead.first_elem != nullptr)
            ASSERT_EQ(pop_if_state(top().state), SHM_MEMBE_OK);
    }
    // Popped elements may be kept for the next push: uses them up, so that it must allocate.
    static void use_up_kept_elements() {
        static Summary other = empty_summary();
        const RefusedAllocation counting(0);
        while (RefusedAllocation::count() == 0)
            push_stackelem_wstatedata(other.get(), ARRAY, 0, nullptr, STELEM_TYPE_INVALID);
    }
    // What `token` does in a child whose stack holds these states, bottom first.
    ChildResult with_stack(const std::vector<State>& states, const std::function<int()>& token) {
        return run_child([&] {
            for (const State state : states)
                push_stackelem_wstatedata(summary_.get(), state, 0, nullptr, STELEM_TYPE_INVALID);
            return token();
        });
    }

    // Runs a whole document through the JSON parser.
    yajl_status parse(std::string_view json) {
        static const yajl_callbacks callbacks = [] {
            yajl_callbacks c{};
            c.yajl_number = readperm_number;
            c.yajl_string = readperm_string;
            c.yajl_start_map = readperm_start_map;
            c.yajl_map_key = readperm_map_key;
            c.yajl_end_map = readperm_end_map;
            c.yajl_start_array = readperm_start_array;
            c.yajl_end_array = readperm_end_array;
            return c;
        }();
        const CapturedStream out(STDOUT_FILENO);
        yajl_handle handle = yajl_alloc(&callbacks, nullptr, nullptr);
        yajl_status status =
            yajl_parse(handle, reinterpret_cast<const unsigned char*>(json.data()), json.size());
        if (status == yajl_status_ok) status = yajl_complete_parse(handle);
        yajl_free(handle);
        return status;
    }
    ChildResult parse_in_child(std::string_view json) {
        return run_child([&] { return static_cast<int>(parse(json)); });
    }

    const kavrin_be_header_t& header() const {
        return *reinterpret_cast<const kavrin_be_header_t*>(image_.data());
    }
    fs_elem_t& element(std::uint32_t offset) {
        return *reinterpret_cast<fs_elem_t*>(image_.data() + 176 + offset);
    }
    std::string name_of(std::uint32_t offset) {
        const std::uint8_t* name =
            image_.data() + header().nameelem_offset + element(offset).name_elem_offset;
        return reinterpret_cast<const char*>(name + 12);
    }
    std::uint32_t list_word(std::uint32_t list, std::uint32_t word) const {
        return u32_at(image_.data(), header().list_offset + list + 4 * word);
    }
    std::uint32_t acl_word(std::uint32_t acl, std::uint32_t word) const {
        return u32_at(image_.data(), header().acl_offset + acl + 4 * word);
    }

    Summary summary_;
    Bytes image_;
};

}  // namespace kvtest
