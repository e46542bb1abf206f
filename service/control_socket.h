// The socket that kavrinctl talks to: a request is a line with a JSON object, and so is the answer.
// Only root is listened to, whatever the socket's mode has become.
#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "descriptor.h"
#include "event_loop.h"
#include "failure.h"

namespace kvservice {

using Json = nlohmann::ordered_json;

Json success(Json result);
Json refusal(kvadmin::Exit code, const std::string& error);

class ControlSocket {
public:
    // Answers one request, now or later; an answer to somebody who has gone is dropped.
    using Reply = std::function<void(const Json&)>;
    using Handler = std::function<void(const Json& request, const Reply& reply)>;

    struct Limits {
        int backlog = 16;             // connections at a time, too
        std::size_t message = 65536;  // bytes of a request
    };

    // Takes the place of a socket that nobody listens on. Fails by CommandError.
    ControlSocket(EventLoop& loop, std::string path, Limits limits, Handler handler);
    ~ControlSocket();  // removes the socket
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

    const std::string& path() const { return path_; }
    void set_limits(Limits limits) { limits_ = limits; }

private:
    struct Client {
        kvadmin::Descriptor socket;
        std::string received;
        std::string to_send;
        bool busy = false;     // a request waits for its answer
        bool closing = false;  // once everything is sent
        Source source;
    };
    using ClientPlace = std::shared_ptr<Client>;

    void accept_clients();
    void serve(const ClientPlace& client, std::uint32_t events);
    bool receive(const ClientPlace& client);
    void take_lines(const ClientPlace& client);
    void take_request(const ClientPlace& client, const std::string& line);
    void answer(const ClientPlace& client, const Json& answer);
    void send_waiting(const ClientPlace& client);
    void watch(const ClientPlace& client);
    void drop(const ClientPlace& client);

    EventLoop& loop_;
    std::string path_;
    Limits limits_;
    Handler handler_;
    kvadmin::Descriptor listener_;
    Source source_;
    std::list<ClientPlace> clients_;
};

}  // namespace kvservice
