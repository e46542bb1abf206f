// See service_client.h.
#include "service_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "descriptor.h"
#include "kernel_objects.h"
#include "utf8.h"

namespace kvadmin {
namespace {

using Json = nlohmann::json;

constexpr std::size_t kLongestAnswer = 64 << 20;  // a service that never ends its line is broken

// The shared table's text: the library's private copy may be one of zeros.
std::string socket_of_table() {
    const auto table = config_table_copy();
    if (!table) return "";
    const char* const text = (*table)[PARAM_SOCKET_PATH].value.strval;
    return std::string(text, strnlen(text, KAVRIN_PARAM_STRLEN));
}

[[noreturn]] void fail_to_connect(const std::string& path, int error) {
    constexpr const char* kStart = "start it with 'systemctl start kavrind', or with 'kavrind'";
    if (error == ENOENT)
        throw ServiceAbsent{{Exit::kFailure, fmt::format("kavrind is not running: there is no "
                                                         "socket {}; {}",
                                                         printable(path), kStart)}};
    if (error == ECONNREFUSED)
        throw ServiceAbsent{{Exit::kFailure, fmt::format("kavrind is not running: nobody listens "
                                                         "at {}; {}",
                                                         printable(path), kStart)}};
    if (error == EACCES || error == EPERM)
        fail(Exit::kFailure, "only root may talk to kavrind at {}; run this as root",
             printable(path));
    fail(Exit::kFailure, "cannot reach kavrind at {}: {}", printable(path), std::strerror(error));
}

Descriptor connect_to(const std::string& path, std::chrono::seconds limit) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        fail(Exit::kUsage, "the socket's path has {} bytes; no socket has more than {}",
             path.size(), sizeof address.sun_path - 1);
    std::memcpy(address.sun_path, path.data(), path.size());
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.valid()) fail(Exit::kFailure, "cannot make a socket: {}", std::strerror(errno));
    const timeval wait{limit.count(), 0};  // zero: for ever
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail_to_connect(path, errno);
    return socket;
}

// False when the service has closed its side: its answer may be there all the same.
bool send_line(int socket, const std::string& line) {
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t sent = send(socket, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0 && (errno == EPIPE || errno == ECONNRESET)) return false;
        if (sent < 0) fail(Exit::kFailure, "cannot ask kavrind: {}", std::strerror(errno));
        done += static_cast<std::size_t>(sent);
    }
    return true;
}

[[noreturn]] void fail_without_answer(std::string_view got) {
    fail(Exit::kFailure,
         "kavrind ended the connection {}; it may have been stopped or have died: look at its log "
         "('journalctl -u kavrind') and at 'kavrinctl status'",
         got.empty() ? "without an answer" : "in the middle of its answer");
}

std::string receive_line(int socket, std::chrono::seconds limit) {
    std::string line;
    char block[65536];
    while (true) {
        const ssize_t got = recv(socket, block, sizeof block, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            fail(Exit::kFailure,
                 "kavrind did not answer within {} seconds; it runs and is stuck: look at its log "
                 "('journalctl -u kavrind')",
                 limit.count());
        if (got <= 0) fail_without_answer(line);
        const std::string_view part(block, static_cast<std::size_t>(got));
        const std::size_t end = part.find('\n');
        line += part.substr(0, end);
        if (end != std::string_view::npos) return line;
        if (line.size() > kLongestAnswer)
            fail(Exit::kFailure, "kavrind's answer has no end after {} bytes", line.size());
    }
}

Exit exit_of(const Json& answer) {
    const std::int64_t code = number_at(answer, "/code").value_or(1);
    for (const Exit known : {Exit::kFailure, Exit::kDenied, Exit::kInvalidInput, Exit::kUsage})
        if (code == static_cast<int>(known)) return known;
    return Exit::kFailure;
}

const Json* member(const Json& document, const char* pointer) {
    const Json::json_pointer place(pointer);
    return document.contains(place) ? &document.at(place) : nullptr;
}

}  // namespace

std::string service_socket(const std::string& given) {
    if (!given.empty()) return given;
    const std::string configured = socket_of_table();
    return configured.empty() ? kDefaultServiceSocket : configured;
}

Json ask_service(const std::string& socket, const Json& request, std::chrono::seconds limit) {
    const Descriptor connection = connect_to(socket, limit);
    send_line(connection.get(),
              request.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
    const std::string line = receive_line(connection.get(), limit);
    const Json answer = Json::parse(line, nullptr, false);
    const Json* ok = answer.is_object() ? member(answer, "/ok") : nullptr;
    if (ok == nullptr || !ok->is_boolean())
        fail(Exit::kFailure, "what answers at {} is not kavrind, or one of another version: \"{}\"",
             printable(socket), printable(line.substr(0, 80)));
    if (!ok->get<bool>())
        fail(exit_of(answer), "kavrind refused: {}",
             printable(text_at(answer, "/error").value_or("it does not say why")));
    const Json* result = member(answer, "/result");
    return result == nullptr ? Json::object() : *result;
}

std::optional<std::string> text_at(const Json& document, const char* pointer) {
    const Json* found = member(document, pointer);
    if (found == nullptr || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

std::optional<std::int64_t> number_at(const Json& document, const char* pointer) {
    const Json* found = member(document, pointer);
    if (found == nullptr || !found->is_number_integer()) return std::nullopt;
    return found->get<std::int64_t>();
}

std::optional<double> real_at(const Json& document, const char* pointer) {
    const Json* found = member(document, pointer);
    if (found == nullptr || !found->is_number()) return std::nullopt;
    return found->get<double>();
}

bool is_set(const Json& document, const char* pointer) {
    const Json* found = member(document, pointer);
    return found != nullptr && *found == true;
}

std::string utc_text(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    char text[64];
    if (gmtime_r(&time, &parts) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts) == 0)
        return std::to_string(seconds);
    return text;
}

std::string counted(std::int64_t number, std::string_view noun) {
    return fmt::format("{} {}{}", number, noun, number == 1 ? "" : "s");
}

std::string duration_text(std::int64_t seconds) {
    constexpr struct {
        std::int64_t seconds;
        const char* noun;
    } kUnits[] = {{86400, "day"}, {3600, "hour"}, {60, "minute"}};
    for (const auto& unit : kUnits)
        if (seconds >= 2 * unit.seconds) return counted(seconds / unit.seconds, unit.noun);
    return counted(seconds, "second");
}

}  // namespace kvadmin
