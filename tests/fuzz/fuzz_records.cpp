// Feeds the reader of framed records hostile files, as both kinds of message. An input is a file as
// it is, or, when it begins with 'P', a list of changes to an honest one: four bytes each, place,
// kind of change, value.
//
// Beyond crashes it looks for contradictions: the records that are given must be the frames that
// lie before the damage, counted here a second way, and whatever is given must print as a line of
// text and as valid JSON.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "event_text.h"
#include "kavrin_utils.h"
#include "record_file.h"
#include "utf8.h"

using namespace kvadmin;

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void silence_library() {
    static global_param_t table[PARAM_MAX_INDEX] = {};
    table[PARAM_DEBUG_LEVEL].value.intval = -1;
    global_params = table;
}

std::string packed(staging_data_t* record) {
    std::string bytes(reinterpret_cast<const char*>(record), record->size + sizeof *record);
    std::free(record);
    return bytes;
}

const std::string& honest_file() {
    static const std::string file = [] {
        std::string path = "/srv/Shared/a";
        std::string other = "/srv/Shared/Ärger";
        std::string user = "anna";
        VFSEvent event = VFSEVENT__INIT;
        event.client_pid = 4321;
        event.uid = 1001;
        event.path = path.data();
        event.optype = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
        event.time_sec = 1700000000;
        const std::string plain = packed(create_staging_data_buf(&event));
        event.rename_path = other.data();
        event.kavrin_user = user.data();
        AuditEvent audit = AUDIT_EVENT__INIT;
        audit.path = path.data();
        audit.uid = 1001;
        audit.size = UINT64_MAX;
        audit.ip_address = user.data();
        return plain + packed(create_staging_data_buf(&event)) + plain +
               packed(create_audit_data_buf(&audit));
    }();
    return file;
}

std::string changed_file(const std::uint8_t* changes, std::size_t size) {
    std::string file = honest_file();
    for (std::size_t i = 0; i + 4 <= size && !file.empty(); i += 4) {
        const std::size_t at = (changes[i] + 256U * changes[i + 1]) % file.size();
        const std::uint8_t value = changes[i + 3];
        switch (changes[i + 2] % 5) {
            case 0:
                file[at] = static_cast<char>(value);
                break;
            case 1:
                file[at] = static_cast<char>(file[at] ^ (1 << value % 8));
                break;
            case 2:
                file.resize(at);
                break;
            case 3:
                file.insert(at, std::string(value % 16, static_cast<char>(value)));
                break;
            case 4:
                file.erase(at, value % 16);
                break;
        }
    }
    return file;
}

// Frames before `end`, walked without the reader.
std::uint64_t frames_before(const std::string& file, std::uint64_t end) {
    std::uint64_t frames = 0;
    std::uint64_t at = 0;
    while (at < end) {
        std::uint32_t header[2];
        require(file.size() - at >= sizeof header);
        std::memcpy(header, file.data() + at, sizeof header);
        require(header[0] > 0 && header[1] == STAGING_DATA_SIG);
        at += sizeof header + header[0];
        ++frames;
    }
    require(at == end && end <= file.size());
    return frames;
}

template <typename Message>
void read(int descriptor, const std::string& file) {
    const MessagePrinter<Message> text(false);
    const MessagePrinter<Message> json(true);
    const RecordWalk walk = walk_records<Message>(descriptor, 0, [&](const Message& message) {
        const std::string line = text.line(message);
        require(is_utf8(line) && line.find('\n') == std::string::npos);
        const std::string object = json.line(message);
        require(object.find('\n') == std::string::npos);
        require(nlohmann::json::parse(object)["time_sec"] == message.time_sec);
    });
    require(walk.error == 0);
    require(walk.records == frames_before(file, walk.end));
    require(walk.damage ? walk.damage->offset == walk.end : walk.end == file.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    silence_library();
    const bool changes = size > 0 && bytes[0] == 'P';
    const std::string file = changes ? changed_file(bytes + 1, size - 1)
                                     : std::string(reinterpret_cast<const char*>(bytes), size);
    static const int descriptor = memfd_create("records", MFD_CLOEXEC);
    require(ftruncate(descriptor, 0) == 0);
    require(pwrite(descriptor, file.data(), file.size(), 0) == static_cast<ssize_t>(file.size()));
    read<VFSEvent>(descriptor, file);
    read<AuditEvent>(descriptor, file);
    return 0;
}
