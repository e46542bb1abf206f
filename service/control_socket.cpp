// See control_socket.h.
#include "control_socket.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "log.h"
#include "whole_file.h"

namespace kvservice {
namespace {

using kvadmin::Descriptor;
using kvadmin::Exit;
using kvadmin::fail;

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        fail(Exit::kInvalidInput, "the socket path {} is longer than {} bytes", path,
             sizeof address.sun_path - 1);
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

// The lock says that no other instance runs, so a socket that is there is a dead one's. Anything
// else is somebody's and stays.
void clear_place(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return;
    if (!S_ISSOCK(st.st_mode))
        fail(Exit::kFailure, "{} is in the way of the control socket and is no socket", path);
    unlink(path.c_str());
}

uid_t peer_of(int socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return static_cast<uid_t>(-1);
    return peer.uid;
}

}  // namespace

Json success(Json result) {
    return {{"ok", true}, {"result", std::move(result)}};
}

Json refusal(Exit code, const std::string& error) {
    return {{"ok", false}, {"code", static_cast<int>(code)}, {"error", error}};
}

ControlSocket::ControlSocket(EventLoop& loop, std::string path, Limits limits, Handler handler)
    : loop_(loop), path_(std::move(path)), limits_(limits), handler_(std::move(handler)) {
    const sockaddr_un address = address_of(path_);
    const std::size_t slash = path_.rfind('/');
    if (slash != 0) kvadmin::make_folder(path_.substr(0, slash), 0755);
    clear_place(path_);
    listener_ = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const mode_t mask = umask(0177);
    const bool bound =
        listener_.valid() &&
        bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int error = errno;
    umask(mask);
    if (!bound || listen(listener_.get(), limits_.backlog) != 0)
        fail(Exit::kFailure, "cannot listen on {}: {}", path_,
             std::strerror(bound ? errno : error));
    source_ = loop_.on_ready(listener_.get(), EPOLLIN, [this](std::uint32_t) { accept_clients(); });
}

ControlSocket::~ControlSocket() {
    unlink(path_.c_str());
    while (!clients_.empty()) drop(clients_.front());
}

void ControlSocket::accept_clients() {
    for (;;) {
        Descriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket.valid()) return;
        const ClientPlace client = std::make_shared<Client>();
        client->socket = std::move(socket);
        clients_.push_back(client);
        const uid_t peer = peer_of(client->socket.get());
        const bool full = clients_.size() > static_cast<std::size_t>(limits_.backlog);
        if (peer != 0 || full) {
            client->closing = true;
            if (peer != 0) log_warning("refused uid {} at the control socket", peer);
            answer(client, peer != 0 ? refusal(Exit::kFailure, "only root may talk to the service")
                                     : refusal(Exit::kFailure,
                                               "too many connections; try again in a moment"));
            continue;
        }
        watch(client);
    }
}

// One request at a time: while one waits for its answer, or the answer for its reader, nothing more
// is read.
void ControlSocket::watch(const ClientPlace& client) {
    const bool waits = client->busy || client->closing || !client->to_send.empty();
    const std::uint32_t events = (waits ? 0U : EPOLLIN) | (client->to_send.empty() ? 0U : EPOLLOUT);
    if (client->source) return loop_.change(client->source, events);
    client->source =
        loop_.on_ready(client->socket.get(), events,
                       [this, weak = std::weak_ptr<Client>(client)](std::uint32_t ready) {
                           if (const ClientPlace alive = weak.lock()) serve(alive, ready);
                       });
}

void ControlSocket::serve(const ClientPlace& client, std::uint32_t events) {
    if ((events & EPOLLOUT) != 0) return send_waiting(client);
    if ((events & EPOLLIN) != 0 && receive(client)) return take_lines(client);
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) drop(client);
}

bool ControlSocket::receive(const ClientPlace& client) {
    char buffer[4096];
    const ssize_t got = read(client->socket.get(), buffer, sizeof buffer);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    if (got <= 0) {
        drop(client);
        return false;
    }
    client->received.append(buffer, static_cast<std::size_t>(got));
    return true;
}

void ControlSocket::take_lines(const ClientPlace& client) {
    const std::size_t end = client->received.find('\n');
    const std::size_t size = std::min(end, client->received.size());
    if (size > limits_.message) {
        client->closing = true;
        return answer(client, refusal(Exit::kUsage, fmt::format("a request has at most {} bytes "
                                                                "(MESSENGER:socket message size)",
                                                                limits_.message)));
    }
    if (end == std::string::npos) return;
    const std::string line = client->received.substr(0, end);
    client->received.erase(0, end + 1);
    take_request(client, line);
}

void ControlSocket::take_request(const ClientPlace& client, const std::string& line) {
    Json request;
    std::string flaw;
    try {
        request = Json::parse(line);
        if (!request.is_object() || !request.contains("command") || !request["command"].is_string())
            flaw = "a request is a JSON object with a text \"command\"";
    } catch (const nlohmann::json::exception& error) {
        flaw = fmt::format("the request is no JSON: {}", error.what());
    }
    if (!flaw.empty()) {
        client->closing = true;
        return answer(client, refusal(Exit::kUsage, flaw));
    }
    client->busy = true;
    watch(client);
    handler_(request, [this, weak = std::weak_ptr<Client>(client)](const Json& reply) {
        if (const ClientPlace alive = weak.lock()) answer(alive, reply);
    });
}

void ControlSocket::answer(const ClientPlace& client, const Json& answer) {
    client->busy = false;
    client->to_send += answer.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    send_waiting(client);
}

void ControlSocket::send_waiting(const ClientPlace& client) {
    while (!client->to_send.empty()) {
        const ssize_t sent = send(client->socket.get(), client->to_send.data(),
                                  client->to_send.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0 && errno == EAGAIN) return watch(client);
        if (sent < 0) return drop(client);
        client->to_send.erase(0, static_cast<std::size_t>(sent));
    }
    if (client->closing) return drop(client);
    watch(client);
    if (!client->busy) take_lines(client);
}

// A worker may hold a copy of the descriptor, so closing it would not end the connection.
void ControlSocket::drop(const ClientPlace& client) {
    const ClientPlace held = client;  // NOLINT: the argument may be the one in the list
    held->source.reset();
    if (held->socket.valid()) shutdown(held->socket.get(), SHUT_RDWR);
    clients_.remove(held);
}

}  // namespace kvservice
