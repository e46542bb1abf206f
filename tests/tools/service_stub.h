// Stands in for the service where a test is about who asks: a process behind a socket that answers
// each line as it is told to, and writes down what it was asked.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support.h"

namespace kvtest {

inline const std::string kServiceSocket = "/run/kavrin/kavrind.sock";

class ServiceStub {
public:
    // `answer` gives the bytes that a line is answered with, the newline included; the connection
    // is closed then.
    using Answer = std::function<std::string(const std::string& line)>;

    explicit ServiceStub(const Answer& answer, const std::string& socket_path = kServiceSocket)
        : path_(socket_path), asked_(make_temp_dir() + "/asked") {
        std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
        const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        unlink(path_.c_str());
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener, 4), 0);
        child_ = fork();
        if (child_ == 0) serve(listener, answer);
        close(listener);
    }
    ~ServiceStub() { stop(); }
    ServiceStub(const ServiceStub&) = delete;
    ServiceStub& operator=(const ServiceStub&) = delete;

    pid_t pid() const { return child_; }
    // The socket stays, as after a service that was killed.
    void stop() {
        if (child_ <= 0) return;
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
        child_ = -1;
    }
    std::vector<nlohmann::json> asked() const {
        std::vector<nlohmann::json> requests;
        if (!file_exists(asked_)) return requests;
        std::istringstream lines(read_file(asked_));
        for (std::string line; std::getline(lines, line);)
            requests.push_back(nlohmann::json::parse(line));
        return requests;
    }

private:
    [[noreturn]] void serve(int listener, const Answer& answer) const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (true) {
            const int client = accept(listener, nullptr, nullptr);
            std::string line;
            for (char c = 0; recv(client, &c, 1, 0) == 1 && c != '\n';) line += c;
            std::ofstream(asked_, std::ios::app) << line << '\n';
            const std::string bytes = answer(line);
            send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            close(client);
        }
    }

    std::string path_;
    std::string asked_;
    pid_t child_ = -1;
};

inline std::string ok_line(const nlohmann::json& result) {
    return nlohmann::json{{"ok", true}, {"result", result}}.dump() + "\n";
}
inline std::string error_line(int code, const std::string& error) {
    return nlohmann::json{{"ok", false}, {"code", code}, {"error", error}}.dump() + "\n";
}
inline ServiceStub::Answer always(const std::string& bytes) {
    return [bytes](const std::string&) { return bytes; };
}

}  // namespace kvtest
