// The tool's side of the service's control socket: one line asks, one line answers. Whatever keeps
// an answer away is told in words that say what to do, and a service that does not run is told from
// one that does not answer, because a command may then show what can be seen without it.
#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "failure.h"

namespace kvadmin {

inline constexpr const char* kDefaultServiceSocket = "/run/kavrin/kavrind.sock";

// Nobody listens: there is no socket, or nobody behind it.
struct ServiceAbsent : CommandError {};

// The socket given, or that of the shared configuration table, or the default.
std::string service_socket(const std::string& given);

// Asks, and gives the answer's result. No limit waits as long as the service takes. Fails by
// ServiceAbsent, or by CommandError: with the service's own code and message when it refused.
nlohmann::json ask_service(const std::string& socket, const nlohmann::json& request,
                           std::chrono::seconds limit = std::chrono::seconds(0));

// Members of an answer by their JSON pointer ("/map/name"); nothing when one is not there, null or
// of another type. A service of another version may say less.
std::optional<std::string> text_at(const nlohmann::json& document, const char* pointer);
std::optional<std::int64_t> number_at(const nlohmann::json& document, const char* pointer);
std::optional<double> real_at(const nlohmann::json& document, const char* pointer);
bool is_set(const nlohmann::json& document, const char* pointer);  // true, and nothing else

// What the commands print of times and counts: "2026-11-21 12:33:13 UTC", "3 files", "1 file".
std::string utc_text(std::int64_t seconds);
std::string counted(std::int64_t number, std::string_view noun);
// "12 seconds", "5 minutes", "3 hours", "4 days": the largest unit that fits twice.
std::string duration_text(std::int64_t seconds);

}  // namespace kvadmin
